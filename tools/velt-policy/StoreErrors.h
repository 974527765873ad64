// StoreErrors: every error of the store's files, where a gateway stops at the first: the store's own reader reads again
// and again, each time without what it has refused. Thread: any. Failure: none but that of memory.
#pragma once

#include <string>
#include <vector>

#include "tools/velt-policy/Findings.h"

namespace velt_policy {

// The files in the order in which later ones win; one that is missing is an empty one. False: nothing is wrong.
bool TellStoreErrors(std::vector<std::string> const& files, Findings& findings);

}  // namespace velt_policy
