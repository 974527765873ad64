// NetCheckIPV4: the check of a NETWORK line: an address under a mask, which need not be contiguous.
// Owner: the NetPolicy that holds it. Threads: any, nothing changes after construction. Addresses and masks are in host
// order. Failure: a text that is no network matches nothing.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>

#include <velt/Export.h>
#include <velt/lookup/NetPolicy.h>

namespace VELT {

class VELT_API NetCheckIPV4 : public NetPolicyCheck {
public:
    NetCheckIPV4(std::uint32_t address, std::uint32_t netmask);

    int score(Connection* session, TCPConnection& end) override;  // the number of mask bits, or -1

    static bool matches(unsigned net, unsigned mask, Connection* session, TCPConnection& end);

    // A rule's text (address, address/count, address:netmask) against an address. The text's own address is taken as it
    // stands: one with bits outside its mask ("10.1.2.3/8") never matches, unlike in a file. Null: false.
    static bool matches(char const* text, sockaddr_in const* address);

    static std::unique_ptr<NetCheckIPV4> parse(char const* text);  // what follows "NETWORK "; null: no network
    static std::unique_ptr<NetCheckIPV4> parse(char const* text, LineRemark& remark);

    // Why a rule's text matches no address at all; null: it may match one.
    static char const* never_matches(char const* text);

private:
    std::uint32_t net;
    std::uint32_t mask;
    int bits;
};

}  // namespace VELT
