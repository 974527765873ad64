// Patience: how long a whole line, reply or message may take, however many bytes it comes in. The timeout of a stream
// bounds each single wait; without more, a peer that sends a byte now and then could hold a session for ever.
// Owner: one operation, on its stack; the stream has its old timeout back afterwards. Thread: the session's.
// Units: milliseconds, bytes. Failure: none.
#pragma once

#include <velt/streams/TCPStream.h>

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace smtp {

class Patience {
public:
    explicit Patience(VELT::TCPStream& stream) : Patience(stream, stream.set_timeout(1)) {}
    Patience(VELT::TCPStream& stream, unsigned wholeMs)
        : m_stream(stream), m_wholeMs(wholeMs), m_end(Clock::now() + Milliseconds(wholeMs)) {
        m_stream.set_timeout(wholeMs);
    }
    ~Patience() { m_stream.set_timeout(m_wholeMs); }
    Patience(Patience const&) = delete;
    Patience& operator=(Patience const&) = delete;

    // Before each wait but the first. False: the time is over.
    bool More() {
        auto const left = std::chrono::duration_cast<Milliseconds>(m_end - Clock::now()).count();
        if (left <= 0) return false;
        m_stream.set_timeout(static_cast<unsigned>(left));
        return true;
    }

    // Bytes that moved buy time at this rate, up to a whole new span.
    void Earn(std::uint64_t bytes, unsigned bytesPerSecond) {
        if (bytesPerSecond == 0) return void(m_end = Clock::now() + Milliseconds(m_wholeMs));
        std::uint64_t const gainedMs = std::min<std::uint64_t>(bytes * 1000 / bytesPerSecond, m_wholeMs);
        m_end = std::min(m_end + Milliseconds(gainedMs), Clock::now() + Milliseconds(m_wholeMs));
    }

private:
    using Clock = std::chrono::steady_clock;
    using Milliseconds = std::chrono::milliseconds;

    VELT::TCPStream& m_stream;
    unsigned m_wholeMs;
    Clock::time_point m_end;
};

}  // namespace smtp
