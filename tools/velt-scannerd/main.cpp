// velt-scannerd: scans what gateways on this machine and on others send to it.
#include <velt/logging/Log.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/TCPServiceLoop.h>
#include <velt/scanning/ScannerConn.h>
#include <velt/streams/SpoolSweep.h>

#include "Announcement.h"
#include "ScannerdEvents.h"
#include "ScannerdSession.h"
#include "ScannerdSettings.h"

namespace {

class ScannerdProxy : public VELT::Proxy {
public:
    int ProxyInit() override {
        bool const wanted = VELT::ReadSetting<VELTCFG::scannerd::Announce>(m_config);
        if (wanted) Announce();
        unsigned long const stale = VELT::RemoveStaleSpool(m_scanDir);
        if (stale) {
            VELT::LogEvent(scannerd::events::SPOOL_SWEPT,
                           [&] { return KORlog::InfoBag(scannerd::names::ITEMS(stale)); });
        }
        return 0;
    }

private:
    // One connection is left to whoever looks if the daemon is well: all at work, it would be taken for dead.
    void Announce() {
        unsigned const connections = m_acceptCount * m_maxConnections;
        scannerd::Facts facts{{}, m_proxyName, connections > 1 ? connections - 1 : connections};
        for (sockaddr_in const* const address : GetSvcBindings()) facts.addresses.push_back(*address);
        scannerd::Announce(
            facts, [this] { m_serviceLoop->StopServices(); }, [this] { SetUidAndGid(); });
    }
};

VELT::Connection* MakeSession(bool) { return new scannerd::ScannerdSession; }

}  // namespace

int main(int argc, char** argv) {
    scannerd::events::RegisterTexts();
    VELT::TCPServiceLoop::RegisterConnectionFactory(MakeSession);
    VELT::ScannerConn::disable_ls();  // its own engines scan, also where a manager offers others
    new ScannerdProxy;
    return VELT::ProxyStart(argc, argv);
}
