#include "testing/FakeNameServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <resolv.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace velt_testing {

namespace {

constexpr std::size_t kDatagramLimit = 512;
constexpr unsigned kTruncated = 0x8380;

sockaddr_in Loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

int Bound(int type, std::uint16_t& port) {
    int const fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(port);
    socklen_t length = sizeof address;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
        ::close(fd);
        return -1;
    }
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return fd;
}

void PointResolverTo(std::uint16_t port) {
    res_init();
    _res.nscount = 1;
    _res.nsaddr_list[0] = Loopback(port);
    _res.retrans = 1;
    _res.retry = 1;
    _res.options &= ~static_cast<unsigned long>(RES_DNSRCH | RES_DEFNAMES);
}

bool ReceiveAll(int fd, char* data, std::size_t length) {
    for (std::size_t got = 0; got < length;) {
        ssize_t const count = ::recv(fd, data + got, length - got, 0);
        if (count <= 0) return false;
        got += static_cast<std::size_t>(count);
    }
    return true;
}

// The question of a query, as text and as it stands.
std::size_t ReadQuestion(std::string const& query, FakeNameServer::Query& question) {
    std::size_t at = DnsBytes::header_size;
    while (at < query.size() && query[at] != 0) {
        auto const length = static_cast<std::size_t>(query[at]);
        if (!question.name.empty()) question.name += '.';
        question.name += query.substr(at + 1, length);
        at += length + 1;
    }
    if (at + 5 > query.size()) return 0;
    question.type = static_cast<unsigned char>(query[at + 2]);
    return at + 1 - DnsBytes::header_size;
}

}  // namespace

FakeNameServer::FakeNameServer(Answer answer) : m_answer(std::move(answer)) {
    for (int attempt = 0; attempt < 100 && m_tcp < 0; ++attempt) {
        if (m_udp >= 0) ::close(m_udp);
        m_port = 0;
        m_udp = Bound(SOCK_DGRAM, m_port);
        m_tcp = Bound(SOCK_STREAM, m_port);
    }
    if (m_tcp < 0 || ::listen(m_tcp, 8) != 0 || ::pipe(m_stop) != 0) throw std::runtime_error("no port");
    m_thread = std::thread([this] { Serve(); });
}

FakeNameServer::~FakeNameServer() {
    ::close(m_stop[1]);
    m_thread.join();
    for (int fd : {m_udp, m_tcp, m_stop[0]}) ::close(fd);
}

void FakeNameServer::Use() const { PointResolverTo(m_port); }

void FakeNameServer::UseNone() {
    std::uint16_t port = 0;
    ::close(Bound(SOCK_DGRAM, port));
    PointResolverTo(port);
}

void FakeNameServer::Serve() {
    for (;;) {
        pollfd ready[] = {{m_stop[0], POLLIN, 0}, {m_udp, POLLIN, 0}, {m_tcp, POLLIN, 0}};
        if (::poll(ready, 3, -1) < 0) continue;
        if (ready[0].revents) return;
        if (ready[1].revents) ServeDatagram();
        if (ready[2].revents) ServeConnection();
    }
}

void FakeNameServer::ServeDatagram() {
    char query[2048];
    sockaddr_in from{};
    socklen_t length = sizeof from;
    ssize_t const got = ::recvfrom(m_udp, query, sizeof query, 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (got <= 0) return;
    std::string const answer = AnswerTo(std::string(query, static_cast<std::size_t>(got)), kDatagramLimit);
    if (answer.empty()) return;
    ::sendto(m_udp, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&from), length);
}

void FakeNameServer::ServeConnection() {
    int const fd = ::accept4(m_tcp, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    char length[2];
    if (ReceiveAll(fd, length, 2)) {
        std::string query(static_cast<unsigned char>(length[0]) * 256u + static_cast<unsigned char>(length[1]), '\0');
        if (ReceiveAll(fd, query.data(), query.size())) {
            std::string const answer = AnswerTo(query, SIZE_MAX);
            std::string const framed = Dns16(static_cast<unsigned>(answer.size())) + answer;
            ::send(fd, framed.data(), framed.size(), MSG_NOSIGNAL);
        }
    }
    ::close(fd);
}

std::string FakeNameServer::AnswerTo(std::string const& query, std::size_t limit) {
    Query question{"", 0, m_count + 1};
    std::size_t const name = ReadQuestion(query, question);
    if (name == 0) return "";
    auto const id =
        static_cast<std::uint16_t>(static_cast<unsigned char>(query[0]) << 8 | static_cast<unsigned char>(query[1]));
    std::string const packed = query.substr(DnsBytes::header_size, name);
    DnsBytes answer(id);
    answer.Question(packed, question.type);
    if (!m_answer(question, answer)) return "";
    std::string const bytes = answer.str();
    if (bytes.size() > limit) return DnsBytes(id, kTruncated).Question(packed, question.type).str();
    ++m_count;
    return bytes;
}

}  // namespace velt_testing
