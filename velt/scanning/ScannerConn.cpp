#include <velt/scanning/ScannerConn.h>

#include <QXStats/QXCounter.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <new>
#include <string_view>

#include <velt/Config.h>
#include <velt/config_details/settings/process.h>
#include <velt/config_details/settings/scanning.h>
#include <velt/connection/Connection.h>
#include <velt/errors/ErrnoEvents.h>
#include <velt/logging/Events.h>
#include <velt/logging/Keys.h>
#include <velt/logging/Log.h>
#include <velt/results/SerializedEFabricResult.h>
#include <velt/runtime/Clock.h>
#include <velt/runtime/Proxy.h>
#include <velt/scanning/ScanContext.h>
#include <velt/scanning/ScanRequests.h>
#include <velt/scanning/ScannerProcessScanOutput.h>
#include <velt/scanning/ScannerServer.h>
#include <velt/scanning/StreamRequest.h>
#include <velt/streams/ScannerStream.h>
#include <velt/streams/TCPStream.h>
#include <velt/streams/TCPWatch.h>

namespace VELT {

namespace {

constexpr int kFailed = -1;
constexpr int kNoServer = -1000;
constexpr int kNotDelivered = -1001;

constexpr int kWaitIsOn = 60;  // of wait_for_scan, which tests it and never counts it down
constexpr int kWaitStepMs = 1000;

QXStats::QXCounter* s_pConnScans = nullptr;
QXStats::QXCounter* s_pConnFailures = nullptr;

void CountItem(QXStats::QXCounter* counter) {
    if (counter) ++*counter;
}

std::string const* HeaderOf(StreamRequest const& answer, char const* name) {
    auto const found = answer.find(name);
    return found == answer.end() ? nullptr : &found->second;
}

bool IsFlagSet(StreamRequest const& answer, char const* name) {
    std::string const* const value = HeaderOf(answer, name);
    return value && std::strtol(value->c_str(), nullptr, 10) != 0;
}

bool ReadSize(std::string const& text, unsigned& size) {
    char* end = nullptr;
    errno = 0;
    long long const value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || end != text.c_str() + text.size() || errno != 0) return false;
    if (value < 0 || value > static_cast<long long>(UINT_MAX)) return false;
    size = static_cast<unsigned>(value);
    return true;
}

KORlog::InfoBag ServerBag(ScannerServer const* server, Connection const* session) {
    KORlog::InfoBag attributes;
    if (session) session->LogConnectionAttributes(attributes);
    return QXPROP_LS_SERVER_NAME(server->server_name()) | QXPROP_CONNECTION(attributes);
}

}  // namespace

std::string ScannerConn::protocol;
unsigned ScannerConn::s_maxwaittime = 10;
int ScannerConn::s_callbackinterval = 1;

// --- the process ---

void ScannerConn::initialise(Config* config) {
    if (ReadSetting<VELTCFG::scanning::LSDisabled>(*config)) disable_ls();
    s_maxwaittime = ReadSetting<VELTCFG::scanning::LSServerWaitTime>(*config);
    ScannerServer::s_usethreads = ReadSetting<VELTCFG::process::ForkedModelThreads>(*config);
    protocol = Proxy::s_pProxyInstance->m_productName;
    ScannerServer::initialise();
    if (s_pConnScans) return;
    s_pConnScans = new QXStats::QXCounter("scanner.conn.scans");
    s_pConnFailures = new QXStats::QXCounter("scanner.conn.failures");
}

void ScannerConn::disable_ls() { ScannerProcesses::Disable(); }

// --- one item ---

ScannerConn* ScannerConn::get(ScanContext* scanContext) {
    auto* const scanner = new ScannerConn;
    scanner->set_context(scanContext);
    return scanner;
}

ScannerConn::~ScannerConn() { end_connection(); }

// A server that was offered and could not be reached comes here too, with nothing to end.
void ScannerConn::end_connection() {
    if (!server) return;
    server->end_connection(handle, stream, cacheable && !in_exchange);
    server = nullptr;
}

int ScannerConn::setup_scan(unsigned int& count) {
    count = static_cast<unsigned>(context->identities.size());
    return 0;
}

bool ScannerConn::is_streaming_media() { return false; }

// What throws out of here leaves a connection in the midst of an exchange: it is never kept.
int ScannerConn::scan(unsigned int index, ScanOutput*& output, bool fallback) {
    if (index >= context->identities.size()) return kFailed;
    CountItem(s_pConnScans);
    int result = kFailed;
    try {
        result = scan_one(index, output, fallback);
    } catch (std::bad_alloc const&) {
        result = fail_without_memory();
    } catch (...) {
        CountItem(s_pConnFailures);
        cacheable = false;
        end_connection();
        throw;
    }
    if (result != 0) CountItem(s_pConnFailures);
    return result;
}

// In the midst of a scan, or of the search for a server.
int ScannerConn::fail_without_memory() {
    int const result = stream ? kFailed : kNoServer;
    if (stream) report_failure(ENOMEM);
    cacheable = false;
    end_connection();
    return result;
}

// A refusal leaves the connection as it is: a further scan goes out on it.
int ScannerConn::scan_one(unsigned index, ScanOutput*& output, bool fallback) {
    if (stream && has_unasked()) {
        report_failure(EPROTO);
        cacheable = false;
        end_connection();
        return kFailed;
    }
    if (!stream)
        if (int const result = connect()) return result;
    StreamRequest answer;
    in_exchange = true;
    Outcome outcome = ask(index, fallback, answer);
    if (outcome == Outcome::Done && !take(index, answer, output)) outcome = Outcome::Failed;
    in_exchange = false;
    bool const isLast = index + 1 == context->identities.size();
    if (outcome != Outcome::Done || (isLast && scan_requests::IsOutOfStep(*stream))) cacheable = false;
    if (outcome == Outcome::Failed || (outcome == Outcome::Done && isLast)) end_connection();
    return outcome == Outcome::Done ? 0 : kFailed;
}

// --- delivery ---

int ScannerConn::connect() {
    int const wait = static_cast<int>(std::min<unsigned>(s_maxwaittime, INT_MAX));
    stream = ScannerServer::find_server(handle, s_callbackinterval, wait, context->connection, server);
    if (stream && deliver() == 0) return 0;
    int const result = stream ? kNotDelivered : kNoServer;
    cacheable = false;
    if (stream) end_connection();
    return result;
}

int ScannerConn::deliver() {
    try {
        return SendScanRequest();
    } catch (std::bad_alloc const&) {
        report_failure(ENOMEM);
        return kFailed;
    }
}

// What could forge a header is not sent: as a path the content goes in line, as anything else it is no set-up.
int ScannerConn::SendScanRequest() {
    if (!context->policy || !context->data) return kFailed;
    if (!scan_requests::IsOneLine(context->policy.c_str()) || !scan_requests::IsOneLine(protocol)) return kFailed;
    std::string filename = server->IsLocal() ? context->data->get_spool_file() : std::string();
    if (!scan_requests::IsOneLine(filename)) filename.clear();
    unsigned const size = context->data->size();
    scan_requests::Setup const setup{protocol, Clock::getTime(), size, context->policy.c_str(), filename};
    if (!send_setup(setup)) return kFailed;
    StreamRequest answer;
    return read_answer(answer) && is_ok_response(answer) ? 0 : kFailed;
}

bool ScannerConn::send_request(std::string const& block) {
    errno = 0;
    int const error = stream->write(block.data(), static_cast<unsigned>(block.size()));
    if (error != 0) report_failure(error > 0 ? error : errno);
    return error == 0;
}

bool ScannerConn::send_setup(scan_requests::Setup const& setup) {
    scan_requests::Body body(*stream);
    errno = 0;
    int error = body.Begin(scan_requests::SetupBlock(setup));
    SerializedEFabricResult::serialize(&body, "scan_properties", &context->properties);
    if (setup.filename.empty())
        error = body.WriteContent(*context->data, setup.size);
    else
        body.Send();  // what becomes of the section shows when the answer is read
    if (error != 0) report_failure(error);
    return error == 0;
}

bool ScannerConn::read_answer(StreamRequest& answer) {
    errno = 0;
    bool const read = answer.read_headers(stream) == 0;
    if (!read) report_failure(errno);
    return read;
}

bool ScannerConn::is_ok_response(StreamRequest const& answer) {
    std::string const* const state = HeaderOf(answer, "State");
    if (state && *state == "OK") return true;
    if (state)
        report_refusal();
    else
        report_lack("State");
    return false;
}

// --- one scan ---

ScannerConn::Outcome ScannerConn::ask(unsigned index, bool fallback, StreamRequest& answer) {
    char const* const identity = context->identities[index].c_str();
    if (identity && !scan_requests::IsOneLine(identity)) return Outcome::Failed;
    bool const attributes = context->connection_attributes;
    if (!send_request(scan_requests::ScanBlock(identity, fallback, attributes))) return Outcome::Failed;
    return await(answer);
}

// The server may ask for the attributes any number of times.
ScannerConn::Outcome ScannerConn::await(StreamRequest& answer) {
    for (;;) {
        if (wait_for_scan(kWaitIsOn) != 1 || !read_answer(answer)) return Outcome::Failed;
        std::string const* const state = HeaderOf(answer, "State");
        if (!state || *state != "Attributes") return is_ok_response(answer) ? Outcome::Done : Outcome::Refused;
        send_attributes();
        if (!stream) return Outcome::Failed;  // the session ended it when it was asked
    }
}

// 1: there is something to read; 0: not waited; -1: the connection or its server is gone, or the session ended the
// connection when it was called back. What was read ahead already makes no socket readable.
int ScannerConn::wait_for_scan(int timeout) {
    if (timeout <= 0) return 0;
    if (scan_requests::IsOutOfStep(*stream)) return 1;  // it said so much at once
    TCPWatch watch;
    watch.Watch(stream);
    for (;;) {
        int const ready = watch.Wait(kWaitStepMs);
        if (ready == 1) return 1;
        if (ready != 0 || !server->Up()) break;
        if (context->connection) context->connection->ScannerCallback();
        if (!stream) break;
    }
    cacheable = false;
    return kFailed;
}

// Between two scans: what came behind the answer to the first would be taken for that to the second. A peer that has
// left is not looked at here.
bool ScannerConn::has_unasked() {
    if (scan_requests::IsOutOfStep(*stream)) return true;
    TCPWatch watch;
    watch.Watch(stream);
    return watch.Wait(0) == 1 && stream->IsStillConnected();
}

void ScannerConn::send_attributes() {
    KORPropertyBag attributes;
    if (context->connection) context->connection->getConnectionAttributes(&attributes);
    if (!stream) return;
    scan_requests::Body body(*stream);
    SerializedEFabricResult::serialize(&body, "conattr", &attributes);
    body.Send();
}

// --- the answer ---

bool ScannerConn::take(unsigned index, StreamRequest const& answer, ScanOutput*& output) {
    unsigned size = 0;
    if (!has_headers(answer, size)) return false;
    if (answer.failure() != 0) {  // the empty line may come yet, and would be that of a clean verdict
        report_failure(answer.failure());
        return false;
    }
    std::unique_ptr<SerializedEFabricResult> verdict = read_verdict();
    if (!verdict) return false;
    auto* const made = new ScannerProcessScanOutput;
    made->setResult(verdict.release());
    made->identity = context->identities[index];
    output = made;
    if (!read_properties(made->properties)) return false;
    made->output_in_input = IsFlagSet(answer, "output_in_input");
    made->input_modified = made->output_in_input && IsFlagSet(answer, "input_modified");
    made->output = made->output_in_input ? context->data : &made->stream();
    errno = 0;
    bool const taken =
        made->output_in_input ? take_into_input(answer, size) : made->output->spool_from_stream(stream, size) == 0;
    if (!taken) report_failure(errno);
    return taken;
}

bool ScannerConn::has_headers(StreamRequest const& answer, unsigned& size) {
    for (char const* const name : {"size", "output_in_input", "cached", "input_modified"}) {
        std::string const* const value = HeaderOf(answer, name);
        bool const isSize = std::string_view(name) == "size";
        if (value && (!isSize || ReadSize(*value, size))) continue;
        report_lack(name);
        return false;
    }
    return true;
}

// A verdict that the end of the connection cut short reads like a clean one: it is none.
std::unique_ptr<SerializedEFabricResult> ScannerConn::read_verdict() {
    bool ended = false;
    errno = 0;
    std::unique_ptr<SerializedEFabricResult> verdict(SerializedEFabricResult::deserialize(stream, &ended));
    int const error = errno;
    if (!verdict)
        report_lack(nullptr);
    else if (!ended)
        report_failure(error);
    if (!ended) verdict.reset();
    return verdict;
}

// A section of another name leaves the connection out of step, and nothing tells by how much.
bool ScannerConn::read_properties(IKORPropertyBag& bag) {
    bool ended = false, other = false;
    errno = 0;
    SerializedEFabricResult::deserialize(stream, "properties", bag, &ended, &other);
    if (ended) return true;
    int const error = errno;
    cacheable = false;
    if (other) return true;
    report_failure(error);
    return false;
}

// What the server changed in the file itself is not on the wire.
bool ScannerConn::take_into_input(StreamRequest const& answer, unsigned size) {
    ScannerStream* const data = context->data;
    if (IsFlagSet(answer, "cached")) return data->reopen_disk_file() == 0;
    if (data->seek(0, SEEK_SET) != 0) return false;
    if (!IsFlagSet(answer, "input_modified")) return true;
    return data->spool_from_stream(stream, size) == 0 && data->setsize(size);
}

// --- reports ---

void ScannerConn::report_failure(int error) const {
    LogEvent(events::SCANNER_EXCHANGE_FAILED,
             [&] { return ServerBag(server, context->connection) | _find_errno(error); });
}

// Null: of the verdict, which has no name.
void ScannerConn::report_lack(char const* attribute) const {
    LogEvent(events::SCANNER_ANSWER_INCOMPLETE, [&] {
        KORlog::InfoBag bag = ServerBag(server, context->connection);
        if (attribute) bag |= QXPROP_LS_SCAN_ATTRIBUTE(attribute);
        return bag;
    });
}

void ScannerConn::report_refusal() const {
    LogEvent(events::SCANNER_REFUSED, [&] { return ServerBag(server, context->connection); });
}

}  // namespace VELT
