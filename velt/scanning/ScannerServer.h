// ScannerServer: a scanner process that this process has met, with the idle connections to it. One object for each
// server of a generation of the manager's list, shared by all threads.
// Owner: the process; it lives as long. Streams that are given out are the caller's, and so is the handle that occupies
// the server. Threads: any may call anything; each server that keeps connections has a thread that closes old ones.
// Units: seconds, unless told otherwise. Failure: null or false; nothing throws but what the session's own
// ScannerCallback throws, with the handle freed before.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <ctime>
#include <deque>
#include <mutex>

#include <velt/Export.h>
#include <velt/scanning/RSMgr.h>

namespace VELT {

class Connection;
class TCPStream;

class VELT_API ScannerServer {
public:
    // What the manager offers: its address and id, and the number of its resource, which is opened.
    ScannerServer(sockaddr_in* where, int serverId, int resourceNumber);
    ~ScannerServer();  // not of one whose thread runs
    ScannerServer(ScannerServer const&) = delete;
    ScannerServer& operator=(ScannerServer const&) = delete;

    // A server that takes work, and a connection to it; null where there was none in maxwait / interval waits of
    // `interval`, but one at least. The session is called back between them. `handle` is the occupation, open with the
    // stream alone. `server` is the last one that was offered, also where it could not be reached; null where there was
    // no memory for it, and untouched where none was offered.
    static TCPStream* find_server(int& handle, int interval, int maxwait, Connection* connection,
                                  ScannerServer*& server);
    // The same without a connection; the caller frees `handle`.
    static ScannerServer* find_server(int& handle, int interval, int maxwait, Connection* connection);

    // The server of this id. With another `sequence` than before it is a new list: the servers of the old one are left
    // to those who have them, and to their threads.
    static ScannerServer* findserver(int sequence, int serverId, int resourceNumber, sockaddr_in* where);

    // Ends the occupation, then keeps the connection where `cacheable` and the server agree, or closes it. Both
    // arguments are empty afterwards. A null stream is none to keep.
    void end_connection(int& handle, TCPStream*& stream, bool cacheable);

    TCPStream* cached_server();      // an idle connection that woke up, or null; the others on the way are closed
    TCPStream* connect_server();     // a new connection; null with errno
    TCPStream* connect_to_server();  // the one or else the other
    void clear_cache();
    bool Up();  // false closes the idle connections

    bool IsLocal() const { return local; }
    char const* server_name() const { return name; }  // for reports
    static int get_data_timeout() { return LsDataTimeout; }

    static void initialise();  // makes the counters; once, at start-up

    [[noreturn]] void cache_daemon();  // of the server's own thread

    // Of the process, in units of 1024 ms; the server that was made last decides.
    static std::atomic<int> LsConnTimeout;  // of connecting
    static std::atomic<int> LsDataTimeout;  // of waits on a connection that was kept
    static bool s_usethreads;               // set at start-up: connections are kept only where it is true

private:
    static void ForgetAll();
    void ReadName();
    void StartCacheThread();
    bool Keep(int socket);         // false: there is no memory to note it in
    int TakeIdle(bool available);  // -1: there is none

    std::deque<int> cache;  // guarded by cache_lock; the oldest at the front
    std::mutex cache_lock;  // never held over anything that waits
    std::atomic<std::time_t> last_used;
    RSMGRHANDLE resource = -1;
    bool local;
    ScannerServer* next = nullptr;  // this and `stale` are guarded by the lock of findserver
    int id;
    bool stale = false;  // the list went on without this server
    char name[35] = "?";
    sockaddr_in address;
    bool cache_enabled = true;
    int cache_time = 0;

    static ScannerServer* First;
    static ScannerServer* Last;
    static ScannerServer* s_stale;  // those of earlier lists
};

// The loop of a server's thread; the argument is the server.
VELT_API void* cachehandler(void* server);

// Whether scanner processes are in use. The manager is asked once per process, unless the answer was set before.
VELT_API bool ScannerProcessActive();

// The answer of ScannerProcessActive, which ScannerConn::disable_ls sets too: `active` first, then `active_set`.
struct VELT_API ScannerProcesses {
    static void Disable();  // for good, also where the manager is being asked at this moment

    static std::atomic<bool> active_set;
    static std::atomic<bool> active;
};

}  // namespace VELT
