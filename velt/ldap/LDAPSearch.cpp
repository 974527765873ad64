// One search, and what it found by attribute.
#include <algorithm>
#include <chrono>

#include <velt/ldap/LDAPPrim.h>
#include <velt/ldap/LDAPServer.h>
#include <velt/ldap/LdapLibrary.h>

namespace VELT {

namespace {

using Clock = std::chrono::steady_clock;

// One message of any request. 0: none came in time.
int NextMessage(ldap* handle, Clock::time_point end, LdapMessage& message) {
    auto const left = std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now()).count();
    if (left <= 0) return 0;
    timeval limit{left / 1000000, left % 1000000};
    LDAPMessage* found = nullptr;
    int const result = ::ldap_result(handle, LDAP_RES_ANY, LDAP_MSG_ONE, &limit, &found);
    message.reset(found);
    return result;
}

int DigitOf(char one) {
    if (one >= '0' && one <= '9') return one - '0';
    if (one >= 'a' && one <= 'f') return one - 'a' + 10;
    return one >= 'A' && one <= 'F' ? one - 'A' + 10 : -1;
}

}  // namespace

int LDAPServer::query(LDAPConnection* connection, char const* filter, char** attributes,
                      std::vector<LDAPAttribute>& result) {
    result.clear();
    if (!connection) return -1;
    int error = ldap_search(connection, filter, attributes, result);
    if (error != LDAP_SUCCESS && connection->reused) {
        error = Reopen(*connection);
        if (error == LDAP_SUCCESS) {
            result.clear();
            error = ldap_search(connection, filter, attributes, result);
        }
    }
    if (error != LDAP_SUCCESS) connection->failed = true;
    return error;
}

int LDAPServer::ldap_search(LDAPConnection* connection, char const* filter, char** attributes,
                            std::vector<LDAPAttribute>& result) {
    if (!connection) return LDAP_SUCCESS;
    ldap* const handle = connection->m_ldap;
    if (!handle) return LDAP_SERVER_DOWN;
    timeval limit{LDAPPrim::s_ldap_query_timeout, 0};
    int request = 0;
    int const sent = ::ldap_search_ext(handle, base.c_str(), LDAP_SCOPE_SUBTREE, filter, attributes, 0, nullptr,
                                       nullptr, &limit, -1, &request);
    if (sent != LDAP_SUCCESS) return sent;
    auto const end = Clock::now() + std::chrono::seconds(LongestWait());
    for (;;) {
        LdapMessage message;
        int const came = NextMessage(handle, end, message);
        if (came <= 0) {
            ::ldap_abandon_ext(handle, request, nullptr, nullptr);
            return came == 0 ? LDAP_TIMELIMIT_EXCEEDED : came;
        }
        if (!message) return LDAP_SUCCESS;
        for (LDAPMessage* one = ::ldap_first_message(handle, message.get()); one;
             one = ::ldap_next_message(handle, one)) {
            int const type = ::ldap_msgtype(one);
            if (type == LDAP_RES_SEARCH_ENTRY) save_entry(handle, one, result, attributes);
            if (type == LDAP_RES_SEARCH_RESULT) return LDAP_SUCCESS;  // whatever code it carries
        }
    }
}

void LDAPServer::save_entry(ldap* handle, ldapmsg* entry, std::vector<LDAPAttribute>& result, char** requested) {
    LdapText const name(::ldap_get_dn(handle, entry));
    if (name) parse_dn(name.get());
    BerElement* place = nullptr;
    LdapText attribute(::ldap_first_attribute(handle, entry, &place));
    LdapElement const end(place);
    for (; attribute; attribute.reset(::ldap_next_attribute(handle, entry, place))) {
        LdapValues const values(::ldap_get_values_len(handle, entry, attribute.get()));
        for (berval** one = values.get(); one && *one; ++one)
            save_attribute(result, attribute.get(), std::string((*one)->bv_val, (*one)->bv_len));
    }
    if (!name || server_type == "exchange") return;
    for (char** one = requested; one && *one; ++one)
        if (std::strcmp(*one, "dn") == 0) return save_attribute(result, "dn", name.get());
}

// Some servers write a byte of a name so. A `#` before anything else stays.
void LDAPServer::parse_dn(char* name) {
    char* out = name;
    for (char const* in = name; *in;) {
        int const high = *in == '#' ? DigitOf(in[1]) : -1;
        if (high < 0) {
            *out++ = *in++;
            continue;
        }
        int const low = DigitOf(in[2]);
        *out++ = static_cast<char>(low < 0 ? high : high * 16 + low);
        in += low < 0 ? 2 : 3;
    }
    *out = '\0';
}

void LDAPServer::save_attribute(std::vector<LDAPAttribute>& result, std::string const& name, std::string const& value) {
    auto const known =
        std::find_if(result.begin(), result.end(), [&](LDAPAttribute const& one) { return one.name == name; });
    if (known != result.end())
        known->values.push_back(value);
    else
        result.push_back({name, {value}});
}

void LDAPServer::save_with_server(LDAPAttribute const& attribute, std::vector<std::string>& out) const {
    for (std::string const& value : attribute.values) out.push_back(server + "." + value);
}

}  // namespace VELT
