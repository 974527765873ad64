#include "Announcement.h"

#include <pthread.h>

#include <QXlog/Names.h>
#include <velt/logging/Log.h>
#include <velt/scanning/RSMgr.h>

#include "ScannerdEvents.h"

namespace scannerd {
namespace {

std::vector<int>& Handles() {
    static std::vector<int>& handles = *new std::vector<int>;
    return handles;
}

void LetGo() {
    for (int& handle : Handles()) VELT::RSMgrFreeResource(handle);
    Handles().clear();
}

bool Tell(int& handle, sockaddr_in address, std::string name, unsigned scansAtOnce) {
    if (address.sin_addr.s_addr == htonl(INADDR_ANY)) address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return VELT::RSMgrSetupResource(handle, static_cast<int>(scansAtOnce), 0, 0, &address, name.data()) >= 0 &&
           VELT::RSMgrAvailable(handle) >= 0;
}

}  // namespace

void Announce(std::vector<sockaddr_in*> const& addresses, std::string const& name, unsigned scansAtOnce) {
    ::pthread_atfork(nullptr, nullptr, LetGo);
    for (sockaddr_in const* const address : addresses) {
        int handle = -1;
        if (!VELT::RSMgrResourceCtlHandle(handle)) return;  // there is no manager
        Handles().push_back(handle);
        bool const told = Tell(Handles().back(), *address, name, scansAtOnce);
        QXlog::Event const& event = told ? static_cast<QXlog::Event const&>(events::ANNOUNCED)
                                         : static_cast<QXlog::Event const&>(events::ANNOUNCEMENT_FAILED);
        VELT::LogEvent(event, [&] { return KORlog::InfoBag(names::PORT(ntohs(address->sin_port))); });
        if (!told) VELT::RSMgrFreeResource(Handles().back());
    }
}

}  // namespace scannerd
