// ListenThread: accepts on one listening socket of a threaded worker until the process stops.
// Owner: TCPServiceLoop::AcceptConnections_Threaded, which joins it. Threads: itself.
// Failure: an accept that gives nothing is not reported. It polls before each accept, as other workers share the
// socket; a loop's wake-up descriptor ends the poll when the process stops.
#pragma once

#include <velt/runtime/Thread.h>

namespace VELT {

class TCPServiceLoop;

class ListenThread : public ThreadRunner {
public:
    ListenThread(int socket, TCPServiceLoop* loop);
    void ThreadMain() override;

private:
    bool WaitForClient();
    void Accept();

    int m_socket;
    TCPServiceLoop* m_loop;
};

// Accepts one connection; -1 when there is none. Rests for a moment when the system is out of descriptors or memory,
// so that a caller may simply try again.
int AcceptClient(int socket);

}  // namespace VELT
