// The limit for making a connection: a choice of the build. This file is built both ways.
#include <gtest/gtest.h>

#include <cstdlib>

#include <velt/ldap/LDAPServer.h>
#include <velt/ldap/LdapLibrary.h>

namespace {

// -1: none.
long NetworkLimit() {
    ::setenv("LDAPNOINIT", "1", 1);  // ldap.conf(5) of the machine has no say
    VELT::LDAPServer server;
    server.setServer("127.0.0.1");
    server.setConnectTimeout("7");
    server.setTimeout("7");
    int error = -1;
    VELT::LDAPConnection* const connection = server.connect(error);
    timeval* limit = nullptr;
    ::ldap_get_option(connection->m_ldap, LDAP_OPT_NETWORK_TIMEOUT, &limit);
    long const seconds = limit ? limit->tv_sec : -1;
    ::ldap_memfree(limit);
    server.release(connection);
    return seconds;
}

#ifdef VELT_LDAP_NETWORK_TIMEOUT
TEST(NetworkLimit, IsAMinuteWhereTheBuildSetsOne) { EXPECT_EQ(NetworkLimit(), 60); }
#else
TEST(NetworkLimit, IsNoneByItself) { EXPECT_EQ(NetworkLimit(), -1); }
#endif

}  // namespace
