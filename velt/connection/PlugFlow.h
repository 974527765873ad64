// PlugFlow: one direction of a Plug. It reads only when all it has read before is written.
// Owner: the Plug, on its stack. Thread: the plug's. Failure: Ended() for the end of the input, Failed() for the rest.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>

namespace VELT {

class TCPStream;

class PlugFlow {
public:
    PlugFlow(TCPStream& from, TCPStream& to) : m_from(from), m_to(to) {}
    ~PlugFlow();
    PlugFlow(PlugFlow const&) = delete;
    PlugFlow& operator=(PlugFlow const&) = delete;

    // What has come, until one side would have to be waited for. `toEnd`: the end is known to have come, too.
    void Carry(bool toEnd);
    void Push();       // what is still on its way
    void ClosePipe();  // drops what is on its way, too

    bool pending() const { return m_pending != 0; }  // wants room in `to`; else it wants input of `from`
    bool hasPipe() const { return m_pipe[0] != -1; }
    bool ended() const { return m_ended; }
    bool failed() const { return m_failed; }
    std::chrono::steady_clock::time_point pendingSince() const {
        return m_pendingSince;
    }  // or since `to` last took some

private:
    bool CarryBlock();
    bool CarryThroughPipe();
    bool TakenIn(long count);
    void SendBlock(char const* data, std::size_t length);
    void Keep(char const* data, std::size_t length);
    bool OpenPipe();
    void MakeNonBlocking() const;

    TCPStream& m_from;
    TCPStream& m_to;
    std::array<int, 2> m_pipe{-1, -1};
    std::size_t m_pending = 0;  // bytes in the pipe
    std::chrono::steady_clock::time_point m_pendingSince{};
    bool m_bulk = false;  // the last look filled its block
    bool m_ended = false;
    bool m_failed = false;
};

}  // namespace VELT
