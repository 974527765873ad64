// ProcessScanResult: reads one scanner's result after a scan: counts it, reports it, and fills the host's record.
// It takes no action on the content. Holds no state.
// Use: walk FindFirstScanResult/FindNextScanResult and give each result to ProcessScannerTypes.
// Threads: any. Failure: a property that is absent or of another type counts as absent, without a message.
// `identity` may be null everywhere, which is "".
#pragma once

#include <KORlog/InfoBag.h>

#include <string>

#include <velt/Export.h>
#include <velt/results/ScannerData.h>

class IKORPropertyBag;
class IKORScanResult;
class IScanResultHandler;

namespace VELT {

class Connection;
struct ScanOutput;

class VELT_API ProcessScanResult {
public:
    // Chooses the folder of a dump. Any other value: "/tmp/" itself.
    enum protocol : int {
        SMTP = 0,  // "/tmp/smtp_result/"
        HTTP = 1,  // "/tmp/http_result/"
        POP3 = 2,  // "/tmp/pop3_result/"
        FTP = 3,   // "/tmp/ftp_result/"
    };

    static void Initialise();  // makes the counters; once, before any scan

    // True when the whole scan must be repeated by the fallback route: the format scanner gave up on an item that is
    // too large or too deep.
    bool DoFallBackScan(ScanOutput const* output);

    // False for a scanner error and for a result without a type; otherwise true, also for a type that nobody knows.
    // fatal15004: error 15004 is a failed scan whatever its level.
    bool ProcessScannerTypes(Connection const& connection, char const* identity, IKORScanResult const* result,
                             ScannerData& data, bool fatal15004);

    // One family each. False: the result is none of the family's business, and nothing was counted or reported.
    bool ProcessAntiVirusResult(Connection const& connection, char const* identity, IKORPropertyBag const* bag,
                                IKORScanResult const* result, ScannerData& data);
    bool ProcessContentScanResult(Connection const& connection, char const* identity, IKORPropertyBag const* bag,
                                  IKORScanResult const* result, ScannerData& data);
    bool ProcessFormatResult(Connection const& connection, char const* identity, IKORPropertyBag const* bag,
                             IKORScanResult const* result, ScannerData& data);
    bool ProcessMailFilterResult(Connection const& connection, char const* identity, IKORPropertyBag const* bag,
                                 IKORScanResult const* result, ScannerData& data);

    // True when the result had a score; counted and reported in any case. Without a score and a threshold it is spam.
    bool ProcessAntiSpamResult(Connection const& connection, char const* identity, IKORPropertyBag const* bag,
                               ScannerData& data);

    // True for the information types 4 and 5. No counter moves.
    bool ProcessInfoResult(Connection const& connection, char const* identity, IKORPropertyBag const* bag,
                           ScannerData& data);
    void FillInfoResultInfoBag(KORlog::InfoBag& out, char const* identity, IKORPropertyBag const* bag);

    // True when the result is to be treated as a failed scan. Reports every error but those of level 0.
    bool isScannerError(Connection const& connection, IKORScanResult const* result, bool fatal15004);

    // A debugging aid: what is known of one result goes into a new text file, which only this user may read. Nothing
    // tells whether it could be written. The folder is made open to all: another user of the machine may empty it.
    void DumpResult(IScanResultHandler const* handler, IKORScanResult const* result, ScannerData& data,
                    ProcessScanResult::protocol protocol, std::string auditId);
};

}  // namespace VELT
