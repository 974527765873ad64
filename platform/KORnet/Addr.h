// Addresses, masks, mail addresses and dates of the network toolkit. Numbers are in host order.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include <Export.h>

namespace KORnet {
class IPAddr {
public:
    IPAddr();
    explicit IPAddr(std::uint32_t host_order);
    explicit IPAddr(std::string const&);
    bool isIPv4() const;
    std::uint32_t ipv4() const;
    std::string str() const;
    bool operator==(IPAddr const&) const;
};
class TCPAddr : public IPAddr {
public:
    TCPAddr(IPAddr const&, unsigned short port);
    unsigned short port() const;
};
class IPv4Mask {
public:
    IPv4Mask(std::uint32_t address, std::uint32_t mask);
    bool in_net(IPAddr const&) const;
    bool in_net(char const* first, char const* last) const;
    std::uint32_t address() const, mask() const;
};
class EmailAddr {
public:
    explicit EmailAddr(std::string const&);
    std::string asPlainString(bool lower_domain) const;
};
struct IPNode {
    static std::vector<IPAddr> byname(std::string const& host);
};
std::string rfc2822Date(std::time_t);
}  // namespace KORnet
