// Addresses and networks as a NETWORK line and a rule write them, against a plain reading of the same text.
#include <arpa/inet.h>

#include <cstdlib>
#include <string>

#include <velt/connection/TCPConnection.h>
#include <velt/lookup/NetCheckIPV4.h>

#include "fuzz/Input.h"

using VELT::NetCheckIPV4;
using velt_fuzz::Require;

namespace {

struct Network {
    bool good = false;
    std::uint32_t address = 0;
    std::uint32_t mask = 0xFFFFFFFFu;
    int bits() const {
        int count = 0;
        for (int bit = 0; bit < 32; ++bit) count += mask >> bit & 1;
        return count;
    }
};

bool Address(std::string const& text, std::uint32_t& address) {
    in_addr parsed{};
    if (!::inet_aton(text.c_str(), &parsed)) return false;
    address = ntohl(parsed.s_addr);
    return true;
}

// One leading bit after the other; after 32 of them it begins anew, and none at all is everybody.
std::uint32_t LeadingBits(long count) {
    if (count == 0) return 0;
    std::uint32_t mask = 0;
    long const rest = ((count % 32) + 32) % 32;
    for (long i = 0; i < (rest == 0 ? 32 : rest); ++i) mask |= 0x80000000u >> i;
    return mask;
}

Network Read(std::string const& text) {
    Network network;
    std::size_t const colon = text.find(':');
    std::size_t const slash = text.find('/');
    if (colon != text.npos)
        network.good = Address(text.substr(0, colon), network.address) && Address(text.substr(colon + 1), network.mask);
    else
        network.good = Address(text.substr(0, slash), network.address);
    if (colon == text.npos && slash != text.npos)
        network.mask = LeadingBits(std::strtol(text.c_str() + slash + 1, nullptr, 10));
    return network;
}

// What a line skips in front of a network.
std::string Unindented(std::string const& text) {
    std::size_t at = 0;
    while (at < text.size() && static_cast<unsigned char>(text[at]) < '!') ++at;
    return text.substr(at);
}

void CheckLine(std::string const& text, VELT::TCPConnection& end) {
    std::string const rest = Unindented(text);
    bool const everything = !rest.empty() && rest.front() == '*';
    Network network = everything ? Network{true, 0, 0} : Read(rest);
    auto const check = NetCheckIPV4::parse(text.c_str());
    Require((check != nullptr) == network.good, "a network or none");
    if (!check) return;
    std::uint32_t const client = ntohl(end.m_address.sin_addr.s_addr);
    bool const inside = (client & network.mask) == (network.address & network.mask);
    Require(check->score(nullptr, end) == (inside ? network.bits() : -1), "the bits of the mask, or no match");
}

void CheckRule(std::string const& text, sockaddr_in const& address) {
    Network const network = Read(text);
    bool const inside = (ntohl(address.sin_addr.s_addr) & network.mask) == network.address;
    Require(NetCheckIPV4::matches(text.c_str(), &address) == (network.good && inside), "a rule's own address is whole");
    Require(!NetCheckIPV4::matches(text.c_str(), nullptr), "nobody matches nothing");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    velt_fuzz::Input input(data, size);
    std::string const client = input.Line();
    std::string const text(input.Rest().c_str());
    VELT::TCPConnection end;
    ::inet_aton(client.c_str(), &end.m_address.sin_addr);
    std::uint32_t const address = end.m_address.sin_addr.s_addr;
    for (std::uint32_t flipped : {0u, 1u, 0x100u, 0x80000000u}) {  // the neighbours, too
        end.m_address.sin_addr.s_addr = address ^ htonl(flipped);
        CheckLine(text, end);
        CheckRule(text, end.m_address);
    }
    return 0;
}
