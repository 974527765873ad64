#include <velt/Version.h>

namespace VELT {

char const* Version() { return VELT_VERSION; }

}  // namespace VELT
