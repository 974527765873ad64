#include "Exchange.h"

#include <netinet/tcp.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace velt_load {

namespace {

constexpr in_addr_t kFirstSource = 0x7f000002;  // 127.0.0.1 is a gateway's health monitor

Outcome OutcomeOf(int error) {
    switch (error) {
        case EAGAIN:
        case EINPROGRESS:
        case EINTR:
            return Outcome::PENDING;
        case ECONNREFUSED:
            return Outcome::REFUSED;
        case ECONNRESET:
        case EPIPE:
            return Outcome::RESET;
        case ETIMEDOUT:
            return Outcome::TIMEOUT;
        default:
            return Outcome::OTHER;
    }
}

void Switch(int fd, int level, int option) {
    int const on = 1;
    ::setsockopt(fd, level, option, &on, sizeof on);
}

sockaddr const* Generic(sockaddr_in const& address) { return reinterpret_cast<sockaddr const*>(&address); }

bool BindSource(int fd, unsigned sources) {
    static unsigned next = 0;
    sockaddr_in source{};
    source.sin_family = AF_INET;
    source.sin_addr.s_addr = htonl(kFirstSource + next++ % sources);
    return ::bind(fd, Generic(source), sizeof source) == 0;
}

unsigned short PortOf(int fd) {
    sockaddr_in name{};
    socklen_t length = sizeof name;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&name), &length);
    return ntohs(name.sin_port);
}

}  // namespace

char const* NameOf(Outcome outcome) {
    static constexpr char const* names[kOutcomes] = {"pending",   "ok",      "refused", "reset",
                                                     "truncated", "timeout", "other"};
    return names[static_cast<std::size_t>(outcome)];
}

Exchange::~Exchange() {
    if (m_fd != -1) ::close(m_fd);
}

Exchange::Exchange(Exchange&& other) noexcept
    : begun(other.begun),
      m_fd(std::exchange(other.m_fd, -1)),
      m_toSend(other.m_toSend),
      m_sent(other.m_sent),
      m_got(other.m_got),
      m_sourcePort(other.m_sourcePort) {}

Outcome Exchange::Connect(Target const& target) {
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_fd == -1) return Outcome::OTHER;
    Switch(m_fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT);
    Switch(m_fd, IPPROTO_TCP, TCP_NODELAY);
    if (!BindSource(m_fd, target.sources)) return Outcome::OTHER;
    int const result = ::connect(m_fd, Generic(target.address), sizeof target.address);
    m_sourcePort = PortOf(m_fd);
    m_toSend = target.line.size();
    if (result == 0 || errno == EINPROGRESS) return Outcome::PENDING;
    return errno == EAGAIN ? Outcome::OTHER : OutcomeOf(errno);  // EAGAIN: no port is left
}

Outcome Exchange::Connected() const {
    int error = 0;
    socklen_t length = sizeof error;
    ::getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &length);
    return error == 0 ? Outcome::OK : OutcomeOf(error);
}

Outcome Exchange::Proceed(Target const& target) {
    if (WantsToWrite()) {
        Outcome const sent = Send(target);
        if (sent != Outcome::OK) return sent;
    }
    return Receive(target);
}

Outcome Exchange::Again(Target const& target) {
    m_sent = m_got = 0;
    return Proceed(target);
}

Outcome Exchange::Trickle(std::size_t number) {
    char const byte = static_cast<char>('a' + number % 26);
    if (::send(m_fd, &byte, 1, MSG_NOSIGNAL) != 1 && OutcomeOf(errno) != Outcome::PENDING) return OutcomeOf(errno);
    return Listen();
}

Outcome Exchange::Listen() {
    std::array<char, 1024> block;
    ssize_t const count = ::recv(m_fd, block.data(), block.size(), 0);
    if (count < 0) return OutcomeOf(errno);
    return count == 0 ? Outcome::TRUNCATED : Outcome::PENDING;
}

// A failed connect shows at the first send.
Outcome Exchange::Send(Target const& target) {
    while (m_sent < m_toSend) {
        ssize_t const count = ::send(m_fd, target.line.data() + m_sent, m_toSend - m_sent, MSG_NOSIGNAL);
        if (count < 0) return OutcomeOf(errno);
        m_sent += static_cast<std::size_t>(count);
    }
    return Outcome::OK;
}

Outcome Exchange::Receive(Target const& target) {
    std::array<char, 1024> block;
    while (m_got < target.line.size()) {
        ssize_t const count = ::recv(m_fd, block.data(), std::min(block.size(), target.line.size() - m_got), 0);
        if (count < 0) return OutcomeOf(errno);
        if (count == 0) return Outcome::TRUNCATED;
        if (std::memcmp(block.data(), target.line.data() + m_got, static_cast<std::size_t>(count)) != 0) {
            return Outcome::OTHER;
        }
        m_got += static_cast<std::size_t>(count);
    }
    return Outcome::OK;
}

double Now() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

}  // namespace velt_load
