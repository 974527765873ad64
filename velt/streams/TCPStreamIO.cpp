// All of a stream that waits for the other side: connecting, receiving and sending.
#include <QXStats/QXCounter.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

#include <velt/errors/ErrnoEvents.h>
#include <velt/errors/Failures.h>
#include <velt/logging/Events.h>
#include <velt/runtime/Proxy.h>
#include <velt/streams/TCPStream.h>

namespace VELT {

namespace {

using Steady = std::chrono::steady_clock;

constexpr unsigned sendLimit = 0x7FFFFFFF;  // bytes; what one call may send stays below it
constexpr int piecesPerCall = 64;           // of a vectored send; keeps its array small on a small stack
constexpr int busyRetryMs = 10;             // between two attempts at a local listener whose queue is full

QXStats::QXCounter* s_pNoCommsDataErrors = nullptr;
QXStats::QXCounter* s_pNoCommsConnectErrors = nullptr;
QXStats::QXCounter* s_pNoCommsConnectTimeouts = nullptr;

void Count(QXStats::QXCounter* counter) {
    if (counter) ++*counter;
}

bool IsTransient(int error) { return error == EINTR || error == EAGAIN; }

// What does not fit poll's argument would be a wait for ever there.
int Bounded(std::uint32_t timeout_ms) { return static_cast<int>(std::min<std::uint32_t>(timeout_ms, INT_MAX)); }

int Poll(int fd, short events, int timeout_ms) {
    pollfd one{fd, events, 0};
    return ::poll(&one, 1, timeout_ms);
}

// 0 when ready, ETIMEDOUT, or what poll failed with. A signal starts the wait anew.
int Await(int fd, short events, int timeout_ms) {
    for (;;) {
        int const ready = Poll(fd, events, timeout_ms);
        if (ready > 0) return 0;
        if (ready == 0) return ETIMEDOUT;
        if (!IsTransient(errno)) return errno;
    }
}

// 0 when the connect is under way or done, EAGAIN when the listener stayed too busy, else what connect failed with.
int StartConnect(int fd, sockaddr const* address, unsigned length, int timeout_ms) {
    auto const deadline = Steady::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        if (::connect(fd, address, length) == 0) return 0;
        int const error = errno;
        if (error == EISCONN || error == EINPROGRESS) return 0;
        if (!IsTransient(error)) return error;
        if (error == EINTR) continue;
        if (timeout_ms >= 0 && Steady::now() >= deadline) return EAGAIN;
        ::poll(nullptr, 0, busyRetryMs);
    }
}

int PendingError(int fd) {
    int error = 0;
    socklen_t length = sizeof error;
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) return errno;
    return error;
}

// Walks the buffers of a vectored send from the first byte that has not gone yet.
struct Unsent {
    char const** buffers;
    unsigned* lengths;
    unsigned count;
    unsigned index = 0;   // the buffer that is being sent
    unsigned offset = 0;  // what of it has gone

    int Pieces(iovec* pieces) const {
        int filled = 0;
        unsigned skip = offset;
        for (unsigned i = index; i < count && filled < piecesPerCall; ++i, skip = 0)
            if (lengths[i] > skip) pieces[filled++] = {const_cast<char*>(buffers[i]) + skip, lengths[i] - skip};
        return filled;
    }
    void Advance(std::size_t bytes) {
        while (index < count && bytes >= lengths[index] - offset) {
            bytes -= lengths[index++] - offset;
            offset = 0;
        }
        offset += static_cast<unsigned>(bytes);
    }
};

}  // namespace

void TCPStream::initialise(Config*) {
    if (s_pNoCommsDataErrors) return;
    s_pNoCommsDataErrors = new QXStats::QXCounter("comms.data");
    s_pNoCommsConnectErrors = new QXStats::QXCounter("comms.connect");
    s_pNoCommsConnectTimeouts = new QXStats::QXCounter("comms.connect.timeout");
}

bool TCPStream::IsLoopback(sockaddr_in const* address) {
    in_addr_t const host = ntohl(address->sin_addr.s_addr);
    if (host == INADDR_ANY || host == INADDR_BROADCAST) return true;
    Proxy const* const proxy = Proxy::s_pProxyInstance;
    if (host == INADDR_LOOPBACK) return !(proxy && proxy->m_loopbackAllowed);
    // Before there is a proxy there is no list of this machine's addresses.
    return proxy ? Proxy::IsLoopbackConnection(*address) : host >> IN_CLASSA_NSHIFT == IN_LOOPBACKNET;
}

void TCPStream::Connect(sockaddr_in const* address, int timeout_ms, bool check_loopback) {
    if (check_loopback && IsLoopback(address)) {
        CloseSocket();
        throw LoopbackConnection(KORtk::Location{__FILE__, __LINE__, __func__}, "Loop Back", events::CONNECT_LOOPBACK);
    }
    ConnectTo(reinterpret_cast<sockaddr const*>(address), sizeof *address, timeout_ms, true);
}

// `counted`: a connection over the network, which the counters and the route matter to.
void TCPStream::ConnectTo(sockaddr const* address, unsigned length, int timeout_ms, bool counted) {
    ::fcntl(socket, F_SETFL, O_NONBLOCK);
    int error = StartConnect(socket, address, length, timeout_ms);
    if (error == EAGAIN) ConnectTimedOut(counted);
    if (error) {
        if (counted) Count(s_pNoCommsConnectErrors);
        throw_connection_exception(error, KORtk::Location{__FILE__, __LINE__, __func__}, "");
    }
    error = Await(socket, POLLOUT, timeout_ms);
    if (error == ETIMEDOUT) ConnectTimedOut(counted);
    if (!error) error = PendingError(socket);
    if (!error) return;
    CloseSocket();
    if (counted) Count(s_pNoCommsConnectErrors);
    throw_connection_exception(error, KORtk::Location{__FILE__, __LINE__, __func__}, "");
}

// An answer that comes back by another route never arrives here, which is not the server's failing.
void TCPStream::ConnectTimedOut(bool counted) {
    if (counted) Count(s_pNoCommsConnectTimeouts);
    CloseSocket();
    KORtk::Location const here{__FILE__, __LINE__, __func__};
    if (counted && Asymmetric()) throw ConnectionFailure(here, "", events::CONNECT_ASYMMETRIC_ROUTE, 0);
    throw_connection_exception(ETIMEDOUT, here, "");
}

int TCPStream::RecvDataFlagged(char* data, unsigned length, int flags, unsigned* received) {
    *received = 0;
    int const error = replay ? ReplayInput(data, length, received) : Receive(data, length, flags, received);
    if (!error && escape_handler) handle_telnet(data, *received);
    return error;
}

int TCPStream::Receive(char* data, unsigned length, int flags, unsigned* received) {
    for (;;) {
        if (int const error = Await(socket, POLLIN, Bounded(timeout))) return error;
        ssize_t const count = ::recv(socket, data, length, flags);
        if (count >= 0) {
            write_debug(CaptureRecord::received, data, static_cast<int>(count));
            *received = static_cast<unsigned>(count);
            return 0;
        }
        if (!IsTransient(errno)) return errno ? errno : -1;
    }
}

int TCPStream::read(char* data, unsigned length, unsigned* received) {
    return RecvDataFlagged(data, length, 0, received);
}

int TCPStream::read(char* data, unsigned length) {
    while (length > 0) {
        unsigned received = 0;
        if (int const error = read(data, length, &received)) return error;
        if (received == 0) return -1;
        data += received;
        length -= received;
    }
    return 0;
}

int TCPStream::SendDataFlagged(char const* data, unsigned length, int flags, unsigned* sent) {
    *sent = 0;
    if (length >= sendLimit) errno = EMSGSIZE;
    if (length >= sendLimit) return -1;
    if (replay) return compare_write(data, length);
    if (length == 0) return -1;
    while (length > 0) {
        if (int const error = Await(socket, POLLOUT, Bounded(timeout))) {
            if (error == ETIMEDOUT) Count(s_pNoCommsDataErrors);
            return error;
        }
        write_debug(CaptureRecord::sent, data, static_cast<int>(length));
        ssize_t const count = ::send(socket, data, length, flags | MSG_NOSIGNAL);
        if (count < 0) {
            int const error = errno;
            Count(s_pNoCommsDataErrors);
            if (IsTransient(error)) continue;
            return error;
        }
        *sent += static_cast<unsigned>(count);
        data += count;
        length -= static_cast<unsigned>(count);
    }
    return 0;
}

int TCPStream::SendData(char const* data, unsigned length, unsigned* sent) {
    return SendDataFlagged(data, length, 0, sent);
}

int TCPStream::write(char const* data, unsigned length, unsigned* sent) { return SendData(data, length, sent); }

int TCPStream::write(char const* data, unsigned length) {
    while (length > 0) {
        unsigned sent = 0;
        if (int const error = write(data, length, &sent)) return error;
        if (replay) return 0;  // compared as a whole, and nothing counts as sent
        data += sent;
        length -= sent;
    }
    return 0;
}

// A wait that a signal ends counts as done here: the caller sees it from `sent`. Too much data is no error either, but
// leaves EMSGSIZE in errno.
int TCPStream::SendData(unsigned count, char const** buffers, unsigned* lengths, unsigned* sent) {
    *sent = 0;
    std::uint64_t left = 0;
    for (unsigned i = 0; i < count; ++i) {
        if (replay && compare_write(buffers[i], lengths[i]) != 0) return -1;
        write_debug(CaptureRecord::sent, buffers[i], static_cast<int>(lengths[i]));
        left += lengths[i];
    }
    if (left >= sendLimit) {
        errno = EMSGSIZE;
        return 0;
    }
    if (replay) {
        *sent = static_cast<unsigned>(left);
        return 0;
    }
    Unsent unsent{buffers, lengths, count};
    while (left > 0) {
        int const ready = Poll(socket, POLLOUT, Bounded(timeout));
        if (ready == 0) return ETIMEDOUT;
        if (ready < 0) return 0;
        iovec pieces[piecesPerCall];
        ssize_t const went = ::writev(socket, pieces, unsent.Pieces(pieces));
        if (went < 0 && IsTransient(errno)) continue;
        if (went < 0) return errno;
        *sent += static_cast<unsigned>(went);
        left -= static_cast<std::uint64_t>(went);
        unsent.Advance(static_cast<std::size_t>(went));
    }
    return 0;
}

int TCPStream::writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) {
    return SendData(count, buffers, lengths, sent);
}

namespace {

int PutPieces(TCPStream& stream, char const* text, std::size_t length, bool crlf) {
    char const* pieces[] = {text, "\r\n"};
    unsigned lengths[] = {static_cast<unsigned>(length), 2};
    unsigned sent = 0;
    return stream.SendData(crlf ? 2 : 1, pieces, lengths, &sent);
}

}  // namespace

int TCPStream::PutLine(char const* text, bool crlf) { return PutPieces(*this, text, std::strlen(text), crlf); }

int TCPStream::PutLine(std::string const& text, bool crlf) { return PutPieces(*this, text.data(), text.size(), crlf); }

int TCPStream::SendDataNonBlocked(char const* data, unsigned length) {
    if (length >= sendLimit) return static_cast<int>(length);
    if (Poll(socket, POLLOUT, 0) <= 0) return 0;
    ssize_t const count = ::send(socket, data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    return count < 0 ? 0 : static_cast<int>(count);
}

bool TCPStream::IsStillConnected() {
    pollfd peer{socket, POLLIN, 0};
    if (::poll(&peer, 1, 0) <= 0) return true;
    if (peer.revents & (POLLERR | POLLHUP)) return false;
    if (!(peer.revents & (POLLIN | POLLPRI))) return true;
    char next;
    return ::recv(socket, &next, 1, MSG_PEEK) == 1;
}

void TCPStream::flush() {
    unsigned const usual = set_timeout(0);
    char* dropped = nullptr;
    bool io_done = false;
    while (readdata(dropped, 0x7FFFFFFF, true, io_done) > 0) {
    }
    set_timeout(usual);
}

}  // namespace VELT
