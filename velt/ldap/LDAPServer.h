// LDAPServer: one directory server with its templates and its idle connections; LDAPConnection: one open connection,
// borrowed by connect and given back by release.
// Owner: LDAPPrim, for the process's life. Threads: the setters run at start-up; everything else on any thread, and a
// borrowed connection belongs to the thread that has it. The lock guards the idle connections and is never held across
// a call of the network. Failure: LDAP result codes (RFC 4511, section 4.1.9, and ldap_result(3)); nothing throws but
// for memory. A search blocks until the server has answered, at most LDAPQueryTimeout seconds and a grace of five, and
// so does each other request (StartTLS, bind, a change); the connect of TCP has no limit but the system's unless the
// build sets one (VELT_LDAP_NETWORK_TIMEOUT).
#pragma once

#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <velt/Export.h>
#include <velt/ldap/LDAPDomainQuery.h>
#include <velt/ldap/LineFate.h>
#include <velt/lookup/LineRemark.h>
#include <velt/runtime/Lock.h>

struct ldap;
struct ldapmsg;
struct ldapmod;

namespace VELT {

class LDAPServer;

// What a search found under one name, of all entries together.
struct VELT_API LDAPAttribute {
    std::string name;
    std::vector<std::string> values;
};

class VELT_API LDAPConnection {
public:
    LDAPConnection(ldap* handle, LDAPServer* server) : m_ldap(handle), m_server(server) {}

    int query_email_address(std::string const& address, std::vector<std::string>& groups);  // empty: 0, nobody is asked
    int query_groups(std::vector<LDAPGroup>& groups);

    bool failed = false;  // not to be used again
    bool reused = false;  // it has waited for this use, and the server may have closed it meanwhile
    ldap* m_ldap;         // null: could not be opened again
    LDAPServer* m_server;
};

// One row of the table of keys in ldap.txt.
struct VELT_API LDAPConfig {
    bool (LDAPServer::*set)(char const* value) = nullptr;
    char const* (*number)(char const* value) = nullptr;  // where the value's number stands; null: it has none
};

class VELT_API LDAPServer {
public:
    LDAPServer() = default;
    ~LDAPServer();
    LDAPServer(LDAPServer const&) = delete;
    LDAPServer& operator=(LDAPServer const&) = delete;

    // "key value"; a line without a blank and one with an unknown key are dropped.
    LineFate setAttribute(char const* line);
    static LineRemark RemarkOnNumber(char const* line);  // on one that means other than it says; for tools

    // The values of the keys, see docs/formats/ldap-txt.md. True but where said otherwise.
    bool setUserName(char const* value);
    bool setPassword(char const* value);
    bool setServer(char const* value);
    bool setServerType(char const* value);
    bool setUserQuery(char const* value);
    bool setGroupQuery(char const* value);
    bool setBase(char const* value);
    bool setSecure(char const* value);
    bool setTimeout(char const* value);
    bool setBWObjectClass(char const* value);  // false without a colon, and nothing is changed
    bool setBWBaseDnFormat(char const* value);
    bool setConnectTimeout(char const* value);
    bool setReferrals(char const* value);

    std::string const& getServer() const { return server; }
    std::string& getServer() { return server; }

    LDAPConnection* connect(int& error);  // null: `error` tells why
    void release(LDAPConnection* connection);

    static std::string build_query_string(char const* format, std::string const& value);  // raw: see Escape.h
    // Clears `result`, and asks once more on a fresh connection where one that had waited fails. -1 without connection.
    int query(LDAPConnection* connection, char const* filter, char** attributes, std::vector<LDAPAttribute>& result);
    int ldap_search(LDAPConnection* connection, char const* filter, char** attributes,
                    std::vector<LDAPAttribute>& result);  // appends; 0 without connection

    int query_users(LDAPConnection* connection, std::vector<std::string>& users);
    int query_email_address(LDAPConnection* connection, std::string const& address, std::vector<std::string>& groups);
    int query_groups(LDAPConnection* connection, std::vector<LDAPGroup>& groups);
    int query_blackwhitelist(LDAPConnection* connection, std::string const& user, std::vector<std::string>& first,
                             std::vector<std::string>& second);
    // `op` is ldap_add_s or ldap_modify_s.
    int mod_user(int (*op)(ldap*, char const*, ldapmod**), LDAPConnection* connection, std::string const& user,
                 std::vector<std::string> const& first, std::vector<std::string> const& second);
    int del_user(LDAPConnection* connection, std::string const& user);

    void save_entry(ldap* handle, ldapmsg* entry, std::vector<LDAPAttribute>& result, char** requested);
    static void parse_dn(char* name);  // `#` and hexadecimal digits become their byte, in place
    static void save_attribute(std::vector<LDAPAttribute>& result, std::string const& name, std::string const& value);
    void save_with_server(LDAPAttribute const& attribute, std::vector<std::string>& out) const;
    void append_bw_list(std::vector<LDAPAttribute>& attributes, std::vector<std::string> const& first,
                        std::vector<std::string> const& second) const;
    static int ldap_db_work(int (*op)(ldap*, char const*, ldapmod**), LDAPConnection* connection,
                            std::string const& name, std::vector<LDAPAttribute> const& attributes);
    static void copy_list(std::vector<std::string> const& values, std::vector<std::string>& list);  // without "-"

private:
    struct TextLess {
        bool operator()(char const* left, char const* right) const { return std::strcmp(left, right) < 0; }
    };
    struct LDAPConfigInit {
        LDAPConfigInit(char const* key, bool (LDAPServer::*set)(char const*),
                       char const* (*number)(char const*) = nullptr) {
            s_ConfigMap[key] = {set, number};
        }
    };
    static std::map<char const*, LDAPConfig, TextLess> s_ConfigMap;
    static LDAPConfig const* ConfigOf(char const* line);  // null: no such key
    static LDAPConfigInit const s_configInits[];

    ldap* create_ldap_connection(int& error) const;
    int Open(ldap* handle) const;
    LDAPConnection* TakeIdle();
    int Reopen(LDAPConnection& connection) const;
    static int LongestWait();       // seconds for an answer: the limit, and a grace for a server that keeps it itself
    static bool IsGone(int error);  // the connection has ended, or its server answers nothing
    std::string AttributeOfUser() const;

    Lock lock;
    std::deque<LDAPConnection*> connections;  // idle; the first has waited longest
    std::uint16_t connect_timeout = 0;        // seconds; stored only
    std::uint16_t timeout = 0;                // seconds; stored only
    std::uint16_t port = 389;
    LDAPGroupQuery group_query;
    LDAPDomainQuery email_query;  // the second step of a look-up
    LDAPDomainQuery user_query;
    std::string bw_object_class_attribute;
    std::string bw_object_class_value;
    std::string bw_base_dn_format;
    std::string server;
    std::string base;
    std::string user_name;  // empty: no bind
    std::string password;
    std::string server_type;
    bool secure = false;  // StartTLS
    bool referrals = true;
};

}  // namespace VELT
