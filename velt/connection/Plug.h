// Plug: joins two connected streams and carries bytes both ways, unseen and unchanged, until either side stops.
// A first look at what comes is small and goes through a block on the stack; while a side fills such blocks its bytes
// stay in the kernel and go through a pipe (splice(2)). Input that a stream holds already goes first, through its
// buffer; where a capture, a replay or a telnet filter wants to see the bytes, all of them go through the buffers.
// Owner: the caller; the streams are borrowed, become non-blocking and stay open. Thread: the caller's, for as
// long as Run takes. Units: milliseconds. Failure: none is told; Run ends.
#pragma once

#include <velt/Export.h>

namespace VELT {

class TCPStream;

class VELT_API Plug {
public:
    // `timeoutMs` bounds a wait in which neither side says anything, and one in which a side takes nothing of what it
    // is to get.
    Plug(TCPStream& client, TCPStream& server, int timeoutMs)
        : m_client(client), m_server(server), m_timeoutMs(timeoutMs) {}

    // The end of either side's stream ends it, once what was read before has been handed over.
    void Run();

private:
    void RunThroughKernel();
    void RunThroughBuffers();

    TCPStream& m_client;
    TCPStream& m_server;
    int m_timeoutMs;
};

}  // namespace VELT
