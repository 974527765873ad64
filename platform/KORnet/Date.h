// rfc2822Date: "Tue, 01 Jul 2003 10:52:37 +0200", in local time with its offset, in English whatever the locale.
// Threads: any. Failure: a time that the calendar cannot show gives the empty text.
#pragma once

#include <ctime>
#include <string>

#include <Export.h>

namespace KORnet {
VELTPLATFORM_API std::string rfc2822Date(std::time_t time);
}
