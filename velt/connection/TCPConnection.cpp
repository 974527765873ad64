#include <velt/connection/TCPConnection.h>

#include <velt/lookup/Resolver.h>
#include <velt/streams/TCPStream.h>

namespace VELT {

TCPConnection::TCPConnection() : m_stream(nullptr), m_address(), m_port(0), m_flag(false) {}

TCPConnection::~TCPConnection() { delete m_stream; }

char const* TCPConnection::get_host() const {
    if (m_host.empty()) {
        sockaddr_in address = m_address;
        Resolver().reverse_lookup(m_host, &address);
    }
    return m_host.c_str();
}

}  // namespace VELT
