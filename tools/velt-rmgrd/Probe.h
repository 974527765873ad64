// Probe: has a scanner server look at the standard test file for anti-virus engines, as a gateway would have it scan an
// item. A server that does not find it would pass everything.
// Owner and thread: the caller's, one stream for each call. Units: milliseconds, of each wait; from the connection on
// all waits together take twice that at most. Failure: the answer says why the server is not to be used.
#pragma once

#include <string>

#include "Farm.h"

namespace rmgrd {

// Empty: it found the file. `policy` is by which it scans.
std::string Probe(ServerFacts const& server, std::string const& policy, unsigned timeoutMs);

}  // namespace rmgrd
