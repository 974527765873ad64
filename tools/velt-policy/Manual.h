// The words of velt-policy's --help, and of a command line that makes no sense.
#pragma once

namespace velt_policy {

extern char const kUsageText[];
extern char const kManual[];

}  // namespace velt_policy
