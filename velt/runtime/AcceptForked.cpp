// The forked model of TCPServiceLoop: one thread polls every socket and forks a process per connection.
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <velt/errors/ErrnoEvents.h>
#include <velt/errors/Failures.h>
#include <velt/logging/Events.h>
#include <velt/logging/Log.h>
#include <velt/runtime/ListenThread.h>
#include <velt/runtime/Notify.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/Shutdown.h>
#include <velt/runtime/TCPServiceLoop.h>
#include <velt/scanning/Scanner.h>

namespace VELT {

namespace {

// False: the system has no thread left for this process.
bool StartScanning() {
    try {
        Scanner::start(true, Proxy::s_pProxyInstance->m_clockInConnectionChild);
        return true;
    } catch (FWException<fw_exception_tag::resource> const& refused) {
        LogEvent(events::NO_CONNECTION_OBJECT, [&] { return _find_errno(refused.error); });
        return false;
    }
}

}  // namespace

// A worker that waits for one of its children to end does not look at the pipe: the hangup tells it, too, that the
// parent has gone, so that the ports are free for the parent's successor.
// The pipe to the parent stands last among what is polled, and is left out once it is closed.
void TCPServiceLoop::AcceptConnections_Forked() {
    SetListenersNonBlocking();
    std::vector<pollfd> watched;
    for (int i = 0; i < m_listenCount; ++i) watched.push_back({m_listenSockets[i], POLLIN, 0});
    watched.push_back({m_parentReadFd, POLLIN, 0});
    HandleSignal(SIGCHLD, childshutdown_signal);
    ::prctl(PR_SET_PDEATHSIG, SIGHUP);
    nfds_t count = watched.size();
    NotifyReady(m_listenSockets.get(), m_listenCount);
    while (!shutdown) {
        CheckForChildExit(false);
        if (::poll(watched.data(), count, -1) > 0) {
            AcceptReady(watched);
            pollfd& pipe = watched.back();
            if (pipe.revents != 0) HandleParentPipe(pipe.revents);
            pipe.revents = 0;
            if (m_parentReadFd == -1) count = watched.size() - 1;
        }
        CheckConnectionLimit();
    }
    StopServices();
}

void TCPServiceLoop::AcceptReady(std::vector<pollfd>& watched) {
    for (std::size_t i = 0; i + 1 < watched.size(); ++i) {
        bool const ready = watched[i].revents & POLLIN;
        watched[i].revents = 0;
        if (!ready || shutdown) continue;
        int const fd = AcceptClient(watched[i].fd);
        if (fd != -1) RunChildConnection(fd);
    }
}

void TCPServiceLoop::RunChildConnection(int fd) {
    if (Proxy::s_pProxyInstance->m_maxConnections == 1) {
        NewConnection(fd, RUN_INLINE);
        return;
    }
    std::fflush(nullptr);
    pid_t const child = ::fork();
    if (child == 0) ServeInChild(fd);
    ::close(fd);
    if (child == -1) return;
    ++m_childCount;
    m_countLock.Acquire();
    ++m_connectionCount;
    m_countLock.Release();
    CheckForChildExit(true);
}

// The pipes are the worker's: the monitor learns of the worker's end though its connection children still run.
void TCPServiceLoop::ServeInChild(int fd) {
    m_pid = ::getpid();
    StopServices();
    ClosePipes();
    if (StartScanning())
        NewConnection(fd, RUN_INLINE);
    else
        ::close(fd);
    Scanner::finish();
}

// Only the first call may wait, and only while as many children run as are allowed: it waits for room, which a process
// that stops does not need.
void TCPServiceLoop::CheckForChildExit(bool wait) {
    unsigned const most = Proxy::s_pProxyInstance->m_maxConnections;
    if (most <= 1) return;
    bool block = wait && m_childCount >= most && !shutdown;
    for (;;) {
        pid_t const ended = ::wait3(nullptr, block ? 0 : WNOHANG, nullptr);
        if (ended == -1 && errno == EINTR && !shutdown) continue;
        if (ended == -1 && errno == ECHILD) m_childCount = 0;
        if (ended <= 0) return;
        if (m_childCount != 0) --m_childCount;
        block = false;
    }
}

}  // namespace VELT
