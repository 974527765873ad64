#include <velt/runtime/ListenThread.h>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include <velt/runtime/ConnThreadPool.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/TCPServiceLoop.h>

namespace VELT {

namespace {

constexpr int kStackBytes = 32768;
constexpr int kPollWithoutWakeMs = 500;
constexpr int kRestMs = 10;
constexpr int kStandBackMs = 5;

bool OutOfResources(int error) { return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM; }

bool Watch(int set, int fd, unsigned events) {
    epoll_event event{};
    event.events = events;
    return ::epoll_ctl(set, EPOLL_CTL_ADD, fd, &event) == 0;
}

// All workers wait on the same socket: exclusive, or each client would wake every one of them.
int OpenWait(int socket, int wake) {
    int const set = ::epoll_create1(EPOLL_CLOEXEC);
    if (set == -1) return -1;
    if (Watch(set, socket, EPOLLIN | EPOLLEXCLUSIVE) && Watch(set, wake, EPOLLIN)) return set;
    ::close(set);
    return -1;
}

}  // namespace

int AcceptClient(int socket) {
    int const fd = ::accept4(socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd == -1 && OutOfResources(errno)) ::poll(nullptr, 0, kRestMs);
    return fd;
}

ListenThread::ListenThread(int socket, TCPServiceLoop* loop)
    : m_socket(socket),
      m_loop(loop),
      m_wait(OpenWait(socket, loop->m_wakeFd)),
      m_siblings(Proxy::s_pProxyInstance->m_acceptCount > 1) {
    StartThread(kStackBytes);
}

ListenThread::~ListenThread() { CloseWait(); }

void ListenThread::CloseWait() {
    if (m_wait != -1) ::close(m_wait);
    m_wait = -1;
}

// Clients may stand in line: only when there is none the thread waits, or when other workers wait beside this one. The
// first look is before the first wait, so that a client whose wake-up went to a worker that was about to leave is found
// by that worker's replacement.
void ListenThread::ThreadMain() {
    while (!ServiceLoop::shutdown) {
        bool const accepted = Accept();
        if (accepted && !m_siblings) continue;
        if (accepted) LetOthersBeFirst();
        WaitForClient();
    }
    m_loop->WakeAll();
}

// The system wakes whoever has waited longest for the socket, and counts from when it was added to the set. Without
// this one worker would fill up while the next one has nothing to do. A worker whose threads are all busy stands back
// for a moment, so that a client goes to one that can run its session now. When the system has no room to add the
// socket again, the thread waits without a set from then on.
void ListenThread::LetOthersBeFirst() {
    ::epoll_ctl(m_wait, EPOLL_CTL_DEL, m_socket, nullptr);
    ServiceLoop::connthreads->WaitForFreeThread(kStandBackMs);
    if (!Watch(m_wait, m_socket, EPOLLIN | EPOLLEXCLUSIVE)) CloseWait();
}

bool ListenThread::Accept() {
    int const fd = AcceptClient(m_socket);
    if (fd == -1) return false;
    m_loop->NewConnection(fd, TCPServiceLoop::QUEUE_WAIT);
    return true;
}

// After a stop the number may belong to somebody else's file: what is said of it is then of no interest.
void ListenThread::WaitForClient() {
    if (m_wait != -1) {
        epoll_event event;
        ::epoll_wait(m_wait, &event, 1, -1);
        return;
    }
    int const wake = m_loop->m_wakeFd;
    pollfd watched[2] = {{m_socket, POLLIN, 0}, {wake, POLLIN, 0}};
    ::poll(watched, 2, wake == -1 ? kPollWithoutWakeMs : -1);
}

}  // namespace VELT
