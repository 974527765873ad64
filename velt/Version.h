// Version of the library that is running, which may be newer than the headers a host was built with.
#pragma once

#include <velt/Export.h>

namespace VELT {

VELT_API char const* Version();  // "1.0.0"; a literal

}  // namespace VELT
