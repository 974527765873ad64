#include "Sockets.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "Options.h"

namespace velt_load {

namespace {

constexpr int kBacklog = 4096;

void Enable(int fd, int level, int option) {
    int const on = 1;
    ::setsockopt(fd, level, option, &on, sizeof on);
}

int NewSocket(int flags) {
    int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    if (fd == -1) Fail("socket");
    Enable(fd, IPPROTO_TCP, TCP_NODELAY);
    return fd;
}

int Connect(sockaddr_in const& address, int fd) {
    if (::connect(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0) return fd;
    if (errno != EINPROGRESS) Fail("connect");
    return fd;
}

}  // namespace

void Fail(char const* what) {
    std::perror(what);
    std::exit(1);
}

int ListenOn(std::string const& address, unsigned short port) {
    int const fd = NewSocket(0);
    Enable(fd, SOL_SOCKET, SO_REUSEADDR);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    if (::inet_pton(AF_INET, address.c_str(), &name.sin_addr) != 1) Usage();
    if (::bind(fd, reinterpret_cast<sockaddr const*>(&name), sizeof name) != 0) Fail("bind");
    if (::listen(fd, kBacklog) != 0) Fail("listen");
    socklen_t length = sizeof name;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&name), &length);
    std::printf("listening %u\n", ntohs(name.sin_port));
    std::fflush(stdout);
    return fd;
}

int AcceptFrom(int listener, int flags) { return ::accept4(listener, nullptr, nullptr, flags | SOCK_CLOEXEC); }

int ConnectTo(sockaddr_in const& address, int flags) { return Connect(address, NewSocket(flags)); }

// 127.0.0.1 is a gateway's health monitor.
int ConnectAsClient(sockaddr_in const& address) {
    int const fd = NewSocket(0);
    sockaddr_in source{};
    source.sin_family = AF_INET;
    source.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
    if (::bind(fd, reinterpret_cast<sockaddr const*>(&source), sizeof source) != 0) Fail("bind");
    return Connect(address, fd);
}

bool SendAll(int fd, char const* data, std::size_t length) {
    while (length > 0) {
        ssize_t const count = ::send(fd, data, length, MSG_NOSIGNAL);
        if (count <= 0) return false;
        data += count;
        length -= static_cast<std::size_t>(count);
    }
    return true;
}

bool ReceiveAll(int fd, char* data, std::size_t length) {
    while (length > 0) {
        ssize_t const count = ::recv(fd, data, length, 0);
        if (count <= 0) return false;
        data += count;
        length -= static_cast<std::size_t>(count);
    }
    return true;
}

// The system throws them away: no byte of them is copied.
bool Discard(int fd, std::uint64_t length) {
    constexpr std::size_t kMost = 1 << 20;
    while (length > 0) {
        ssize_t const count = ::recv(fd, nullptr, std::min<std::uint64_t>(length, kMost), MSG_TRUNC);
        if (count <= 0) return false;
        length -= static_cast<std::uint64_t>(count);
    }
    return true;
}

}  // namespace velt_load
