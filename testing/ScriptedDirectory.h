// ScriptedDirectory: a directory server that answers as a test tells, for what a real one does on no request: to fall
// silent, to close amid an answer, to say what nobody asked for.
// Owner: the test. Threads: it takes one connection after the other on a thread of its own, and the script runs there.
// Failure: a request that it does not understand ends the connection.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <testing/Sockets.h>

struct berelement;

namespace velt_testing {

class ScriptedDirectory {
public:
    // LDAP_REQ_BIND and its like of ldap.h. `name` is the base, the user or the entry, as the request has one.
    struct Request {
        int connection = 0;  // counted from 1
        int id = 0;
        unsigned type = 0;
        std::string name;
        int scope = -1, entries = -1, seconds = -1;  // of a search
        int version = -1;                            // of a bind
        std::string password;
    };
    class Client {
    public:
        explicit Client(int fd) : m_fd(fd) {}
        void Entry(Request const& request, std::string const& name,
                   std::map<std::string, std::vector<std::string>> const& attributes = {});
        void Reference(Request const& request);          // to another server
        void Intermediate(Request const& request);       // and there is more to come
        void Notice();                                   // that nobody asked for
        void End(Request const& request, int code = 0);  // of whatever it is
        bool IsSilent(int milliseconds) const;           // says nothing, and does not end, for so long
        void Close() const;

    private:
        void Send(berelement* message) const;

        int m_fd;
    };
    using Script = std::function<void(Client&, Request const&)>;

    explicit ScriptedDirectory(Script script);
    ~ScriptedDirectory();
    ScriptedDirectory(ScriptedDirectory const&) = delete;
    ScriptedDirectory& operator=(ScriptedDirectory const&) = delete;

    unsigned short port() const { return m_listener.port(); }
    std::vector<Request> Requests() const;
    std::size_t Count(unsigned type) const;  // requests of this type
    bool WaitFor(unsigned type) const;       // until one has come; false after ten seconds
    int Connections() const;                 // that have sent something

private:
    void Serve();
    void Talk(int fd, int connection);

    Script const m_script;
    Listener m_listener;
    std::atomic<bool> m_ends{false};

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_came;
    std::vector<Request> m_requests;  // guarded by m_mutex

    std::thread m_thread;
};

}  // namespace velt_testing
