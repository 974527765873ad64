#include "testing/SessionWorld.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <system_error>

#include "velt/streams/BufferPool.h"
#include "velt/streams/ScannerStream.h"
#include "velt/streams/TCPStream.h"

namespace velt_testing {

namespace {

int Checked(int result, char const* what) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), what);
    return result;
}

}  // namespace

sockaddr_in Address(char const* dotted, unsigned short port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (::inet_pton(AF_INET, dotted, &address.sin_addr) != 1) throw std::invalid_argument(dotted);
    return address;
}

SessionWorld::SessionWorld() {
    new VELT::Proxy;  // the instance; the destructor deletes it
    std::string spool = m_root / "scandir";
    VELT::ScannerStream::set_buffer_pool(0, 4096);
    VELT::ScannerStream::set_spool_dir(spool);
    static auto* const pool = new VELT::BufferPool(4096, 0);  // a stream may outlive its world
    VELT::TCPStream::set_pool(pool);
    VELT::TCPStream::set_default_timeout(10000);
    VELT::TCPStream::initialise(nullptr);
    Inside("NETWORK 127.0.0.0/8\n");
    Outside("");
}

SessionWorld::~SessionWorld() {
    if (m_client >= 0) ::close(m_client);
    delete VELT::Proxy::s_pProxyInstance;
}

void SessionWorld::Inside(std::string_view lines) {
    m_root.Write("inside.txt", lines);
    proxy().m_insidePolicy.load(m_root / "inside.txt");
}

void SessionWorld::Outside(std::string_view lines) {
    m_root.Write("outside.txt", lines);
    proxy().m_outsidePolicy.load(m_root / "outside.txt");
}

void SessionWorld::Accept(VELT::Connection& session, char const* from, bool transparent) {
    if (m_client >= 0) ::close(m_client);
    m_client = Checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    sockaddr_in source = Address(from, 0);
    Checked(::bind(m_client, reinterpret_cast<sockaddr*>(&source), sizeof source), "bind");
    sockaddr_in target = Address("127.0.0.1", m_listener.port());
    Checked(::connect(m_client, reinterpret_cast<sockaddr*>(&target), sizeof target), "connect");

    auto* const stream = new VELT::TCPStream(m_listener.Accept().release());
    sockaddr_in peer = {}, local = {}, destination = {};
    bool flag = false;
    Checked(stream->GetConnectionInfo(peer, local, destination, flag), "GetConnectionInfo");
    session.SetConnection(&proxy().m_config, stream, transparent, peer, destination, local);
}

std::string SessionWorld::ReadClient(std::size_t length) const {
    std::string text(length, '\0');
    for (std::size_t had = 0; had < length;) {
        ssize_t const n = ::recv(m_client, text.data() + had, length - had, 0);
        if (n <= 0) return text.substr(0, had);
        had += static_cast<std::size_t>(n);
    }
    return text;
}

std::string SessionWorld::ReadClientToEnd() const {
    std::string text;
    char block[4096];
    for (ssize_t n; (n = ::recv(m_client, block, sizeof block, 0)) > 0;)
        text.append(block, static_cast<std::size_t>(n));
    return text;
}

}  // namespace velt_testing
