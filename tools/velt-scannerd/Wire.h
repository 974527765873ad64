// Wire: a client's connection as the daemon reads and writes it. What is read is held to a size and to a time, block by
// block; what is written is gathered, and goes out as few times as it can.
// Owner: the session, which owns the peer too; the peer outlives it. Thread: the session's. Units: bytes, milliseconds.
// Failure: reads fail, and go on failing, once end() is not None; writes likewise, and Flush says so.
#pragma once

#include <atomic>
#include <chrono>
#include <string>

#include <velt/streams/BufferedStream.h>

namespace scannerd {

// What one block of input may take.
struct Allowance {
    unsigned long mostBytes;
    unsigned firstMs;  // until its first byte
    unsigned restMs;   // from there to its end; for each wait of it where eachWait
    bool eachWait = false;
    int leaveMs = -1;  // where the process is to stop and nothing of the block has come: leaves after so long
};

class Wire : public VELT::BufferedStream {
public:
    enum class End {
        None,
        Closed,    // by the peer, in order
        Broken,    // the connection failed
        Silent,    // the time ran out
        TooMuch,   // the block is larger than it may be
        Stopping,  // the process is to stop, and nothing was under way
    };

    // `stopping` may be null: the process never stops.
    Wire(VELT::BufferedStream& peer, std::atomic<bool> const* stopping);
    ~Wire() override;  // writes nothing

    void Begin(Allowance const& allowance);  // of the next block; bytes that are here already belong to it
    End end() const { return m_end; }
    bool begun() const { return m_begun; }  // something of the block has come
    bool stopping() const { return m_stopping && *m_stopping; }

    bool IsPeerThere() const;                   // false: it has closed its side, or the connection failed
    bool Flush();                               // false: what was written did not all go
    bool lost() const { return m_writeError; }  // the same
    void Discard(Allowance const& allowance);   // what the peer still says, up to its end

    int read(char* data, unsigned length, unsigned* received) override;
    int write(char const* data, unsigned length, unsigned* sent) override;
    int writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) override;
    VELT::BufferPool* get_pool() override { return m_peer.get_pool(); }

private:
    using Clock = std::chrono::steady_clock;

    bool Await();
    bool Leaves();
    int Fail(End end);
    void Restart(unsigned ms) { m_deadline = Clock::now() + std::chrono::milliseconds(ms); }

    VELT::BufferedStream& m_peer;
    std::atomic<bool> const* m_stopping;
    End m_end = End::None;
    Allowance m_allowance{0, 0, 0};
    Clock::time_point m_deadline;
    Clock::time_point m_leave;  // set once the process is to stop
    bool m_leaving = false;
    bool m_begun = false;
    unsigned long m_taken = 0;  // bytes of the block so far
    std::string m_out;          // not yet sent
    bool m_writeError = false;
};

}  // namespace scannerd
