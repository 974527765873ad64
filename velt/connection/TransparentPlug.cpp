// The session that nobody looks into: its client and its server are joined, and the rest is theirs.
#include <cxxabi.h>

#include <memory>
#include <utility>

#include <velt/connection/Connection.h>
#include <velt/connection/Plug.h>
#include <velt/runtime/Proxy.h>
#include <velt/streams/TCPStream.h>

namespace VELT {

namespace {

void Close(TCPConnection& end) { delete std::exchange(end.m_stream, nullptr); }

}  // namespace

void Connection::TransparentPlug() {
    if (ConnectUnseen()) {
        int const timeoutMs = static_cast<int>(Proxy::s_pProxyInstance->m_timeoutMs);
        Plug(*m_source.m_stream, *m_server.m_stream, timeoutMs).Run();
    }
    Close(m_source);
    Close(m_server);
}

// The client is to see its server or nobody: whatever fails here, memory too, is no report and no exception.
bool Connection::ConnectUnseen() {
    Close(m_server);
    if (!m_source.m_stream) return false;
    try {
        sockaddr_in server = m_server.m_address;
        sockaddr_in client = m_source.m_address;
        int const timeoutMs = static_cast<int>(Proxy::s_pProxyInstance->m_connectTimeoutMs);
        m_server.m_stream = std::make_unique<TCPStream>(&server, &client, nullptr, timeoutMs, true).release();
        return true;
    } catch (abi::__forced_unwind&) {  // the thread is being cancelled
        throw;
    } catch (...) {
        return false;
    }
}

}  // namespace VELT
