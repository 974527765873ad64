// What a directory server is asked for: the groups of an address, all groups, users and their lists.
#include <velt/ldap/Escape.h>
#include <velt/ldap/LDAPServer.h>
#include <velt/ldap/LdapLibrary.h>

namespace VELT {

namespace {

constexpr char kEmptyList[] = "-";  // an attribute of a directory cannot be empty

char const* FirstTwo(LDAPDomainQuery const& query, char const*& second) {
    char** const names = query.getAttributes();
    if (!query.isSet() || !names || !names[0] || !names[1]) return nullptr;
    second = names[1];
    return names[0];
}

}  // namespace

std::string LDAPServer::build_query_string(char const* format, std::string const& value) {
    std::string text;
    for (; format && *format; ++format) {
        if (*format == '?')
            text += value;
        else
            text.push_back(*format);
    }
    return text;
}

int LDAPConnection::query_email_address(std::string const& address, std::vector<std::string>& groups) {
    return address.empty() ? LDAP_SUCCESS : m_server->query_email_address(this, address, groups);
}

int LDAPConnection::query_groups(std::vector<LDAPGroup>& groups) {
    int const result = m_server->query_groups(this, groups);
    if (result != LDAP_SUCCESS) failed = true;
    return result;
}

// The result is that of the last query. Where the first of two steps fails there is no second.
int LDAPServer::query_email_address(LDAPConnection* connection, std::string const& address,
                                    std::vector<std::string>& groups) {
    groups.clear();
    std::vector<LDAPAttribute> found;
    std::string filter = build_query_string(user_query.getQuery(), escape_filter(address));
    int result = query(connection, filter.c_str(), user_query.getAttributes(), found);
    if (!email_query.isSet()) {
        for (LDAPAttribute const& one : found) save_with_server(one, groups);
        return result;
    }
    if (result != LDAP_SUCCESS) return result;
    std::vector<LDAPAttribute> step;
    for (LDAPAttribute const& one : found) {
        for (std::string const& value : one.values) {
            filter = build_query_string(email_query.getQuery(), escape_filter(value));
            result = query(connection, filter.c_str(), email_query.getAttributes(), step);
            for (LDAPAttribute const& group : step) save_with_server(group, groups);
            if (IsGone(result) || result == LDAP_TIMELIMIT_EXCEEDED) return result;
        }
    }
    return result;
}

int LDAPServer::query_groups(LDAPConnection* connection, std::vector<LDAPGroup>& groups) {
    int result = LDAP_SUCCESS;
    std::vector<LDAPAttribute> found;
    if (group_query.isSet()) result = query(connection, group_query.getQuery(), group_query.getAttributes(), found);
    if (found.size() == 1 || (found.size() == 2 && found[0].values.size() == found[1].values.size())) {
        std::vector<std::string> const& names = found.front().values;
        std::vector<std::string> const& ids = found.back().values;
        for (std::size_t i = 0; i < names.size(); ++i)
            groups.push_back({server + "." + names[i], server + "." + ids[i]});
    }
    group_query.getStaticGroups(groups, server);
    return result;
}

// What stands in front of the first `=` of the template: "mail" of "mail=?".
std::string LDAPServer::AttributeOfUser() const {
    std::string const filter = user_query.getQuery();
    std::size_t const equals = filter.find('=');
    return equals == std::string::npos ? std::string() : filter.substr(0, equals);
}

// The star of "everybody" is the one value that is not escaped.
int LDAPServer::query_users(LDAPConnection* connection, std::vector<std::string>& users) {
    users.clear();
    if (!std::strchr(user_query.getQuery(), '=')) return LDAP_SUCCESS;
    std::string name = AttributeOfUser();
    char* wanted[] = {name.data(), nullptr};
    std::vector<LDAPAttribute> found;
    int const result = query(connection, build_query_string(user_query.getQuery(), "*").c_str(), wanted, found);
    if (result == LDAP_SUCCESS && found.size() == 1) users = found.front().values;
    return result;
}

int LDAPServer::query_blackwhitelist(LDAPConnection* connection, std::string const& user,
                                     std::vector<std::string>& first, std::vector<std::string>& second) {
    first.clear();
    second.clear();
    char const* secondName = nullptr;
    char const* const firstName = FirstTwo(user_query, secondName);
    if (!firstName) return LDAP_SUCCESS;
    std::vector<LDAPAttribute> found;
    std::string const filter = build_query_string(user_query.getQuery(), escape_filter(user));
    int const result = query(connection, filter.c_str(), user_query.getAttributes(), found);
    if (result != LDAP_SUCCESS) return result;
    for (LDAPAttribute const& one : found) {
        if (one.name == firstName) copy_list(one.values, first);
        if (one.name == secondName) copy_list(one.values, second);
    }
    return result;
}

void LDAPServer::copy_list(std::vector<std::string> const& values, std::vector<std::string>& list) {
    for (std::string const& value : values)
        if (value != kEmptyList) list.push_back(value);
}

void LDAPServer::append_bw_list(std::vector<LDAPAttribute>& attributes, std::vector<std::string> const& first,
                                std::vector<std::string> const& second) const {
    char const* secondName = nullptr;
    char const* const firstName = FirstTwo(user_query, secondName);
    if (!firstName) return;
    std::vector<std::string> const none{kEmptyList};
    attributes.push_back({firstName, first.empty() ? none : first});
    attributes.push_back({secondName, second.empty() ? none : second});
}

int LDAPServer::mod_user(int (*op)(ldap*, char const*, ldapmod**), LDAPConnection* connection, std::string const& user,
                         std::vector<std::string> const& first, std::vector<std::string> const& second) {
    if (!std::strchr(user_query.getQuery(), '=')) return LDAP_SUCCESS;
    std::vector<LDAPAttribute> attributes{{bw_object_class_attribute, {bw_object_class_value}},
                                          {AttributeOfUser(), {user}}};
    append_bw_list(attributes, first, second);
    std::string const name = build_query_string(bw_base_dn_format.c_str(), escape_dn(user));
    return ldap_db_work(op, connection, name, attributes);
}

// A delete that the server refuses does not end it: the last failure is the result.
int LDAPServer::del_user(LDAPConnection* connection, std::string const& user) {
    if (!user_query.isSet()) return LDAP_SUCCESS;
    char wanted[] = "dn";
    char* names[] = {wanted, nullptr};
    std::vector<LDAPAttribute> found;
    std::string const filter = build_query_string(user_query.getQuery(), escape_filter(user));
    int result = query(connection, filter.c_str(), names, found);
    if (result != LDAP_SUCCESS || found.size() != 1) return result;
    for (std::string const& name : found.front().values) {
        int const deleted = ::ldap_delete_s(connection->m_ldap, name.c_str());
        if (deleted != LDAP_SUCCESS) result = deleted;
        connection->failed = IsGone(deleted);
        if (connection->failed) break;
    }
    return result;
}

}  // namespace VELT
