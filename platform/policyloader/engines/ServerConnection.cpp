#include <policyloader/engines/ServerConnection.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <policyloader/engines/EngineFailure.h>

namespace policyloader {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

constexpr nanoseconds kMostForConnecting = std::chrono::seconds(5);  // others may be there to ask

[[noreturn]] void Away(int error) { throw EngineFailure(FailureId::ServerAway, std::strerror(error)); }

timespec SpecOf(nanoseconds time) {
    timespec spec = {};
    spec.tv_sec = static_cast<std::time_t>(time.count() / 1000000000);
    spec.tv_nsec = static_cast<long>(time.count() % 1000000000);
    return spec;
}

int Open(ServerAddress const& address) {
    int const fd = ::socket(address.address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) Away(errno);
    return fd;
}

// Drops what was sent from the front of what is to be sent.
void Advance(std::vector<std::string_view>& pieces, std::size_t sent) {
    std::size_t done = 0;
    while (done < pieces.size() && sent >= pieces[done].size()) sent -= pieces[done++].size();
    pieces.erase(pieces.begin(), pieces.begin() + static_cast<std::ptrdiff_t>(done));
    if (!pieces.empty()) pieces.front().remove_prefix(sent);
}

ssize_t SendSome(int fd, std::vector<std::string_view> const& pieces) {
    std::vector<iovec> vectors;
    for (auto const piece : pieces) vectors.push_back({const_cast<char*>(piece.data()), piece.size()});
    msghdr message = {};
    message.msg_iov = vectors.data();
    message.msg_iovlen = vectors.size();
    return ::sendmsg(fd, &message, MSG_NOSIGNAL);
}

bool IsBlocked(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

}  // namespace

Patience::Patience(double seconds) : m_left(static_cast<nanoseconds::rep>(std::clamp(seconds, 0.0, 1e9) * 1e9)) {}

void Patience::spend(Clock::time_point since) { m_left -= std::min<nanoseconds>(m_left, Clock::now() - since); }

short Patience::wait(int fd, short events) {
    pollfd entry = {fd, events, 0};
    while (m_left.count() > 0) {
        timespec const time = SpecOf(m_left);
        auto const begin = Clock::now();
        int const ready = ::ppoll(&entry, 1, &time, nullptr);
        int const error = errno;
        spend(begin);
        if (ready > 0) return entry.revents;
        if (ready < 0 && error != EINTR) throw EngineFailure(FailureId::ServerAway, std::strerror(error));
    }
    throw EngineFailure(FailureId::ServerSlow, "no answer within the time limit");
}

ServerConnection::ServerConnection(ServerAddress const& address, Patience& patience) : m_fd(Open(address)) {
    try {
        connect(address, patience);
    } catch (...) {
        ::close(m_fd);
        throw;
    }
}

ServerConnection::~ServerConnection() { ::close(m_fd); }

// A local socket with a full queue cannot be waited for by poll, so the connecting itself waits.
void ServerConnection::connect(ServerAddress const& address, Patience& patience) {
    auto const begin = Clock::now();
    timespec const most = SpecOf(std::min(patience.left(), kMostForConnecting));
    timeval const limit = {most.tv_sec, std::max<suseconds_t>(most.tv_nsec / 1000, most.tv_sec == 0)};
    ::setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    int done = 0;
    do {
        done = ::connect(m_fd, reinterpret_cast<sockaddr const*>(&address.address), address.length);
    } while (done != 0 && errno == EINTR);
    int const error = errno;
    patience.spend(begin);
    if (done != 0) Away(IsBlocked(error) || error == EINPROGRESS ? ETIMEDOUT : error);
    int const on = 1;
    if (!address.isLocal()) ::setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ::fcntl(m_fd, F_SETFL, ::fcntl(m_fd, F_GETFL) | O_NONBLOCK);
}

bool ServerConnection::isQuiet() const {
    char byte = 0;
    ssize_t const got = ::recv(m_fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return got < 0 && IsBlocked(errno);
}

bool ServerConnection::send(std::vector<std::string_view> pieces, Patience& patience) {
    if (!isQuiet()) return false;
    Advance(pieces, 0);
    while (!pieces.empty()) {
        ssize_t const sent = SendSome(m_fd, pieces);
        if (sent < 0 && !IsBlocked(errno)) return false;
        Advance(pieces, sent > 0 ? static_cast<std::size_t>(sent) : 0);
        if (!pieces.empty() && patience.wait(m_fd, POLLIN | POLLOUT) != POLLOUT) return false;
    }
    return true;
}

void ServerConnection::endSending() { ::shutdown(m_fd, SHUT_WR); }

std::size_t ServerConnection::receive(char* room, std::size_t size, Patience& patience) {
    for (;;) {
        ssize_t const got = ::recv(m_fd, room, size, 0);
        if (got >= 0) return static_cast<std::size_t>(got);
        if (!IsBlocked(errno)) return 0;
        patience.wait(m_fd, POLLIN);
    }
}

}  // namespace policyloader
