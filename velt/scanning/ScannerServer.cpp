#include <velt/scanning/ScannerServer.h>

#include <QXStats/QXCounter.h>
#include <cxxabi.h>
#include <unistd.h>
#include <velt/connection/Connection.h>
#include <velt/errors/ErrnoEvents.h>
#include <velt/errors/Failures.h>
#include <velt/logging/Events.h>
#include <velt/logging/Keys.h>
#include <velt/logging/Log.h>
#include <velt/runtime/Clock.h>
#include <velt/runtime/Thread.h>
#include <velt/scanning/ScanRequests.h>
#include <velt/scanning/StreamRequest.h>
#include <velt/streams/TCPStream.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

namespace VELT {

namespace {

constexpr int kCacheThreadStackBytes = 0x10000;
constexpr unsigned kCacheStepSeconds = 30;
constexpr unsigned kPauseSeconds = 1;  // after a server that could not be reached
constexpr unsigned kMostNameBytes = 256;
constexpr int kMostTimeout = 2097151;  // in units of 1024 ms

constexpr std::string_view kStasis = "get stasis\n\n";
constexpr std::string_view kWakeup = "get wakeup\n\n";

QXStats::QXCounter* s_pConnects = nullptr;
QXStats::QXCounter* s_pReused = nullptr;
QXStats::QXCounter* s_pLostIdle = nullptr;
QXStats::QXCounter* s_pNotKept = nullptr;
QXStats::QXCounter* s_pNoThread = nullptr;

// Before initialise there is nothing to count in.
void Count(QXStats::QXCounter* counter) {
    if (counter) ++*counter;
}

// The settings are what somebody wrote into a file.
int Milliseconds(int timeout) { return std::clamp(timeout, 0, kMostTimeout) << 10; }

// That there is a header is all that these answers say. More than was asked for is no answer.
bool Exchange(TCPStream& stream, std::string_view request) {
    try {
        StreamRequest answer;
        return !scan_requests::IsOutOfStep(stream) &&
               stream.write(request.data(), static_cast<unsigned>(request.size())) == 0 &&
               answer.read_headers(&stream) == 0 && !scan_requests::IsOutOfStep(stream);
    } catch (std::bad_alloc const&) {
        return false;
    }
}

KORlog::InfoBag SessionOf(Connection const* session) {
    KORlog::InfoBag attributes;
    if (session) session->LogConnectionAttributes(attributes);
    return KORlog::InfoBag(QXPROP_CONNECTION(attributes));
}

// Frees the handle of a search, also where the session's callback throws.
class SearchHandle {
public:
    explicit SearchHandle(int& handle) : m_handle(handle) {}
    ~SearchHandle() {
        if (!m_kept) RSMgrFreeResource(m_handle);
    }
    SearchHandle(SearchHandle const&) = delete;
    SearchHandle& operator=(SearchHandle const&) = delete;
    void Keep() { m_kept = true; }

private:
    int& m_handle;
    bool m_kept = false;
};

enum class SearchEnd { Taken, Failed, RanOut };

// Waits for servers until `take` takes one; it is given null for one that there is no memory for. A server that it does
// not take is left by closing the handle, so that the next wait may give another. Every errno but EAGAIN ends the wait,
// that of a signal too.
template <class Take>
SearchEnd SearchServers(int& handle, int interval, int maxwait, Connection* session, Take take) {
    if (interval == 0) interval = maxwait;
    int tries = interval > 0 ? maxwait / interval : 0;
    if (!RSMgrResourceHandle(handle, 0)) return SearchEnd::Failed;
    SearchHandle held(handle);
    for (;;) {
        sockaddr_in where{};
        int id = 0, sequence = 0;
        int const resource = RSMgrWaitForResource(handle, interval, &where, &id, &sequence);
        if (resource < 0 && errno != EAGAIN) return SearchEnd::Failed;
        if (resource >= 0) {
            ScannerServer* const offered = ScannerServer::findserver(sequence, id, resource, &where);
            if (take(offered)) {
                held.Keep();
                return SearchEnd::Taken;
            }
            RSMgrFreeResource(handle);
            if (offered) ::sleep(kPauseSeconds);
            if (!RSMgrResourceHandle(handle, 0)) return SearchEnd::Failed;
        }
        if (--tries < 1) return SearchEnd::RanOut;
        if (session) session->ScannerCallback();
    }
}

}  // namespace

std::atomic<int> ScannerServer::LsConnTimeout{5};
std::atomic<int> ScannerServer::LsDataTimeout{20};
bool ScannerServer::s_usethreads = true;
ScannerServer* ScannerServer::First = nullptr;
ScannerServer* ScannerServer::Last = nullptr;
ScannerServer* ScannerServer::s_stale = nullptr;

void ScannerServer::initialise() {
    if (s_pConnects) return;
    s_pReused = new QXStats::QXCounter("scanner.servers.reused");
    s_pLostIdle = new QXStats::QXCounter("scanner.servers.lostidle");
    s_pNotKept = new QXStats::QXCounter("scanner.servers.notkept");
    s_pNoThread = new QXStats::QXCounter("scanner.servers.nothread");
    s_pConnects = new QXStats::QXCounter("scanner.servers.connects");
}

// --- the search ---

TCPStream* ScannerServer::find_server(int& handle, int interval, int maxwait, Connection* connection,
                                      ScannerServer*& server) {
    TCPStream* stream = nullptr;
    SearchServers(handle, interval, maxwait, connection, [&](ScannerServer* offered) {
        server = offered;
        stream = offered ? offered->connect_to_server() : nullptr;
        int const error = errno;
        if (stream || !offered) return stream != nullptr;
        LogEvent(events::SCANNER_EXCHANGE_FAILED, [&] {
            return QXPROP_LS_SERVER_NAME(offered->server_name()) | _find_errno(error) | SessionOf(connection);
        });
        return false;
    });
    return stream;
}

ScannerServer* ScannerServer::find_server(int& handle, int interval, int maxwait, Connection* connection) {
    ScannerServer* found = nullptr;
    SearchEnd const end = SearchServers(handle, interval, maxwait, connection, [&](ScannerServer* offered) {
        found = offered;
        return offered != nullptr;
    });
    if (end == SearchEnd::RanOut) LogEvent(events::NO_SCANNER_SERVER, [&] { return SessionOf(connection); });
    return found;
}

ScannerServer* ScannerServer::findserver(int sequence, int serverId, int resourceNumber, sockaddr_in* where) {
    static std::mutex queuelock;
    static int sequence_no = 0;
    std::lock_guard<std::mutex> const hold(queuelock);
    if (sequence != sequence_no) ForgetAll();
    sequence_no = sequence;
    for (ScannerServer* server = First; server; server = server->next)
        if (server->id == serverId) return server;
    try {
        auto* const made = new ScannerServer(where, serverId, resourceNumber);
        (First ? Last->next : First) = made;
        return Last = made;
    } catch (std::bad_alloc const&) {
        return nullptr;
    }
}

// Sessions and threads still have them, and nobody tells when the last of these is done: they stay for good.
void ScannerServer::ForgetAll() {
    if (!First) return;
    for (ScannerServer* server = First; server; server = server->next) server->stale = true;
    Last->next = s_stale;
    s_stale = First;
    First = Last = nullptr;
}

// --- one server ---

ScannerServer::ScannerServer(sockaddr_in* where, int serverId, int resourceNumber)
    : last_used(Clock::getTime()),
      local(where->sin_addr.s_addr == htonl(INADDR_LOOPBACK)),
      id(serverId),
      address(*where) {
    RSMgrResourceHandle(resource, resourceNumber);
    ReadName();
    int connectTimeout = LsConnTimeout, dataTimeout = LsDataTimeout;
    RSMgrAttributes(cache_enabled, cache_time, connectTimeout, dataTimeout);
    LsConnTimeout = connectTimeout;
    LsDataTimeout = dataTimeout;
    cache_time = std::max(cache_time, 0);
    if (cache_enabled && s_usethreads) StartCacheThread();
}

ScannerServer::~ScannerServer() {
    clear_cache();
    RSMgrFreeResource(resource);
}

// How much the manager writes is not known: a name of its own length would do harm in the field.
void ScannerServer::ReadName() {
    char whole[kMostNameBytes] = {};
    if (RSMgrResourceAttributes(resource, whole) != 0) return;
    whole[sizeof name - 1] = '\0';
    std::strcpy(name, whole);
}

// Without the thread nobody would close what is kept, so nothing is.
void ScannerServer::StartCacheThread() {
    try {
        Thread().StartThread(&cachehandler, this, kCacheThreadStackBytes, Thread::DETACHED);
    } catch (...) {
        Count(s_pNoThread);
        cache_enabled = false;
    }
}

bool ScannerServer::Up() {
    bool const up = RSMgrResourceAvailable(resource);
    if (!up) clear_cache();
    return up;
}

TCPStream* ScannerServer::connect_server() {
    try {
        auto* const stream = new TCPStream(&address, Milliseconds(LsConnTimeout), false);
        Count(s_pConnects);
        return stream;
    } catch (ConnectionFailure const& failure) {
        errno = failure.error;
    } catch (abi::__forced_unwind&) {  // the thread is being cancelled
        throw;
    } catch (...) {
        errno = ENOMEM;
    }
    return nullptr;
}

TCPStream* ScannerServer::connect_to_server() {
    TCPStream* const idle = cached_server();
    return idle ? idle : connect_server();
}

// --- idle connections ---

void ScannerServer::clear_cache() {
    for (int socket; (socket = TakeIdle(false)) >= 0;) ::close(socket);
}

int ScannerServer::TakeIdle(bool available) {
    std::lock_guard<std::mutex> const hold(cache_lock);
    if (cache.empty()) return -1;
    int const socket = cache.front();
    cache.pop_front();
    if (available) last_used = Clock::getTime();
    return socket;
}

bool ScannerServer::Keep(int socket) {
    std::lock_guard<std::mutex> const hold(cache_lock);
    last_used = Clock::getTime();
    try {
        cache.push_back(socket);
        return true;
    } catch (std::bad_alloc const&) {
        return false;
    }
}

// What another thread gives back to a server that went away meanwhile is taken out by nobody: it is closed with the
// next look, or by the thread. The stream is made before a socket is taken out, which would be lost without one.
TCPStream* ScannerServer::cached_server() {
    if (!cache_enabled || !Up()) return nullptr;
    for (;;) {
        std::unique_ptr<TCPStream> stream(new (std::nothrow) TCPStream);
        int const socket = stream ? TakeIdle(true) : -1;
        if (socket < 0) return nullptr;
        stream->set_timeout(static_cast<unsigned>(Milliseconds(LsDataTimeout)));
        stream->SetSocket(socket);
        if (Exchange(*stream, kWakeup)) {
            Count(s_pReused);
            return stream.release();
        }
        Count(s_pLostIdle);
    }
}

// The server is free for others before it is told anything more.
void ScannerServer::end_connection(int& handle, TCPStream*& stream, bool cacheable) {
    bool const available = Up();
    RSMgrFreeResource(handle);
    std::unique_ptr<TCPStream> const ended(std::exchange(stream, nullptr));
    if (!ended || !cacheable || !available || !cache_enabled || !s_usethreads) return;
    if (Exchange(*ended, kStasis) && Keep(ended->GetSocket()))
        ended->SetSocket(-1);
    else
        Count(s_pNotKept);
}

// Each use of any connection puts off the closing of all.
void ScannerServer::cache_daemon() {
    for (;;) {
        if (cache_time + last_used < Clock::getTime()) clear_cache();
        ::sleep(kCacheStepSeconds);
    }
}

void* cachehandler(void* server) { static_cast<ScannerServer*>(server)->cache_daemon(); }

// --- whether there are servers at all ---

std::atomic<bool> ScannerProcesses::active_set{false};
std::atomic<bool> ScannerProcesses::active{true};

namespace {

std::mutex s_deciding;

void Decide(bool active) {
    ScannerProcesses::active = active;
    ScannerProcesses::active_set = true;
}

}  // namespace

void ScannerProcesses::Disable() {
    std::lock_guard<std::mutex> const hold(s_deciding);
    Decide(false);
}

bool ScannerProcessActive() {
    if (ScannerProcesses::active_set) return ScannerProcesses::active;
    bool const found = RSMgrActive();
    std::lock_guard<std::mutex> const hold(s_deciding);
    if (!ScannerProcesses::active_set) Decide(found);
    return ScannerProcesses::active;
}

}  // namespace VELT
