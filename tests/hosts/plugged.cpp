// plugged: a gateway that looks into nothing: the client of an intercepted session gets the server that it meant.
#include <velt/connection/Connection.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/TCPServiceLoop.h>

namespace {

class Plugged : public VELT::Connection {
public:
    void Start() override { TransparentPlug(); }
};

VELT::Connection* MakePlugged(bool /*transparent*/) { return new Plugged; }

}  // namespace

int main(int argc, char** argv) {
    VELT::TCPServiceLoop::RegisterConnectionFactory(&MakePlugged);
    new VELT::Proxy;  // the library's from now on
    return VELT::ProxyStart(argc, argv);
}
