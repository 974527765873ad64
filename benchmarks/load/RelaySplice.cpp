// The floor of a relay's cost: one thread, edges alone, and bytes that stay in the kernel. It has no time limits and
// looks at no failure but the end of a session.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <vector>

#include "Options.h"
#include "Sockets.h"

namespace velt_load {

namespace {

constexpr std::size_t kPipeBytes = 512 * 1024;

// Pipes are lent to what is on its way and kept for the next, as to make one costs more than to fill it.
class Pipes {
public:
    struct Pipe {
        int out = -1, in = -1;
    };

    Pipe Take() {
        if (!m_spare.empty()) {
            Pipe const pipe = m_spare.back();
            m_spare.pop_back();
            return pipe;
        }
        int ends[2];
        if (::pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) Fail("pipe2");
        ::fcntl(ends[1], F_SETPIPE_SZ, static_cast<int>(kPipeBytes));
        return {ends[0], ends[1]};
    }
    void Give(Pipe& pipe) {
        m_spare.push_back(pipe);
        pipe = {};
    }

private:
    std::vector<Pipe> m_spare;
};

ssize_t Splice(int from, int to, std::size_t most) {
    return ::splice(from, nullptr, to, nullptr, most, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
}

class Flow {
public:
    Flow(int from, int to) : m_from(from), m_to(to) {}
    ~Flow() {
        if (m_pipe.in == -1) return;
        ::close(m_pipe.in);
        ::close(m_pipe.out);
    }

    // As far as it goes without waiting. False: the connection has failed.
    bool Move(Pipes& pipes) {
        if (m_pipe.in == -1) m_pipe = pipes.Take();
        for (bool more = true; more;) {
            bool const carried = m_queued > 0;
            more = Fill() || carried;
            if (m_failed) return false;
            if (!Empty()) return !m_failed;
        }
        pipes.Give(m_pipe);
        if (m_ended && !m_told) ::shutdown(m_to, SHUT_WR);
        m_told = m_ended;
        return true;
    }
    bool ended() const { return m_ended && m_queued == 0; }

private:
    bool Fill() {
        if (m_ended || m_queued == kPipeBytes) return false;
        ssize_t const count = Splice(m_from, m_pipe.in, kPipeBytes - m_queued);
        m_failed = count < 0 && errno != EAGAIN;
        m_ended = count == 0;
        if (count > 0) m_queued += static_cast<std::size_t>(count);
        return count > 0;
    }
    // False: the other side has no room, or has gone.
    bool Empty() {
        while (m_queued > 0) {
            ssize_t const count = Splice(m_pipe.out, m_to, m_queued);
            m_failed = count == 0 || (count < 0 && errno != EAGAIN);
            if (count <= 0) return false;
            m_queued -= static_cast<std::size_t>(count);
        }
        return true;
    }

    int m_from, m_to;
    bool m_ended = false, m_failed = false;
    bool m_told = false;  // the other side knows of the end; to tell it again would be news to this relay
    std::size_t m_queued = 0;
    Pipes::Pipe m_pipe;
};

class Session {
public:
    Session(int client, int server)
        : m_client(client), m_server(server), m_up(client, server), m_down(server, client) {}
    ~Session() {
        ::close(m_client);
        ::close(m_server);
    }
    // False: it is over.
    bool Move(Pipes& pipes) { return m_up.Move(pipes) && m_down.Move(pipes) && !(m_up.ended() && m_down.ended()); }
    int client() const { return m_client; }
    int server() const { return m_server; }
    bool over = false;  // and to be deleted when this turn has ended

private:
    int m_client, m_server;
    Flow m_up, m_down;
};

class Relay {
public:
    explicit Relay(Options const& options)
        : m_target(options.target.address), m_listener(ListenOn(options.address, options.port)) {
        ::fcntl(m_listener, F_SETFL, O_NONBLOCK);
        Watch(m_listener, EPOLLIN, nullptr);
    }

    void Turn() {
        std::array<epoll_event, 256> events;
        int const count = ::epoll_wait(m_set, events.data(), static_cast<int>(events.size()), -1);
        std::vector<std::unique_ptr<Session>> over;
        for (int i = 0; i < count; ++i) {
            auto* const session = static_cast<Session*>(events[static_cast<std::size_t>(i)].data.ptr);
            if (!session) {
                AcceptAll();
            } else if (!session->over && !session->Move(m_pipes)) {
                session->over = true;
                over.emplace_back(session);
            }
        }
    }

private:
    void AcceptAll() {
        for (int client; (client = AcceptFrom(m_listener, SOCK_NONBLOCK)) != -1;) {
            auto* const session = new Session(client, ConnectTo(m_target, SOCK_NONBLOCK));
            for (int const fd : {session->client(), session->server()}) {
                Watch(fd, EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET, session);
            }
        }
    }
    void Watch(int fd, std::uint32_t what, Session* session) {
        epoll_event event{};
        event.events = what;
        event.data.ptr = session;
        ::epoll_ctl(m_set, EPOLL_CTL_ADD, fd, &event);
    }

    sockaddr_in m_target;
    int m_listener;
    int m_set = ::epoll_create1(EPOLL_CLOEXEC);
    Pipes m_pipes;
};

}  // namespace

int RunRelaySplice(Options const& options) {
    if (options.target.address.sin_port == 0) Usage();
    Relay relay(options);
    for (;;) relay.Turn();
}

}  // namespace velt_load
