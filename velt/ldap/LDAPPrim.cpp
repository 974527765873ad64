#include <velt/ldap/LDAPPrim.h>

#include <system/SystemPath.h>

#include <memory>
#include <utility>

#include <velt/ldap/BorrowedConnection.h>
#include <velt/ldap/LdapLibrary.h>
#include <velt/ldap/ServerFile.h>

namespace VELT {

namespace {

// Of two with the same host the later goes, and its templates with it. It is not deleted: somebody may have it.
void DropSameHosts(std::vector<LDAPServer*>& servers) {
    for (std::size_t first = 0, later = 0; FindSameHost(servers, first, later);) {
        LDAPPrim::s_dropped_servers.push_back(servers[later]);
        servers.erase(servers.begin() + static_cast<std::ptrdiff_t>(later));
    }
}

void ReadDirectoryServers() {
    std::vector<std::unique_ptr<LDAPServer>> read;
    ReadServerFile(SystemPath("/config/qxxmlconf/ldap.txt"), ServerFileKind::Directory, read);
    for (auto& one : read) LDAPPrim::s_ldap_servers.push_back(one.release());
    DropSameHosts(LDAPPrim::s_ldap_servers);
}

void ReadListsServer() {
    std::vector<std::unique_ptr<LDAPServer>> read;
    if (LDAPPrim::s_bw_server) read.emplace_back(std::exchange(LDAPPrim::s_bw_server, nullptr));
    ReadServerFile(SystemPath("/config/qxxmlconf/bwserver.txt"), ServerFileKind::Lists, read);
    if (!read.empty()) LDAPPrim::s_bw_server = read.front().release();
}

// The directory library sets itself up at its first call, which several threads must not make at once.
void SetUpLibrary() {
    int version = 0;
    ::ldap_get_option(nullptr, LDAP_OPT_PROTOCOL_VERSION, &version);
}

template <class Work>
int OnBWServer(Work work) {
    LDAPServer* const server = LDAPPrim::s_bw_server;
    if (!server) return LDAP_SUCCESS;
    BorrowedConnection connection(*server);
    return connection.get() ? connection.Done(work(*server, connection.get())) : connection.error();
}

}  // namespace

bool LDAPPrim::s_cached = true;
unsigned short LDAPPrim::s_ldap_query_timeout = 100;
std::vector<LDAPServer*> LDAPPrim::s_ldap_servers;
std::vector<LDAPServer*> LDAPPrim::s_dropped_servers;
LDAPServer* LDAPPrim::s_bw_server = nullptr;

void LDAPPrim::initialise(bool cached, unsigned short query_timeout) {
    s_cached = cached;
    s_ldap_query_timeout = query_timeout;
    ReadDirectoryServers();
    ReadListsServer();
    if (!s_ldap_servers.empty() || s_bw_server) SetUpLibrary();
}

std::string LDAPPrim::ldap_error_text(int error) {
    static Lock lock;  // the library's call may not be made by two at once
    lock.Acquire();
    std::string text = ::ldap_err2string(error);
    lock.Release();
    return text;
}

int LDAPPrim::getUserList(std::vector<std::string>& users) {
    return OnBWServer(
        [&](LDAPServer& server, LDAPConnection* connection) { return server.query_users(connection, users); });
}

int LDAPPrim::addUser(std::string const& user, std::vector<std::string> const& first,
                      std::vector<std::string> const& second) {
    return OnBWServer([&](LDAPServer& server, LDAPConnection* connection) {
        return server.mod_user(::ldap_add_s, connection, user, first, second);
    });
}

int LDAPPrim::delUser(std::string const& user) {
    return OnBWServer(
        [&](LDAPServer& server, LDAPConnection* connection) { return server.del_user(connection, user); });
}

int LDAPPrim::getUserBWlist(std::string const& user, std::vector<std::string>& first,
                            std::vector<std::string>& second) {
    return OnBWServer([&](LDAPServer& server, LDAPConnection* connection) {
        return server.query_blackwhitelist(connection, user, first, second);
    });
}

int LDAPPrim::setUserBWlist(std::string const& user, std::vector<std::string> const& first,
                            std::vector<std::string> const& second) {
    return OnBWServer([&](LDAPServer& server, LDAPConnection* connection) {
        return server.mod_user(::ldap_modify_s, connection, user, first, second);
    });
}

}  // namespace VELT
