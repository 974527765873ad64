// The keys of ldap.txt and bwserver.txt.
#include <cstdlib>
#include <limits>

#include <velt/ldap/LDAPServer.h>

namespace VELT {

namespace {

std::uint16_t Number(char const* text) { return static_cast<std::uint16_t>(std::strtol(text, nullptr, 10)); }

char const* SkipBlanks(char const* text) {
    while (*text && static_cast<unsigned char>(*text) < '!') ++text;
    return text;
}

char const* WholeValue(char const* value) { return value; }

// Behind the colon of host:port.
char const* PortOf(char const* value) {
    char const* const colon = std::strchr(value, ':');
    return colon ? colon + 1 : nullptr;
}

}  // namespace

std::map<char const*, LDAPConfig, LDAPServer::TextLess> LDAPServer::s_ConfigMap;

LDAPServer::LDAPConfigInit const LDAPServer::s_configInits[] = {
    {"user", &LDAPServer::setUserName},
    {"password", &LDAPServer::setPassword},
    {"ldapserver", &LDAPServer::setServer, PortOf},
    {"type", &LDAPServer::setServerType},
    {"userquery", &LDAPServer::setUserQuery},
    {"groupquery", &LDAPServer::setGroupQuery},
    {"base", &LDAPServer::setBase},
    {"secure", &LDAPServer::setSecure, WholeValue},
    {"timeout", &LDAPServer::setTimeout, WholeValue},
    {"bwobjectclass", &LDAPServer::setBWObjectClass},
    {"bwbasednformat", &LDAPServer::setBWBaseDnFormat},
    {"connecttimeout", &LDAPServer::setConnectTimeout, WholeValue},
    {"referrals", &LDAPServer::setReferrals, WholeValue},
};

LineFate LDAPServer::setAttribute(char const* line) {
    char const* const blank = std::strchr(line, ' ');
    if (!blank) return LineFate::WithoutBlank;
    LDAPConfig const* const row = ConfigOf(line);
    if (!row) return LineFate::UnknownKey;
    return (this->*row->set)(SkipBlanks(blank)) ? LineFate::Taken : LineFate::Refused;
}

LDAPConfig const* LDAPServer::ConfigOf(char const* line) {
    auto const row = s_ConfigMap.find(std::string(line, std::strcspn(line, " ")).c_str());
    return row == s_ConfigMap.end() ? nullptr : &row->second;
}

LineRemark LDAPServer::RemarkOnNumber(char const* line) {
    LDAPConfig const* const row = ConfigOf(line);
    char const* const number = row && row->number ? row->number(SkipBlanks(line + std::strcspn(line, " "))) : nullptr;
    if (!number) return {};
    char* end = nullptr;
    long const read = std::strtol(number, &end, 10);
    if (end == number) return {"the value is no number, which counts as 0", number};
    if (read < 0 || read > std::numeric_limits<std::uint16_t>::max())
        return {"the number is not between 0 and 65535: of it only 16 bits count", number};
    return *SkipBlanks(end) ? LineRemark{"what follows the number is not read", end} : LineRemark{};
}

bool LDAPServer::setUserName(char const* value) {
    user_name = value;
    return true;
}

bool LDAPServer::setPassword(char const* value) {
    password = value;
    return true;
}

bool LDAPServer::setServer(char const* value) {
    char const* const colon = std::strchr(value, ':');
    port = colon ? Number(colon + 1) : 389;  // no check: 0 is taken as it is
    server.assign(value, colon ? static_cast<std::size_t>(colon - value) : std::strlen(value));
    return true;
}

bool LDAPServer::setServerType(char const* value) {
    server_type = value;
    return true;
}

bool LDAPServer::setUserQuery(char const* value) {
    char const* const bar = std::strchr(value, '|');
    if (!bar) {
        user_query.set(value);
        return true;
    }
    user_query.set(std::string(value, bar).c_str());
    email_query.set(bar + 1);
    return true;
}

bool LDAPServer::setGroupQuery(char const* value) {
    group_query.set(value);
    return true;
}

bool LDAPServer::setBase(char const* value) {
    base = value;
    return true;
}

bool LDAPServer::setSecure(char const* value) {
    secure = std::strtol(value, nullptr, 10) != 0;
    return true;
}

bool LDAPServer::setTimeout(char const* value) {
    timeout = Number(value);
    return true;
}

bool LDAPServer::setBWObjectClass(char const* value) {
    char const* const colon = std::strchr(value, ':');
    if (!colon) return false;
    bw_object_class_attribute.assign(value, colon);
    bw_object_class_value = colon + 1;
    return true;
}

bool LDAPServer::setBWBaseDnFormat(char const* value) {
    bw_base_dn_format = value;
    return true;
}

bool LDAPServer::setConnectTimeout(char const* value) {
    connect_timeout = Number(value);
    return true;
}

bool LDAPServer::setReferrals(char const* value) {
    referrals = std::strtol(value, nullptr, 10) != 0;
    return true;
}

}  // namespace VELT
