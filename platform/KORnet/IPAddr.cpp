#include <KORnet/IPAddr.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace KORnet {
namespace {

IPAddr FromSocketAddress(sockaddr const& address) {
    if (address.sa_family == AF_INET)
        return IPAddr(ntohl(reinterpret_cast<sockaddr_in const&>(address).sin_addr.s_addr));
    if (address.sa_family != AF_INET6) return {};
    std::array<std::uint8_t, 16> bytes;
    std::memcpy(bytes.data(), &reinterpret_cast<sockaddr_in6 const&>(address).sin6_addr, bytes.size());
    return IPAddr(bytes);
}

}  // namespace

IPAddr::IPAddr(std::uint32_t host_order) : m_family(Family::IPv4) {
    std::uint32_t const wire = htonl(host_order);
    std::memcpy(m_bytes.data(), &wire, sizeof wire);
}

IPAddr::IPAddr(std::string const& text) {
    if (text.find('\0') != text.npos) return;
    std::array<std::uint8_t, 16> bytes{};
    if (::inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) {
        m_family = Family::IPv4;
    } else if (::inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) {
        m_family = Family::IPv6;
    } else {
        return;
    }
    m_bytes = bytes;
}

IPAddr::IPAddr(std::array<std::uint8_t, 16> const& address) : m_family(Family::IPv6), m_bytes(address) {}

std::uint32_t IPAddr::ipv4() const {
    if (!isIPv4()) return 0;
    std::uint32_t wire;
    std::memcpy(&wire, m_bytes.data(), sizeof wire);
    return ntohl(wire);
}

std::string IPAddr::str() const {
    if (m_family == Family::None) return {};
    char text[INET6_ADDRSTRLEN];
    return ::inet_ntop(isIPv4() ? AF_INET : AF_INET6, m_bytes.data(), text, sizeof text);
}

std::vector<IPAddr> IPNode::byname(std::string const& host) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (host.find('\0') != host.npos || ::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return {};
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> const owner(found, &::freeaddrinfo);
    std::vector<IPAddr> addresses;
    for (addrinfo const* at = found; at; at = at->ai_next) {
        IPAddr const address = FromSocketAddress(*at->ai_addr);
        if (std::find(addresses.begin(), addresses.end(), address) == addresses.end()) addresses.push_back(address);
    }
    return addresses;
}

}  // namespace KORnet
