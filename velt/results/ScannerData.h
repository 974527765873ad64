// ScannerData: what one scanner found, as a host's own report needs it.
// Owner: the host, one for each result. Thread: the session's. A field stays as it was until a result sets it.
#pragma once

#include <KORlog/InfoBag.h>
#include <KORtk/Text.h>

#include <boost/optional.hpp>

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include <velt/Export.h>

namespace VELT {

struct VELT_API ScannerData {
    boost::optional<unsigned long> type;         // of the scanner: 1 to 6 are known
    boost::optional<std::string> kind;           // two letters, see scannerTypes
    boost::optional<std::string> className;      // the engine
    boost::optional<KORtk::Utf8Array> fileName;  // the component; unset when it has no name of its own
    boost::optional<KORtk::Utf8Array> reason;    // what was found
    boost::optional<long> infoType;
    boost::optional<std::string> avEngine;
    boost::optional<std::string> avDats;
    boost::optional<std::string> spamEngine;
    boost::optional<double> spamScore;
};

// The kinds of scanner and the key that each is reported under.
struct ScannerType {
    char const* code;  // two letters
    KORlog::Key const* key;
};
inline constexpr std::size_t numScanners = 9;
extern VELT_API ScannerType const scannerTypes[numScanners];
extern VELT_API ScannerType const* const lastScanner;  // one behind the last row

// Finds the row of a code: the whole text, case-sensitive.
struct find_functor {
    std::string_view wanted;
    bool operator()(ScannerType const& row) const { return wanted == row.code; }
};

// Adds QXPROP_SCANNER_NAMES, which holds the kind's key if the kind is known and is empty otherwise.
// True when it is the anti-spam scanner.
VELT_API bool GetInfoFromScannerName(ScannerData const& data, KORlog::InfoBag& out);

// The same for all records of a range of a map from text to ScannerData, in one value.
// True when at least one of them is an anti-virus scanner.
using ScannerDataMap = std::map<std::string, ScannerData>;
VELT_API bool updateInfoFromData(std::pair<ScannerDataMap::const_iterator, ScannerDataMap::const_iterator> range,
                                 KORlog::InfoBag& out);

}  // namespace VELT
