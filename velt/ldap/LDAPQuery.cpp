#include <velt/ldap/LDAPQuery.h>

#include <QXlog/Names.h>

#include <velt/Config.h>
#include <velt/config_details/settings/network.h>
#include <velt/ldap/BorrowedConnection.h>
#include <velt/ldap/LDAPPrim.h>
#include <velt/ldap/LdapLibrary.h>
#include <velt/logging/Events.h>
#include <velt/logging/Log.h>

namespace VELT {

namespace {

using namespace QXlog::names;

constexpr unsigned short kTimeoutWithoutConfig = 100;  // seconds

void Report(QXlog::Event const& event, int error, std::string const& address, LDAPServer const* server,
            Connection const* connection) {
    if (!connection || error == LDAP_SUCCESS) return;
    LogEvent(event, [&] {
        return QXPROP_LDAP_ERROR_TEXT(LDAPPrim::ldap_error_text(error)) | QXPROP_LDAP_ERROR_NUMBER(error) |
               QXPROP_LDAP_EMAIL_ADDRESS(address) | QXPROP_LDAP_SERVER(server ? server->getServer() : std::string());
    });
}

}  // namespace

void LDAPQuery::initialise(Config* config) {
    if (!config) return LDAPPrim::initialise(true, kTimeoutWithoutConfig);
    LDAPPrim::initialise(ReadSetting<VELTCFG::network::LDAPCached>(*config),
                         ReadSetting<VELTCFG::network::LDAPQueryTimeout>(*config));
}

void LDAPQuery::start() { LDAPPrim::start(); }

int LDAPQuery::userlistinfo(std::string const& address, std::vector<std::string>& first,
                            std::vector<std::string>& second, Connection const* connection) {
    int const result = LDAPPrim::getUserBWlist(address, first, second);
    Report(events::DIRECTORY_UNREACHABLE, result, address, LDAPPrim::getBWServer(), connection);
    return result;
}

int LDAPQuery::groups(std::string const& address, std::vector<std::string>& groups, Connection const* connection) {
    std::vector<LDAPServer*> servers;
    LDAPPrim::getLDAPServers(servers);
    groups.clear();
    int result = LDAP_SUCCESS;
    for (LDAPServer* const server : servers) {
        BorrowedConnection borrowed(*server);
        if (!borrowed.get()) {
            result = borrowed.error();
            Report(events::DIRECTORY_UNREACHABLE, result, address, server, connection);
            continue;
        }
        result = borrowed.Done(borrowed.get()->query_email_address(address, groups));
        Report(events::DIRECTORY_QUERY_FAILED, result, address, server, connection);
    }
    return result;
}

}  // namespace VELT
