#include <velt/lookup/NetCheckIPV4.h>

#include <arpa/inet.h>

#include <bit>
#include <cstdlib>
#include <cstring>
#include <string>

#include <velt/connection/TCPConnection.h>

namespace VELT {

namespace {

// A network as it is written, in host order, with its address not masked.
struct Network {
    std::uint32_t address;
    std::uint32_t mask;
};

bool ParseAddress(char const* text, std::uint32_t& address) {
    in_addr parsed;
    if (!::inet_aton(text, &parsed)) return false;
    address = ntohl(parsed.s_addr);
    return true;
}

// The top `count` bits. Counts go round after 32, and 0 is the empty mask; so is a text that is not a number.
std::uint32_t MaskOfCount(char const* text, LineRemark& remark) {
    char* end = nullptr;
    long const count = std::strtol(text, &end, 10);
    if (end == text)
        remark = {"the count of bits is no number, which counts as 0: every address", text};
    else if (count < 0 || count > 32)
        remark = {"the count of bits is not between 0 and 32: it goes round after 32", text};
    else if (*end != '\0' && static_cast<unsigned char>(*end) > ' ')
        remark = {"what follows the count of bits is not read", end};
    if (count == 0) return 0;
    return 0xFFFFFFFFu << ((32u - static_cast<unsigned>(count)) & 31u);
}

// address, address/count or address:netmask. With both signs the colon counts.
bool ParseNetwork(char const* text, Network& network, LineRemark& remark) {
    char const* const colon = std::strchr(text, ':');
    char const* const sign = colon ? colon : std::strchr(text, '/');
    network.mask = 0xFFFFFFFFu;
    if (colon && !ParseAddress(colon + 1, network.mask)) {
        remark = {"what follows the colon is no netmask", colon + 1};
        return false;
    }
    if (sign && !colon) network.mask = MaskOfCount(sign + 1, remark);
    if (ParseAddress(sign ? std::string(text, sign).c_str() : text, network.address)) return true;
    remark = {"is no address", text};
    return false;
}

std::uint32_t AddressOf(TCPConnection& end) { return ntohl(end.get_address()->sin_addr.s_addr); }

}  // namespace

NetCheckIPV4::NetCheckIPV4(std::uint32_t address, std::uint32_t netmask)
    : net(address & netmask), mask(netmask), bits(std::popcount(netmask)) {}

int NetCheckIPV4::score(Connection* session, TCPConnection& end) {
    return matches(net, mask, session, end) ? bits : -1;
}

bool NetCheckIPV4::matches(unsigned net, unsigned mask, Connection*, TCPConnection& end) {
    return (AddressOf(end) & mask) == net;
}

bool NetCheckIPV4::matches(char const* text, sockaddr_in const* address) {
    Network network;
    LineRemark unread;
    if (!address || !text || !ParseNetwork(text, network, unread)) return false;
    return (ntohl(address->sin_addr.s_addr) & network.mask) == network.address;
}

char const* NetCheckIPV4::never_matches(char const* text) {
    Network network;
    LineRemark remark;
    if (!ParseNetwork(text, network, remark)) return remark.reason;
    return (network.address & network.mask) == network.address ? nullptr : "the address has bits outside its mask";
}

std::unique_ptr<NetCheckIPV4> NetCheckIPV4::parse(char const* text) {
    LineRemark unread;
    return parse(text, unread);
}

std::unique_ptr<NetCheckIPV4> NetCheckIPV4::parse(char const* text, LineRemark& remark) {
    while (*text != '\0' && static_cast<unsigned char>(*text) < '!') ++text;
    if (*text == '*') return std::make_unique<NetCheckIPV4>(0, 0);
    Network network;
    if (!ParseNetwork(text, network, remark)) return nullptr;
    return std::make_unique<NetCheckIPV4>(network.address, network.mask);
}

}  // namespace VELT
