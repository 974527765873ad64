// once: a gateway whose session says one line back and ends, which is what the bare loop of `velt_load serve` does.
#include <velt/connection/Connection.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/TCPServiceLoop.h>
#include <velt/streams/TCPStream.h>

namespace {

class OnceConnection : public VELT::Connection {
public:
    void Start() override {
        VELT::TCPStream& client = *getSourceConnection().m_stream;
        char* line = nullptr;
        bool done = false;
        VELT::LINE_STATE_T state = VELT::LINE_CLOSED;
        if (client.getline(line, true, done, state, true) >= 0 && state == VELT::LINE_COMPLETE) {
            client.PutLine(line, true);
        }
    }
};

VELT::Connection* MakeOnce(bool /*transparent*/) { return new OnceConnection; }

}  // namespace

int main(int argc, char** argv) {
    VELT::TCPServiceLoop::RegisterConnectionFactory(&MakeOnce);
    new VELT::Proxy;  // the library's from now on
    return VELT::ProxyStart(argc, argv);
}
