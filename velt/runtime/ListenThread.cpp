#include <velt/runtime/ListenThread.h>

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include <velt/runtime/TCPServiceLoop.h>

namespace VELT {

namespace {

constexpr int kStackBytes = 32768;
constexpr int kPollWithoutWakeMs = 500;
constexpr int kRestMs = 10;

bool OutOfResources(int error) { return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM; }

}  // namespace

int AcceptClient(int socket) {
    int const fd = ::accept4(socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd == -1 && OutOfResources(errno)) ::poll(nullptr, 0, kRestMs);
    return fd;
}

ListenThread::ListenThread(int socket, TCPServiceLoop* loop) : m_socket(socket), m_loop(loop) {
    StartThread(kStackBytes);
}

void ListenThread::ThreadMain() {
    while (!ServiceLoop::shutdown) {
        if (WaitForClient()) Accept();
    }
}

// After a stop the number may belong to somebody else's file: what poll says is then of no interest.
bool ListenThread::WaitForClient() {
    int const wake = m_loop->m_wakeFd;
    pollfd watched[2] = {{m_socket, POLLIN, 0}, {wake, POLLIN, 0}};
    int const ready = ::poll(watched, 2, wake == -1 ? kPollWithoutWakeMs : -1);
    return ready > 0 && (watched[0].revents & POLLIN) && !ServiceLoop::shutdown;
}

void ListenThread::Accept() {
    int const fd = AcceptClient(m_socket);
    if (fd != -1) m_loop->NewConnection(fd, TCPServiceLoop::QUEUE_WAIT);
}

}  // namespace VELT
