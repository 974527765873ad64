// IPAddr, TCPAddr: an internet address as a value, and one with a port. IPNode: the addresses of a name.
// Owner: values. Threads: any. Units: addresses and ports as numbers are in host order.
// Failure: text that is no address gives the unset address: neither IPv4 nor IPv6, its text empty.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <Export.h>

namespace KORnet {

class VELTPLATFORM_API IPAddr {
public:
    IPAddr() = default;  // unset
    explicit IPAddr(std::uint32_t host_order);
    explicit IPAddr(std::string const& text);                      // "192.0.2.1" or "2001:db8::1"
    explicit IPAddr(std::array<std::uint8_t, 16> const& address);  // IPv6, in network order

    bool isIPv4() const { return m_family == Family::IPv4; }
    bool isIPv6() const { return m_family == Family::IPv6; }
    std::uint32_t ipv4() const;  // 0 when not IPv4
    std::string str() const;     // the usual text form
    bool operator==(IPAddr const&) const = default;

private:
    enum class Family : std::uint8_t { None, IPv4, IPv6 };
    Family m_family = Family::None;
    std::array<std::uint8_t, 16> m_bytes{};  // network order; an IPv4 address in the first four
};

class VELTPLATFORM_API TCPAddr : public IPAddr {
public:
    TCPAddr(IPAddr const& address, unsigned short port) : IPAddr(address), m_port(port) {}
    unsigned short port() const { return m_port; }
    bool operator==(TCPAddr const&) const = default;

private:
    unsigned short m_port;
};

struct VELTPLATFORM_API IPNode {
    // Each address of the host once, in the resolver's order. Blocks on the system's resolver; empty when it has none.
    static std::vector<IPAddr> byname(std::string const& host);
};

}  // namespace KORnet
