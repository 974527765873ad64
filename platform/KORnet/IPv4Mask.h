// IPv4Mask: an IPv4 network as address and mask. Value; threads: any. Numbers are in host order.
// The address is masked before it is compared, so 10.1.2.3 with 255.0.0.0 is the network 10.0.0.0/8.
#pragma once

#include <KORnet/IPAddr.h>

#include <cstdint>

#include <Export.h>

namespace KORnet {

class VELTPLATFORM_API IPv4Mask {
public:
    IPv4Mask(std::uint32_t address, std::uint32_t mask) : m_address(address), m_mask(mask) {}

    bool in_net(IPAddr const& address) const;                // false for what is not IPv4
    bool in_net(char const* first, char const* last) const;  // false for text that is no IPv4 address
    std::uint32_t address() const { return m_address; }
    std::uint32_t mask() const { return m_mask; }

private:
    std::uint32_t m_address;
    std::uint32_t m_mask;
};

}  // namespace KORnet
