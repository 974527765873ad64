// LDAPPrim: the directory servers that the process knows, and the users' black and white lists on one of them.
// Owner: class-wide; the servers live as long as the process, and the files are read once. Threads: initialise at
// start-up, the rest on any thread. Failure: LDAP result codes, 0 for success and where no server for lists is
// configured. Files: /config/qxxmlconf/ldap.txt and bwserver.txt (docs/formats).
#pragma once

#include <string>
#include <vector>

#include <velt/Export.h>
#include <velt/ldap/LDAPServer.h>

namespace VELT {

class VELT_API LDAPPrim {
public:
    // cached: connections stay open between queries. query_timeout: seconds for a search.
    static void initialise(bool cached, unsigned short query_timeout);
    static void start() {}
    static void end() {}

    static LDAPServer* getBWServer() { return s_bw_server; }
    static void getLDAPServers(std::vector<LDAPServer*>& servers) { servers = s_ldap_servers; }
    static std::string ldap_error_text(int error);

    static int getUserList(std::vector<std::string>& users);
    static int addUser(std::string const& user, std::vector<std::string> const& first,
                       std::vector<std::string> const& second);
    static int delUser(std::string const& user);
    static int getUserBWlist(std::string const& user, std::vector<std::string>& first,
                             std::vector<std::string>& second);
    static int setUserBWlist(std::string const& user, std::vector<std::string> const& first,
                             std::vector<std::string> const& second);

    static bool s_cached;
    static unsigned short s_ldap_query_timeout;  // seconds
    static std::vector<LDAPServer*> s_ldap_servers;
    static std::vector<LDAPServer*> s_dropped_servers;  // the host of an earlier one; nobody asks them
    static LDAPServer* s_bw_server;
};

}  // namespace VELT
