#include "Peer.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "Scenario.h"

namespace torture {

namespace {

constexpr int kSmallBuffer = 4096;  // so that a send often takes less than all

int Checked(int result, char const* what) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), what);
    return result;
}

void SendAll(int fd, std::string_view text) {
    while (!text.empty()) {
        ssize_t const count = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (count <= 0) return;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

}  // namespace

int ConnectTo(unsigned short port) {
    sockaddr_in target = velt_testing::Address("127.0.0.1", port);
    velt_testing::Fd made(Checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
    int const fd = made.get();
    Checked(::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kSmallBuffer, sizeof kSmallBuffer), "SO_RCVBUF");
    Checked(::connect(fd, reinterpret_cast<sockaddr*>(&target), sizeof target), "connect");
    return made.release();
}

Line::Line() : near(-1), far(-1) {
    velt_testing::Listener const listener;
    far = ConnectTo(listener.port());
    near = Checked(::accept(listener.fd(), nullptr, nullptr), "accept");
    Checked(::setsockopt(near, SOL_SOCKET, SO_SNDBUF, &kSmallBuffer, sizeof kSmallBuffer), "SO_SNDBUF");
    Checked(::fcntl(near, F_SETFL, O_NONBLOCK), "O_NONBLOCK");
}

Collector::Collector(int fd) : m_thread(&Collector::Collect, this, fd) {}

Collector::~Collector() { Got(); }

void Collector::Collect(int fd) {
    SpareThisThread();
    char block[4096];
    for (ssize_t count; (count = ::recv(fd, block, sizeof block, 0)) > 0;)
        m_got.append(block, static_cast<std::size_t>(count));
    ::close(fd);
}

std::string const& Collector::Got() {
    if (m_thread.joinable()) m_thread.join();
    return m_got;
}

Feeder::Feeder(int fd, std::string text)
    : m_text(std::move(text)), m_thread([this, fd] {
          SpareThisThread();
          SendAll(fd, m_text);
          ::shutdown(fd, SHUT_WR);
          char last;  // the other side has ended, too
          while (::recv(fd, &last, 1, 0) > 0) {
          }
          ::close(fd);
      }) {}

Feeder::~Feeder() { m_thread.join(); }

EchoServer::EchoServer() : m_thread(&EchoServer::Serve, this) {}

// A last connection wakes it.
EchoServer::~EchoServer() {
    m_over = true;
    ::close(ConnectTo(m_listener.port()));
    m_thread.join();
}

void EchoServer::Serve() {
    SpareThisThread();
    while (!m_over) {
        int const client = ::accept(m_listener.fd(), nullptr, nullptr);
        char block[4096];
        for (ssize_t count; client >= 0 && (count = ::recv(client, block, sizeof block, 0)) > 0;)
            SendAll(client, {block, static_cast<std::size_t>(count)});
        ::close(client);
    }
}

}  // namespace torture
