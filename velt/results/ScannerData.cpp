#include <QXlog/Names.h>

#include <algorithm>

#include <velt/results/ScannerData.h>

namespace VELT {

ScannerType const scannerTypes[numScanners] = {
    {"AV", &QXlog::names::QXPROP_SCANNER_AV},  // anti-virus
    {"CF", &QXlog::names::QXPROP_SCANNER_CF},  // content
    {"FF", &QXlog::names::QXPROP_SCANNER_FF},  // file format
    {"CM", &QXlog::names::QXPROP_SCANNER_CM},  // "CM", "EM" and "SM" are set by hosts alone
    {"EM", &QXlog::names::QXPROP_SCANNER_EM}, {"SM", &QXlog::names::QXPROP_SCANNER_SM},
    {"AS", &QXlog::names::QXPROP_SCANNER_AS},  // anti-spam
    {"MF", &QXlog::names::QXPROP_SCANNER_MF},  // mail filter
    {"IF", &QXlog::names::QXPROP_SCANNER_IF},  // information
};
ScannerType const* const lastScanner = scannerTypes + numScanners;

namespace {

// Adds the kind's key; gives the kind's row, or null when the record has no kind or an unknown one.
ScannerType const* AddKind(ScannerData const& data, KORlog::InfoBag& kinds) {
    if (!data.kind) return nullptr;
    ScannerType const* const row = std::find_if(scannerTypes, lastScanner, find_functor{*data.kind});
    if (row == lastScanner) return nullptr;
    kinds |= (*row->key)(*data.kind);
    return row;
}

bool Is(ScannerType const* row, std::string_view code) { return row && code == row->code; }

}  // namespace

bool GetInfoFromScannerName(ScannerData const& data, KORlog::InfoBag& out) {
    KORlog::InfoBag kinds;
    bool const isAntiSpam = Is(AddKind(data, kinds), "AS");
    out |= QXlog::names::QXPROP_SCANNER_NAMES(kinds);
    return isAntiSpam;
}

bool updateInfoFromData(std::pair<ScannerDataMap::const_iterator, ScannerDataMap::const_iterator> range,
                        KORlog::InfoBag& out) {
    KORlog::InfoBag kinds;
    bool anyAntiVirus = false;
    for (auto record = range.first; record != range.second; ++record) {
        if (Is(AddKind(record->second, kinds), "AV")) anyAntiVirus = true;
    }
    out |= QXlog::names::QXPROP_SCANNER_NAMES(kinds);
    return anyAntiVirus;
}

}  // namespace VELT
