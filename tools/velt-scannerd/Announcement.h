// Announcement: tells the resource manager of this machine, where there is one, at which addresses the daemon takes
// work. It stands until the process that made it ends, however that comes: a worker does not hold it, so that what
// drains is offered to nobody.
// Owner: static, for the life of the process. Thread: start-up's, before any fork. Failure: an event; the daemon serves
// those who know it otherwise.
#pragma once

#include <netinet/in.h>

#include <string>
#include <vector>

namespace scannerd {

// `scansAtOnce` is what the manager is told of the daemon's size. An address of 0 is 127.0.0.1 to it.
void Announce(std::vector<sockaddr_in*> const& addresses, std::string const& name, unsigned scansAtOnce);

}  // namespace scannerd
