// LDAPQuery: what the policy code asks of the directory servers. No answer is kept: every call asks.
// Threads: initialise at start-up, the rest on session threads, which wait for the answer.
// Failure: LDAP result codes; with a connection given, each is an event.
#pragma once

#include <string>
#include <vector>

#include <velt/Export.h>

namespace VELT {

class Config;
class Connection;

class VELT_API LDAPQuery {
public:
    static void initialise(Config* config);  // null: connections are kept, searches have 100 s
    static void start();

    // The two lists of a user. No server for lists: 0, and the lists are left as they are.
    static int userlistinfo(std::string const& address, std::vector<std::string>& first,
                            std::vector<std::string>& second, Connection const* connection);

    // The groups of an address by all servers in turn. `groups` is the answer of the last server that could be
    // reached, not a union; the result is that of the last server.
    static int groups(std::string const& address, std::vector<std::string>& groups, Connection const* connection);
};

}  // namespace VELT
