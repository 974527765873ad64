#include <velt/connection/PlugFlow.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include <velt/streams/TCPStream.h>

namespace VELT {

namespace {

constexpr std::size_t kBlockBytes = 4096;       // on the stack of a session's thread
constexpr std::size_t kPipeBytes = 512 * 1024;  // asked for; an unprivileged user may get less
constexpr int kRounds = 16;                     // before the other direction has its turn

bool WouldWait() { return errno == EAGAIN || errno == EINTR; }

}  // namespace

PlugFlow::~PlugFlow() { ClosePipe(); }

void PlugFlow::ClosePipe() {
    for (int& end : m_pipe) {
        if (end != -1) ::close(std::exchange(end, -1));
    }
}

void PlugFlow::Carry(bool toEnd) {
    for (int round = 0; round < kRounds && !pending(); ++round) {
        bool const more = m_bulk && OpenPipe() ? CarryThroughPipe() : CarryBlock();
        if (m_ended || m_failed || !(more || toEnd)) return;
    }
}

// True: more is likely to be there.
bool PlugFlow::CarryBlock() {
    char block[kBlockBytes];
    ssize_t const count = ::recv(m_from.GetSocket(), block, sizeof block, MSG_DONTWAIT);
    if (!TakenIn(count)) return false;
    m_bulk = count == static_cast<ssize_t>(sizeof block);
    SendBlock(block, static_cast<std::size_t>(count));
    return m_bulk;
}

bool PlugFlow::CarryThroughPipe() {
    ssize_t const count =
        ::splice(m_from.GetSocket(), nullptr, m_pipe[1], nullptr, kPipeBytes, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
    if (!TakenIn(count)) return false;
    m_bulk = count >= static_cast<ssize_t>(kBlockBytes);
    m_pending = static_cast<std::size_t>(count);
    m_pendingSince = std::chrono::steady_clock::now();
    Push();
    return true;
}

bool PlugFlow::TakenIn(long count) {
    if (count > 0) return true;
    m_ended = count == 0;
    m_failed = count < 0 && !WouldWait();
    return false;
}

void PlugFlow::SendBlock(char const* data, std::size_t length) {
    ssize_t const sent = ::send(m_to.GetSocket(), data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && !WouldWait()) {
        m_failed = true;
        return;
    }
    std::size_t const went = sent < 0 ? 0 : static_cast<std::size_t>(sent);
    if (went < length) Keep(data + went, length - went);
}

// The pipe is empty here, and holds more than a block. Without one the other side is waited for here.
void PlugFlow::Keep(char const* data, std::size_t length) {
    if (!OpenPipe()) {
        m_failed = m_to.write(data, static_cast<unsigned>(length)) != 0;
        return;
    }
    m_failed = ::write(m_pipe[1], data, length) != static_cast<ssize_t>(length);
    if (m_failed) return;
    m_pending = length;
    m_pendingSince = std::chrono::steady_clock::now();
}

void PlugFlow::Push() {
    std::size_t const before = m_pending;
    while (m_pending > 0) {
        ssize_t const count =
            ::splice(m_pipe[0], nullptr, m_to.GetSocket(), nullptr, m_pending, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
        if (count <= 0) {
            m_failed = count == 0 || !WouldWait();
            break;
        }
        m_pending -= static_cast<std::size_t>(count);
    }
    if (pending() && m_pending != before) m_pendingSince = std::chrono::steady_clock::now();
}

// Without descriptors for a pipe the bytes go block by block.
bool PlugFlow::OpenPipe() {
    if (m_pipe[0] != -1) return true;
    MakeNonBlocking();
    if (::pipe2(m_pipe.data(), O_CLOEXEC | O_NONBLOCK) != 0) return false;
    ::fcntl(m_pipe[1], F_SETPIPE_SZ, static_cast<int>(kPipeBytes));
    return true;
}

// What goes through a block never waits; splice, and the output of a stream, do as the socket does.
void PlugFlow::MakeNonBlocking() const {
    for (int const socket : {m_from.GetSocket(), m_to.GetSocket()}) {
        int const flags = ::fcntl(socket, F_GETFL);
        if (flags != -1 && !(flags & O_NONBLOCK)) ::fcntl(socket, F_SETFL, flags | O_NONBLOCK);
    }
}

}  // namespace VELT
