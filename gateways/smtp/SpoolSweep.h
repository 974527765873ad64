// What processes left behind that ended without order is removed: spool files, and files of mail that waits which were
// not finished.
// Runs once, at start-up, on one thread. Younger files are left alone: another instance of this proxy may be draining.
#pragma once

#include <string>

namespace smtp {

void SweepSpool(std::string const& directory);
void SweepDeferred(std::string const& directory);

}  // namespace smtp
