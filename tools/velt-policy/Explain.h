// velt-policy explain: one query of the command line, or many of the standard input. The exit status.
#pragma once

#include "tools/velt-policy/CommandLine.h"

namespace velt_policy {

int Explain(Options const& options);

}  // namespace velt_policy
