// SweepSpool: removes the spool files that processes left behind which ended without order.
// Runs once, at start-up, on one thread. Younger files are left alone: another instance of this proxy may be draining.
#pragma once

#include <string>

namespace smtp {

void SweepSpool(std::string const& directory);

}  // namespace smtp
