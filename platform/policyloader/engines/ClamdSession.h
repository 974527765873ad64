// ClamdSession: one connection to a virus scan server, over which one stream after the other is judged.
// ClamdPool: the sessions that no scan uses.
// Owner: a session belongs to one scan, or to the pool; the pool is the process's.  Threads: a session its scan's; the
// pool any.  Units: seconds.  Failure: EngineFailure as ServerConnection; a session that failed is thrown away.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <policyloader/engines/ClamdAnswer.h>
#include <policyloader/engines/ServerConnection.h>

namespace policyloader {

class ClamdSession {
public:
    ClamdSession(ServerAddress const& address, Patience& patience);

    std::string const& server() const { return m_server; }
    bool isUsable() const { return m_connection.isQuiet(); }
    // A piece of the stream; the first one begins it, the last one ends it. False: the server spoke or left before it
    // had it all, and answer() has what it said.
    bool begin(std::string_view piece, bool last, Patience& patience);
    bool send(std::string_view piece, bool last, Patience& patience);
    std::optional<ClamdAnswer> answer(Patience& patience);  // nothing: it left without one

private:
    bool transfer(std::vector<std::string_view> pieces, std::string_view piece, bool last, Patience& patience);

    std::string const m_server;
    ServerConnection m_connection;
    unsigned long m_requests = 0;
};

class ClamdPool {
public:
    ClamdPool();

    std::unique_ptr<ClamdSession> take(std::string const& server);  // null: none is kept
    void keep(std::unique_ptr<ClamdSession> session);
    void drop(std::string const& server);  // it failed

private:
    using Clock = std::chrono::steady_clock;
    struct Kept {
        std::unique_ptr<ClamdSession> session;
        Clock::time_point since;
    };
    void leaveToParent();

    std::mutex m_mutex;
    // Guarded by m_mutex.
    pid_t m_process;
    std::map<std::string, std::vector<Kept>> m_kept;  // by server, the latest last
};

}  // namespace policyloader
