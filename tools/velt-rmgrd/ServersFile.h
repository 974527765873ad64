// The file of servers on other hosts: one a line, NAME ADDRESS PORT and, where it is limited, how many items at a time.
// Owner and thread: the caller's. Failure: a line that cannot be used is told about and dropped; the others count.
#pragma once

#include <istream>
#include <string>
#include <vector>

#include "Farm.h"

namespace rmgrd {

struct ServersFile {
    std::vector<ServerFacts> servers;
    std::vector<std::string> complaints;  // "line 3: ..."
};

ServersFile ReadServers(std::istream& in);

}  // namespace rmgrd
