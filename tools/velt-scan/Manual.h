// What velt-scan says of itself.
#pragma once

namespace velt_scan {

extern char const kUsageText[];
extern char const kManual[];

}  // namespace velt_scan
