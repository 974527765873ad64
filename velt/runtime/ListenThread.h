// ListenThread: accepts on one listening socket of a threaded worker until the process stops.
// Owner: TCPServiceLoop::AcceptConnections_Threaded, which joins it. Threads: itself.
// Failure: an accept that gives nothing is not reported. The socket is non-blocking, as other workers share it; each
// client wakes one of them. The loop's wake-up descriptor ends the wait when the process stops.
#pragma once

#include <velt/runtime/Thread.h>

namespace VELT {

class TCPServiceLoop;

class ListenThread : public ThreadRunner {
public:
    ListenThread(int socket, TCPServiceLoop* loop);
    ~ListenThread() override;
    void ThreadMain() override;

private:
    bool Accept();  // false: there is no client
    void LetOthersBeFirst();
    void WaitForClient();
    void CloseWait();

    int m_socket;
    TCPServiceLoop* m_loop;
    int m_wait;       // an epoll set; -1 when the system had none to give
    bool m_siblings;  // other workers accept on the same socket
};

// Accepts one connection; -1 when there is none. Rests for a moment when the system is out of descriptors or memory,
// so that a caller may simply try again.
int AcceptClient(int socket);

}  // namespace VELT
