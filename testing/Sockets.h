// Sockets for tests: pairs, listeners on a free loopback port, and signals that come while a call waits.
// Owner: the test. Thread: the test's. Failure: fails the test that asks.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <csignal>

#include <cerrno>
#include <functional>
#include <string>
#include <utility>

#include <testing/Fd.h>

namespace velt_testing {

// The lowest free descriptor: it is the same before and after something that leaks none.
inline int NextFd() {
    int const fd = ::dup(0);
    ::close(fd);
    return fd;
}

inline std::pair<Fd, Fd> SocketPair(int type = SOCK_STREAM | SOCK_NONBLOCK) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, type, 0, ends), 0);
    return {Fd(ends[0]), Fd(ends[1])};
}

inline sockaddr_in Loopback(unsigned short port, char const* dotted = "127.0.0.1") {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ::inet_aton(dotted, &address.sin_addr);
    return address;
}

inline sockaddr* Generic(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }

// Listens on a free port of a loopback address.
class Listener {
public:
    explicit Listener(int backlog = 16, int flags = 0, char const* dotted = "127.0.0.1")
        : m_fd(::socket(AF_INET, SOCK_STREAM | flags, 0)) {
        sockaddr_in any = Loopback(0, dotted);
        EXPECT_EQ(::bind(fd(), Generic(any), sizeof any), 0);
        EXPECT_EQ(::listen(fd(), backlog), 0);
        socklen_t length = sizeof m_address;
        EXPECT_EQ(::getsockname(fd(), Generic(m_address), &length), 0);
    }
    int fd() const { return m_fd.get(); }
    sockaddr_in& address() { return m_address; }
    unsigned short port() const { return ntohs(m_address.sin_port); }
    Fd Accept() { return Fd(::accept4(fd(), nullptr, nullptr, SOCK_NONBLOCK)); }
    bool IsPending() {
        pollfd one{fd(), POLLIN, 0};
        return ::poll(&one, 1, 0) == 1;
    }
    void Close() { m_fd.Close(); }

private:
    Fd m_fd;
    sockaddr_in m_address{};
};

inline std::string ReadAvailable(int fd) {
    std::string got;
    char block[4096];
    ssize_t count;
    while ((count = ::recv(fd, block, sizeof block, MSG_DONTWAIT)) > 0)
        got.append(block, static_cast<std::size_t>(count));
    return got;
}

// Sends whatever fits, so that the socket takes no more.
inline std::size_t Fill(int fd) {
    std::string const block(1024, '.');
    std::size_t filled = 0;
    ssize_t count;
    for (std::size_t size = block.size(); size > 0; size = size == 1 ? 0 : 1)
        while ((count = ::send(fd, block.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL)) > 0)
            filled += static_cast<std::size_t>(count);
    return filled;
}

// Interrupts the waiting calls of this thread a few times a second; after `ticks` signals it does `then` once.
class Alarm {
public:
    explicit Alarm(int ticks = 1 << 30, std::function<void()> then = {}) {
        s_ticks = 0;
        s_at = ticks;
        s_then = std::move(then);
        struct sigaction action {};
        action.sa_handler = &Alarm::Tick;  // no SA_RESTART
        ::sigaction(SIGALRM, &action, &m_before);
        itimerval const often{{0, 3000}, {0, 3000}};
        ::setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~Alarm() {
        itimerval const never{};
        ::setitimer(ITIMER_REAL, &never, nullptr);
        ::sigaction(SIGALRM, &m_before, nullptr);
    }
    Alarm(Alarm const&) = delete;
    Alarm& operator=(Alarm const&) = delete;
    static int ticks() { return s_ticks; }

private:
    static void Tick(int) {
        int const error = errno;
        s_ticks = s_ticks + 1;
        if (s_ticks == s_at && s_then) s_then();
        errno = error;
    }
    static inline volatile std::sig_atomic_t s_ticks = 0;
    static inline int s_at = 0;
    static inline std::function<void()> s_then;
    struct sigaction m_before {};
};

}  // namespace velt_testing
