// SessionWorld: what a session needs round it in a unit test: a root of its own, a Proxy with its two network lists,
// buffers, and sockets on loopback. The verbs give connected streams and sessions made of them.
// Owner: the fixture. Thread: the test's. A test that changes the lists does so before it makes sessions.
#pragma once

#include <netinet/in.h>

#include <memory>
#include <string>
#include <string_view>

#include "testing/Sockets.h"
#include "testing/TempRoot.h"
#include "velt/connection/Connection.h"
#include "velt/runtime/Proxy.h"

namespace velt_testing {

sockaddr_in Address(char const* dotted, unsigned short port);

class SessionWorld {
public:
    SessionWorld();
    ~SessionWorld();

    TempRoot& root() { return m_root; }
    VELT::Proxy& proxy() { return *VELT::Proxy::s_pProxyInstance; }
    void Inside(std::string_view lines);   // loads inside.txt with this text
    void Outside(std::string_view lines);  // the same for outside.txt

    // Accepts `session` from a client whose source is `from`; the world keeps the client's end.
    void Accept(VELT::Connection& session, char const* from = "127.0.0.1", bool transparent = false);
    int client() const { return m_client; }            // the client's socket of the last Accept
    std::string ReadClient(std::size_t length) const;  // exactly so many bytes of what the session sent
    std::string ReadClientToEnd() const;               // all until the session closes

private:
    TempRoot m_root;
    Listener m_listener;
    int m_client = -1;
};

}  // namespace velt_testing
