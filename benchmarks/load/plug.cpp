// plug: a gateway that looks into nothing: each session is joined to one server, which VELT_PLUG_TO names as
// "127.0.0.1:PORT" does. It costs what an intercepted session costs that is plugged, but for the client's address.
#include <arpa/inet.h>
#include <velt/connection/Connection.h>
#include <velt/connection/Plug.h>
#include <velt/errors/Failures.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/TCPServiceLoop.h>
#include <velt/streams/TCPStream.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

sockaddr_in s_server{};

class PlugConnection : public VELT::Connection {
public:
    void Start() override {
        VELT::Proxy const& proxy = *VELT::Proxy::s_pProxyInstance;
        VELT::TCPStream*& server = getServerConnection().m_stream;
        try {
            server = new VELT::TCPStream(&s_server, static_cast<int>(proxy.m_connectTimeoutMs), false);
        } catch (VELT::ConnectionFailure const&) {
            return;
        }
        VELT::Plug(*getSourceConnection().m_stream, *server, static_cast<int>(proxy.m_timeoutMs)).Run();
    }
};

VELT::Connection* MakePlug(bool /*transparent*/) { return new PlugConnection; }

bool ReadServer(char const* text) {
    std::string const target = text ? text : "";
    std::size_t const colon = target.find(':');
    if (colon == target.npos) return false;
    s_server.sin_family = AF_INET;
    s_server.sin_port = htons(static_cast<unsigned short>(std::atoi(target.c_str() + colon + 1)));
    return ::inet_pton(AF_INET, target.substr(0, colon).c_str(), &s_server.sin_addr) == 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (!ReadServer(std::getenv("VELT_PLUG_TO"))) {
        std::fputs("VELT_PLUG_TO=ADDRESS:PORT has to name the server\n", stderr);
        return 2;
    }
    VELT::TCPServiceLoop::RegisterConnectionFactory(&MakePlug);
    new VELT::Proxy;  // the library's from now on
    return VELT::ProxyStart(argc, argv);
}
