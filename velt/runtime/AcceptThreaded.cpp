// The threaded model of TCPServiceLoop: one accepting thread per socket, and a main thread that watches the parent.
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include <velt/runtime/ConnThreadPool.h>
#include <velt/runtime/ListenThread.h>
#include <velt/runtime/Notify.h>
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
    NotifyReady(m_listenSockets.get(), m_listenCount);
    WatchParent();
    WriteMsgToParent(MSG_STOPPING);
    ClosePipes();
    StopServices();
    WakeAll();
    for (auto const& acceptor : acceptors) acceptor->Join();
    connthreads->Shutdown();
}

// The descriptor is watched under the number that it had at entry, even after an error closed it. The stop flag may be
// set by any thread: the first accepting thread that sees it wakes this one, as from then on nobody accepts.
void TCPServiceLoop::WatchParent() {
    pollfd watched[2] = {{m_parentReadFd, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
    while (!shutdown) {
        int const ready = ::poll(watched, 2, kCheckMs);
        if (ready == 0) CheckConnectionLimit();
        if (ready <= 0) continue;
        HandleParentPipe(watched[0].revents);
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
    pollfd wake{m_wakeFd, POLLIN, 0};
    if (!shutdown) ::poll(&wake, 1, kCheckMs);
    CheckConnectionLimit();
}

// The main thread and all accepting ones, for good.
void TCPServiceLoop::WakeAll() { ::eventfd_write(m_wakeFd, 1); }

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
