// A gateway that begins to watch its health before its ports are opened, so that a health answer lists them.
#include <velt/connection/Connection.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/ProxyHealth.h>
#include <velt/runtime/TCPServiceLoop.h>

namespace {

class SilentConnection : public VELT::Connection {
public:
    void Start() override {}
};

}  // namespace

int main(int argc, char** argv) {
    VELT::TCPServiceLoop::RegisterConnectionFactory([](bool) -> VELT::Connection* { return new SilentConnection; });
    VELT::ProxyHealth::init("early");
    new VELT::Proxy;  // the library's from now on
    return VELT::ProxyStart(argc, argv);
}
