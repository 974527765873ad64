// echo: the smallest gateway. It says back each line that a client sends.
// Build it against Velt::velt; run it in the foreground with `echo -d NAME PRODUCT`. What it listens on, and who may
// connect, is said by the configuration of NAME and PRODUCT.
#include <velt/connection/Connection.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/TCPServiceLoop.h>
#include <velt/streams/TCPStream.h>

namespace {

// One session. The library makes it for a client that was accepted, calls Start on a thread of its own, and deletes it.
class EchoConnection : public VELT::Connection {
public:
    void Start() override {
        VELT::TCPStream& client = *getSourceConnection().m_stream;
        char* line = nullptr;
        while (ReadLine(client, line)) {
            if (client.PutLine(line, true) != 0) return;
        }
    }

private:
    // The line is the stream's, and good until the next read. False: the client has gone, or was silent for too long.
    static bool ReadLine(VELT::TCPStream& client, char*& line) {
        bool done = false;
        VELT::LINE_STATE_T state = VELT::LINE_CLOSED;
        int const length = client.getline(line, true, done, state, true);
        return length >= 0 && (state == VELT::LINE_COMPLETE || state == VELT::LINE_OVERFLOW);
    }
};

VELT::Connection* MakeEcho(bool /*transparent*/) { return new EchoConnection; }

}  // namespace

int main(int argc, char** argv) {
    VELT::TCPServiceLoop::RegisterConnectionFactory(&MakeEcho);
    new VELT::Proxy;  // the library's from now on
    return VELT::ProxyStart(argc, argv);
}
