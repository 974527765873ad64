#include "Wire.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace scannerd {
namespace {

constexpr std::size_t kGather = 64 * 1024;  // bytes
constexpr unsigned kAhead = 4 * 1024;       // bytes that are read at a time where a content may follow
constexpr int kLookMs = 200;                // how often the stop flag is looked at

int WaitReadable(int fd, int ms) {
    pollfd one{fd, POLLIN, 0};
    return ::poll(&one, 1, ms);
}

}  // namespace

Wire::Wire(VELT::BufferedStream& peer, std::atomic<bool> const* stopping) : m_peer(peer), m_stopping(stopping) {}

Wire::~Wire() = default;

void Wire::Begin(Allowance const& allowance) {
    char* data = nullptr;
    int const held = buffereddata(data);
    m_allowance = allowance;
    m_taken = held > 0 ? static_cast<unsigned long>(held) : 0;
    m_begun = m_taken > 0;
    m_leaving = false;
    Restart(m_begun ? allowance.restMs : allowance.firstMs);
}

int Wire::Fail(End end) {
    m_end = end;
    return end == End::TooMuch ? EMSGSIZE : end == End::Silent ? ETIMEDOUT : ECONNABORTED;
}

// Whoever has begun to speak is heard out.
bool Wire::Leaves() {
    if (m_allowance.leaveMs < 0 || m_begun || !stopping()) return false;
    if (!m_leaving) m_leave = Clock::now() + std::chrono::milliseconds(m_allowance.leaveMs);
    m_leaving = true;
    return Clock::now() >= m_leave;
}

// True: something can be read, be it the end. A peer without a descriptor does not wait.
bool Wire::Await() {
    int const fd = m_peer.get_file();
    if (fd < 0) return true;
    for (;;) {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(m_deadline - Clock::now()).count();
        long const most = m_allowance.leaveMs < 0 ? INT_MAX : kLookMs;
        int const wait = static_cast<int>(std::clamp<long>(left, 0, most));
        int const ready = WaitReadable(fd, wait);
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR) return Fail(End::Broken), false;
        if (Leaves()) return Fail(End::Stopping), false;
        if (left <= 0) return Fail(End::Silent), false;
    }
}

// More is asked for only while the block has not ended in what is here: a block of the size allowed is never refused.
// What is read ahead of a content is copied once more, so of that there is little.
int Wire::read(char* data, unsigned length, unsigned* received) {
    *received = 0;
    if (m_end != End::None) return Fail(m_end);
    if (m_taken >= m_allowance.mostBytes) return Fail(End::TooMuch);
    if (!Await()) return Fail(m_end);
    unsigned const most = m_allowance.eachWait ? length : std::min(length, kAhead);
    if (int const error = m_peer.read(data, most, received)) {
        Fail(error == ETIMEDOUT ? End::Silent : End::Broken);
        return error;
    }
    if (*received == 0) return m_end = End::Closed, 0;
    m_taken += *received;
    if (m_allowance.eachWait || !m_begun) Restart(m_allowance.restMs);
    m_begun = true;
    return 0;
}

int Wire::write(char const* data, unsigned length, unsigned* sent) {
    *sent = 0;
    if (m_writeError) return EPIPE;
    m_out.append(data, length);
    *sent = length;
    return m_out.size() < kGather || Flush() ? 0 : EPIPE;
}

int Wire::writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) {
    *sent = 0;
    for (unsigned i = 0; i < count; ++i) {
        unsigned gone = 0;
        if (int const error = write(buffers[i], lengths[i], &gone)) return error;
        *sent += gone;
    }
    return 0;
}

bool Wire::IsPeerThere() const {
    pollfd one{m_peer.get_file(), POLLRDHUP, 0};
    return one.fd < 0 || ::poll(&one, 1, 0) == 0;
}

bool Wire::Flush() {
    for (std::size_t at = 0; at < m_out.size() && !m_writeError;) {
        unsigned sent = 0;
        unsigned const left = static_cast<unsigned>(m_out.size() - at);
        m_writeError = m_peer.write(m_out.data() + at, left, &sent) != 0 || sent == 0;
        at += sent;
    }
    m_out.clear();
    return !m_writeError;
}

void Wire::Discard(Allowance const& allowance) {
    Begin(allowance);
    for (int got = 1; got > 0;) {
        char* data = nullptr;
        bool done = false;
        got = readdata(data, 0x7FFFFFFF, true, done);
    }
}

}  // namespace scannerd
