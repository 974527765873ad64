// Connections to a directory server: made, lent, taken back.
#include <cerrno>
#include <memory>

#include <velt/ldap/LDAPPrim.h>
#include <velt/ldap/LDAPServer.h>
#include <velt/ldap/LdapLibrary.h>

namespace VELT {

namespace {

constexpr int kMostEntries = 100000;
constexpr int kGraceSeconds = 5;

// For the connect of TCP and for the handshake of TLS, each.
int LimitNetwork([[maybe_unused]] ldap* handle) {
#ifdef VELT_LDAP_NETWORK_TIMEOUT
    constexpr timeval kNetworkLimit{60, 0};
    return ::ldap_set_option(handle, LDAP_OPT_NETWORK_TIMEOUT, &kNetworkLimit);
#else
    return LDAP_SUCCESS;
#endif
}

}  // namespace

int LDAPServer::LongestWait() { return LDAPPrim::s_ldap_query_timeout + kGraceSeconds; }

// On such a connection the library would begin anew by itself: without StartTLS, and without the bind.
bool LDAPServer::IsGone(int error) { return error == LDAP_SERVER_DOWN || error == LDAP_TIMEOUT; }

LDAPServer::~LDAPServer() {
    for (LDAPConnection* const one : connections) {
        ::ldap_unbind(one->m_ldap);
        delete one;
    }
}

ldap* LDAPServer::create_ldap_connection(int& error) const {
    ldap* const handle = ::ldap_init(server.c_str(), port);
    if (!handle) {
        error = errno == ENOMEM ? LDAP_NO_MEMORY : LDAP_LOCAL_ERROR;
        return nullptr;
    }
    error = Open(handle);
    if (error == LDAP_SUCCESS) return handle;
    ::ldap_unbind_s(handle);
    return nullptr;
}

int LDAPServer::Open(ldap* handle) const {
    int const version = LDAP_VERSION3;
    timeval const answer{LongestWait(), 0};
    int result = ::ldap_set_option(handle, LDAP_OPT_PROTOCOL_VERSION, &version);
    if (result == LDAP_SUCCESS) result = ::ldap_set_option(handle, LDAP_OPT_SIZELIMIT, &kMostEntries);
    if (result == LDAP_SUCCESS) result = ::ldap_set_option(handle, LDAP_OPT_TIMEOUT, &answer);
    if (result == LDAP_SUCCESS) result = LimitNetwork(handle);
    if (result == LDAP_SUCCESS && secure) result = ::ldap_start_tls_s(handle, nullptr, nullptr);
    if (result == LDAP_SUCCESS)
        result = ::ldap_set_option(handle, LDAP_OPT_REFERRALS, referrals ? LDAP_OPT_ON : LDAP_OPT_OFF);
    if (result == LDAP_SUCCESS && !user_name.empty())
        result = ::ldap_simple_bind_s(handle, user_name.c_str(), password.c_str());
    return result;
}

LDAPConnection* LDAPServer::TakeIdle() {
    lock.Acquire();
    LDAPConnection* const first = connections.empty() ? nullptr : connections.front();
    if (first) connections.pop_front();
    lock.Release();
    return first;
}

LDAPConnection* LDAPServer::connect(int& error) {
    error = LDAP_SUCCESS;
    if (LDAPConnection* const idle = TakeIdle()) {
        idle->reused = true;
        idle->failed = false;
        return idle;
    }
    ldap* const handle = create_ldap_connection(error);
    if (!handle) return nullptr;
    auto* const connection = new (std::nothrow) LDAPConnection(handle, this);
    if (connection) return connection;
    ::ldap_unbind(handle);
    error = LDAP_NO_MEMORY;
    return nullptr;
}

// The queue has no bound: it holds as many as were in use at once. Nobody looks whether those that wait are alive.
void LDAPServer::release(LDAPConnection* connection) {
    if (!connection) return;
    if (!connection->failed && connection->m_ldap && LDAPPrim::s_cached) {
        lock.Acquire();
        connections.push_back(connection);
        lock.Release();
        return;
    }
    if (connection->m_ldap) ::ldap_unbind(connection->m_ldap);
    delete connection;
}

// In the place of a connection that the server closed while it waited.
int LDAPServer::Reopen(LDAPConnection& connection) const {
    if (connection.m_ldap) ::ldap_unbind(connection.m_ldap);
    int error = LDAP_SUCCESS;
    connection.m_ldap = create_ldap_connection(error);
    connection.reused = false;
    return error;
}

}  // namespace VELT
