// The threaded model of TCPServiceLoop: one accepting thread per socket, and a main thread that watches the parent.
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include <velt/runtime/ConnThreadPool.h>
#include <velt/runtime/ListenThread.h>
#include <velt/runtime/TCPServiceLoop.h>

namespace VELT {

namespace {

constexpr int kCheckMs = 1000;  // how often the connection count is looked at

}  // namespace

// Another worker may take the connection between poll and accept: accept must not wait then.
void TCPServiceLoop::SetListenersNonBlocking() {
    for (int i = 0; i < m_listenCount; ++i) ::fcntl(m_listenSockets[i], F_SETFL, O_NONBLOCK);
}

void TCPServiceLoop::AcceptConnections_Threaded() {
    m_wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    SetListenersNonBlocking();
    std::vector<std::unique_ptr<ListenThread>> acceptors;
    for (int i = 0; i < m_listenCount; ++i) {
        acceptors.push_back(std::make_unique<ListenThread>(m_listenSockets[i], this));
    }
    WatchParent();
    WriteMsgToParent(MSG_STOPPING);
    ClosePipes();
    StopServices();
    ::eventfd_write(m_wakeFd, 1);
    for (auto const& acceptor : acceptors) acceptor->Join();
    connthreads->Shutdown();
}

// The descriptor is watched under the number that it had at entry, even after an error closed it.
void TCPServiceLoop::WatchParent() {
    pollfd pipe{m_parentReadFd, POLLIN, 0};
    while (!shutdown) {
        int const ready = ::poll(&pipe, 1, kCheckMs);
        if (ready == 0) CheckConnectionLimit();
        if (ready <= 0) continue;
        HandleParentPipe(pipe.revents);
        if (m_parentReadFd == -1) RestWithoutParent();
    }
}

void TCPServiceLoop::HandleParentPipe(short events) {
    if (events & POLLIN) {
        if (HandleMessageFromParent() != 0) CloseParentRead();
    } else if (events & POLLHUP) {
        shutdown = true;
    }
}

// A closed number answers each poll at once: the worker goes on without a parent, once a second.
void TCPServiceLoop::RestWithoutParent() {
    if (!shutdown) ::poll(nullptr, 0, kCheckMs);
    CheckConnectionLimit();
}

void TCPServiceLoop::CloseParentRead() {
    if (m_parentReadFd != -1) ::close(m_parentReadFd);
    m_parentReadFd = -1;
}

void TCPServiceLoop::ClosePipes() {
    CloseParentRead();
    if (m_parentWriteFd != -1) ::close(m_parentWriteFd);
    m_parentWriteFd = -1;
}

}  // namespace VELT
