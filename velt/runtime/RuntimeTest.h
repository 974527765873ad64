// What the tests of this folder share: a Proxy of their own with the signal settings put back afterwards, doors that
// sessions wait behind, and sockets on loopback. Owner: the fixture. Threads: as each says. Failure: set-up that fails
// throws std::system_error.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <QXStats/QXCounter.h>
#include <testing/EventCapture.h>
#include <testing/TempRoot.h>
#include <testing/Waiting.h>
#include <velt/connection/Connection.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/ProxyHealth.h>
#include <velt/streams/BufferPool.h>
#include <velt/streams/TCPStream.h>

namespace velt_testing {

inline int Checked(int result, char const* what) {
    if (result == -1) throw std::system_error(errno, std::generic_category(), what);
    return result;
}

inline sockaddr_in Loopback(unsigned short port, char const* dotted = "127.0.0.1") {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ::inet_pton(AF_INET, dotted, &address.sin_addr);
    return address;
}

inline unsigned short PortOf(int socket) {
    sockaddr_in name{};
    socklen_t length = sizeof name;
    Checked(::getsockname(socket, reinterpret_cast<sockaddr*>(&name), &length), "getsockname");
    return ntohs(name.sin_port);
}

inline int Listening(char const* dotted = "127.0.0.1") {
    int const fd = Checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    sockaddr_in const name = Loopback(0, dotted);
    Checked(::bind(fd, reinterpret_cast<sockaddr const*>(&name), sizeof name), "bind");
    Checked(::listen(fd, 16), "listen");
    return fd;
}

inline int ConnectTo(unsigned short port, char const* to = "127.0.0.1", char const* from = "127.0.0.2") {
    int const fd = Checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    sockaddr_in const source = Loopback(0, from), target = Loopback(port, to);
    Checked(::bind(fd, reinterpret_cast<sockaddr const*>(&source), sizeof source), "bind");
    Checked(::connect(fd, reinterpret_cast<sockaddr const*>(&target), sizeof target), "connect");
    return fd;
}

// Two ends of one connection; [0] is the client's.
inline std::array<int, 2> ConnectedPair(char const* to = "127.0.0.1", char const* from = "127.0.0.2") {
    int const listener = Listening(to);
    int const client = ConnectTo(PortOf(listener), to, from);
    int const server = Checked(::accept(listener, nullptr, nullptr), "accept");
    ::close(listener);
    return {client, server};
}

inline std::string ReadToEnd(int fd) {
    std::string text;
    char block[512];
    for (ssize_t got; (got = ::read(fd, block, sizeof block)) > 0;) text.append(block, static_cast<std::size_t>(got));
    return text;
}

inline bool Readable(int fd, int timeoutMs = 10000) {
    pollfd watched{fd, POLLIN, 0};
    return ::poll(&watched, 1, timeoutMs) == 1;
}

inline unsigned long CounterValue(char const* name) { return QXStats::QXCounter(name).value(); }

// A Proxy in a root of its own. It changes signals, umask and directory for the whole process: all are put back.
class ProxyFixture : public ::testing::Test {
protected:
    ProxyFixture() {
        for (std::size_t i = 0; i < kSignals.size(); ++i) ::sigaction(kSignals[i], nullptr, &m_signals[i]);
        m_umask = ::umask(S_IWGRP | S_IWOTH);
        m_proxy = new VELT::Proxy;
        VELT::TCPStream::set_default_timeout(10000);
        static auto& pool = *new VELT::BufferPool(4096, 0);
        VELT::TCPStream::set_pool(&pool);
    }
    ~ProxyFixture() override {
        VELT::ProxyHealth::disable();
        VELT::ProxyHealth::m_portlist.clear();
        if (m_proxy) {
            for (sockaddr_in* const binding : m_proxy->m_svcBindings) delete binding;
        }
        delete m_proxy;
        for (std::size_t i = 0; i < kSignals.size(); ++i) ::sigaction(kSignals[i], &m_signals[i], nullptr);
        ::umask(m_umask);
    }

    static constexpr std::array kSignals{SIGPIPE, SIGXFSZ, SIGCHLD, SIGHUP, SIGINT, SIGALRM};

    TempRoot m_root;
    VELT::Proxy* m_proxy = nullptr;

private:
    std::array<struct sigaction, 6> m_signals{};
    mode_t m_umask = 0;
};

}  // namespace velt_testing
