// ScannerConn: the scanner that has one item scanned by a scanner process, on this machine or another. The first scan
// finds a server and delivers the content, each scan asks for one identity, and the last gives the connection back.
// Owner: the session, as of every scanner. Thread: the session's, which is called back about once a second while it
// waits. initialise and disable_ls run before threads start. Units: seconds, unless told otherwise.
// Failure: scan answers -1000 where no server could be reached, -1001 where the item could not be delivered, -1
// otherwise, with an event for each but those that docs/formats/scan-protocol.md names; so it does where memory runs
// out. Nothing throws but what the session's own operations throw. A scan is not tried again, and never handed to the
// engines of this process. The wait for an answer has no limit of its own: it ends with the answer, the connection, or
// the server's resource.
#pragma once

#include <memory>
#include <string>

#include <velt/Export.h>
#include <velt/scanning/RSMgr.h>
#include <velt/scanning/Scanner.h>

class IKORPropertyBag;

namespace VELT {

class ScannerServer;
class SerializedEFabricResult;
class StreamRequest;
class TCPStream;

namespace scan_requests {
struct Setup;
}

class VELT_API ScannerConn : public Scanner {
public:
    static ScannerConn* get(ScanContext* scanContext);  // never null; the caller owns it
    static void initialise(Config* config);
    static void start() {}
    static void disable_ls();  // no scanner process is used from now on, whatever the resource manager says

    ~ScannerConn() override;

    int setup_scan(unsigned int& count) override;  // nothing is contacted yet; always 0

    // A failure behind the verdict leaves an output all the same, which the caller deletes. An output that is passed in
    // is overwritten, not deleted, for a fallback too: that of the last identity delivers the content anew, as it is.
    int scan(unsigned int index, ScanOutput*& output, bool fallback) override;
    bool is_streaming_media() override;

    void dont_cache() { cacheable = false; }  // the connection closes when it ends
    // Now, and not with the scanner. A session may do so while it is called back, or asked for its attributes: the
    // connection is closed, and the scan that waits answers -1 without an event.
    void end_connection();

private:
    enum class Outcome { Done, Failed, Refused };

    ScannerConn() = default;
    int scan_one(unsigned index, ScanOutput*& output, bool fallback);
    int connect();
    int deliver();
    int SendScanRequest();
    bool send_request(std::string const& block);
    bool send_setup(scan_requests::Setup const& setup);
    bool read_answer(StreamRequest& answer);
    bool is_ok_response(StreamRequest const& answer);
    Outcome ask(unsigned index, bool fallback, StreamRequest& answer);
    Outcome await(StreamRequest& answer);
    int wait_for_scan(int timeout);
    bool has_unasked();
    void send_attributes();
    bool take(unsigned index, StreamRequest const& answer, ScanOutput*& output);
    bool has_headers(StreamRequest const& answer, unsigned& size);
    std::unique_ptr<SerializedEFabricResult> read_verdict();
    bool read_properties(IKORPropertyBag& bag);
    bool take_into_input(StreamRequest const& answer, unsigned size);
    int fail_without_memory();
    void report_failure(int error) const;
    void report_lack(char const* attribute) const;
    void report_refusal() const;

    bool cacheable = true;        // nothing has gone wrong with the connection
    TCPStream* stream = nullptr;  // null before the first scan and after the end
    ScannerServer* server = nullptr;
    RSMGRHANDLE handle = -1;   // occupies the server while it is open
    bool in_exchange = false;  // a scan was asked for, and its answer has not been read whole

    // Set at start-up.
    static std::string protocol;
    static unsigned s_maxwaittime;  // for a server
    static int s_callbackinterval;  // of that wait
};

}  // namespace VELT
