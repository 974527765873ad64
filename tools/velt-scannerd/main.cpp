// velt-scannerd: scans what gateways on this machine and on others send to it.
#include <velt/runtime/Proxy.h>
#include <velt/runtime/TCPServiceLoop.h>

#include "ScannerdEvents.h"
#include "ScannerdSession.h"

namespace {

VELT::Connection* MakeSession(bool) { return new scannerd::ScannerdSession; }

}  // namespace

int main(int argc, char** argv) {
    scannerd::events::RegisterTexts();
    VELT::TCPServiceLoop::RegisterConnectionFactory(MakeSession);
    new VELT::Proxy;
    return VELT::ProxyStart(argc, argv);
}
