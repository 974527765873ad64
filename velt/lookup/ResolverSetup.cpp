// What the resolver learns once, while the process starts.
#include <netdb.h>
#include <unistd.h>

#include <cstring>

#include <velt/Config.h>
#include <velt/config_details/settings/network.h>
#include <velt/lookup/Resolver.h>
#include <velt/runtime/Proxy.h>

namespace VELT {

namespace {

// The first address of a host of that name.
bool FirstAddress(char const* name, sockaddr_in& address) {
    hostent const* const host = ::gethostbyname(name);
    if (!host || host->h_addrtype != AF_INET || !host->h_addr_list[0]) return false;
    address = sockaddr_in{};
    address.sin_family = AF_INET;
    std::memcpy(&address.sin_addr, host->h_addr_list[0], sizeof address.sin_addr);
    return true;
}

}  // namespace

void Resolver::initialise(Config* config) {
    char name[256] = "";
    ::gethostname(name, sizeof name - 1);
    std::string shortName = name;
    std::string longName;
    sockaddr_in own;
    if (FirstAddress(name, own)) reverse_lookup(longName, &own);
    Proxy::SetHostInformation(shortName, longName);
    for (char const* always : {"127.0.0.1", "localhost", "0.0.0.0"}) s_excludedhosts.emplace_back(always);
    if (Proxy* const proxy = Proxy::s_pProxyInstance) {
        for (sockaddr_in* const address : proxy->m_interfaceAddresses) {
            reverse_lookup(longName, address);  // without a name: the one before, once more
            s_excludedhosts.push_back(longName);
        }
    }
    // Last, so that the look-ups above take place whatever it says.
    s_reverse_lookups_banned = ReadSetting<VELTCFG::network::ForbidReverseLookups>(*config);
}

}  // namespace VELT
