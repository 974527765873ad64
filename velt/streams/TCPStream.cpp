// A stream's descriptor: how it is made, named, listened on and accepted.
#include <netinet/tcp.h>
#include <velt/streams/TCPStream.h>

#include <KORnet/Addr.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <vector>

#include <velt/connection/TCPConnection.h>
#include <velt/errors/Failures.h>
#include <velt/logging/Events.h>

namespace VELT {

namespace {

[[noreturn]] void ThrowSetUp(char const* text, int error, KORtk::Location const& where) {
    throw FWException<fw_exception_tag::io>(error, text, where);
}

sockaddr_in MakeAddress(std::string const& dotted, unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ::inet_aton(dotted.c_str(), &address.sin_addr);
    return address;
}

bool IsTransient(int error) { return error == EINTR || error == EAGAIN; }

}  // namespace

std::uint32_t TCPStream::s_timeout = 0;
BufferPool* TCPStream::s_pool = nullptr;
std::string TCPStream::s_debugdir;

TCPStream::TCPStream() : timeout(s_timeout) {}

TCPStream::TCPStream(int fd) : TCPStream() { socket = fd; }

// The connecting constructors delegate, so that what they throw runs the destructor, which closes the socket.
TCPStream::TCPStream(std::string& address, unsigned short port, int timeout_ms, bool check_loopback) : TCPStream() {
    sockaddr_in const remote = MakeAddress(address, port);
    CreateSocket(AF_INET);
    Connect(&remote, timeout_ms, check_loopback);
}

TCPStream::TCPStream(KORnet::IPAddr const& address, unsigned short port, TCPConnection& connection, int timeout_ms,
                     bool check_loopback)
    : TCPStream() {
    std::string const text = address.str();
    sockaddr_in const remote = MakeAddress(text, port);
    CreateSocket(AF_INET);
    Connect(&remote, timeout_ms, check_loopback);
    connection.m_host.clear();
    connection.m_stream = this;
    connection.m_addressText = text;
    connection.m_address = remote;
}

TCPStream::TCPStream(sockaddr_in* remote, int timeout_ms, bool check_loopback) : TCPStream() {
    CreateSocket(AF_INET);
    Connect(remote, timeout_ms, check_loopback);
}

TCPStream::TCPStream(sockaddr_in* remote, sockaddr_in* nat_source, sockaddr_in* local, int timeout_ms,
                     bool check_loopback)
    : TCPStream() {
    sockaddr_in any{};
    any.sin_family = AF_INET;
    CreateSocket(AF_INET);
    if (int const result = SetSourceAddr(local ? local : &any, remote, nat_source)) {
        CloseSocket();
        ThrowSetUp("TCPStream, Call to SetSourceAddr failed.", result, {__FILE__, __LINE__, __func__});
    }
    Connect(remote, timeout_ms, check_loopback);
}

// The address is as long as the path, so a path that the system cannot take is refused by it and not cut.
TCPStream::TCPStream(std::string& path, int timeout_ms) : TCPStream() {
    constexpr std::size_t pathAt = offsetof(sockaddr_un, sun_path);
    std::vector<char> address(std::max(sizeof(sockaddr_un), pathAt + path.size() + 1));
    auto* const local = reinterpret_cast<sockaddr_un*>(address.data());
    local->sun_family = AF_UNIX;
    std::memcpy(address.data() + pathAt, path.c_str(), path.size());
    CreateSocket(AF_UNIX);
    ConnectTo(reinterpret_cast<sockaddr*>(local), static_cast<unsigned>(pathAt + path.size()), timeout_ms, false);
}

TCPStream::~TCPStream() {
    CloseSocket();
    CloseCapture();
}

void TCPStream::CloseSocket() {
    if (socket < 0) return;
    ::close(socket);
    socket = -1;
}

void TCPStream::CreateSocket(int domain) {
    int const fd = ::socket(domain, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        int const error = errno;
        throw ConnectionFailure(KORtk::Location{__FILE__, __LINE__, __func__}, "Unable to obtain a network socket",
                                events::CONNECT_NO_SOCKET, error);
    }
    // A small write never waits for the answer to the one before it. What is accepted from this socket inherits it.
    int const on = 1;
    if (domain == AF_INET) ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    CloseSocket();
    socket = fd;
}

void TCPStream::Bind(sockaddr const* address, unsigned length) {
    if (::bind(socket, address, length) == 0) return;
    ThrowSetUp("SockStream unable to bind", errno, {__FILE__, __LINE__, __func__});
}

void TCPStream::Listen(int backlog) {
    if (::listen(socket, backlog) == 0) return;
    ThrowSetUp("TCPStream failed to listen on socket", errno, {__FILE__, __LINE__, __func__});
}

TCPStream* TCPStream::Accept(sockaddr* address, unsigned* length) {
    auto accepted = std::make_unique<TCPStream>();
    unsigned const room = length ? *length : 0;
    int fd;
    while ((fd = ::accept4(socket, address, length, SOCK_NONBLOCK | SOCK_CLOEXEC)) < 0) {
        int const error = errno;
        if (!IsTransient(error)) ThrowSetUp("TCPStream accept on socket failed", error, {__FILE__, __LINE__, __func__});
        if (length) *length = room;
        if (error == EINTR) continue;
        pollfd listener{socket, POLLIN, 0};
        ::poll(&listener, 1, -1);
    }
    accepted->SetSocket(fd);
    return accepted.release();
}

TCPStream* TCPStream::AcceptRedir(sockaddr* address, unsigned* length) {
    TCPStream* const accepted = Accept(address, length);
    SetRedirection(accepted);
    return accepted;
}

void TCPStream::GetSockName(sockaddr* address, unsigned* length) {
    if (::getsockname(socket, address, length) == 0) return;
    ThrowSetUp("SockStream, Unable to getsockname", errno, {__FILE__, __LINE__, __func__});
}

// Its failure has the words of GetSockName, on which those who search the reports rely.
void TCPStream::GetPeerName(sockaddr* address, unsigned* length) {
    if (::getpeername(socket, address, length) == 0) return;
    ThrowSetUp("SockStream, Unable to getsockname", errno, {__FILE__, __LINE__, __func__});
}

int TCPStream::SetLinger(int onoff, int seconds) {
    linger const value{onoff, seconds};
    if (::setsockopt(socket, SOL_SOCKET, SO_LINGER, &value, sizeof value) == 0) return 0;
    return errno ? errno : -1;
}

int TCPStream::SetTransparency(TCPStream* other) { return SetRedirection(other); }

int TCPStream::SetSourceAddr(sockaddr_in* local, sockaddr_in* remote, sockaddr_in* source) {
    return SourceNat::SetSourceAddr(socket, local, remote, source);
}

int TCPStream::SetFTPRule(sockaddr_in* first, sockaddr_in* second, bool flag) {
    return SourceNat::SetFTPRule(socket, first, second, flag);
}

int TCPStream::GetConnectionInfo(sockaddr_in& peer, sockaddr_in& local, sockaddr_in& destination, bool& flag) {
    return ConnectionInfo(socket, &peer, &destination, &local, flag);
}

unsigned TCPStream::set_timeout(unsigned ms) {
    unsigned const previous = timeout;
    timeout = ms;
    return previous;
}

void TCPStream::set_default_timeout(unsigned ms) { s_timeout = ms; }
void TCPStream::set_pool(BufferPool* pool) { s_pool = pool; }
BufferPool* TCPStream::get_pool() { return s_pool; }
int TCPStream::get_file() { return socket; }

}  // namespace VELT
