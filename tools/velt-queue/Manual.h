// What velt-queue says of itself.
#pragma once

namespace velt_queue {

extern char const kUsageText[];
extern char const kManual[];

}  // namespace velt_queue
