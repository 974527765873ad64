#include <KORnet/IPv4Mask.h>

#include <string>

namespace KORnet {

bool IPv4Mask::in_net(IPAddr const& address) const {
    return address.isIPv4() && (address.ipv4() & m_mask) == (m_address & m_mask);
}

bool IPv4Mask::in_net(char const* first, char const* last) const { return in_net(IPAddr(std::string(first, last))); }

}  // namespace KORnet
