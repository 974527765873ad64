// The scanner daemon's counters, shared by all processes of the proxy. Made once, at start-up; any thread moves them.
// Never destroyed: threads may count while the process ends.
#pragma once

#include <QXStats/QXCounter.h>

namespace scannerd {

struct Counters {
#define SCANNERD_COUNTER(member, name) QXStats::QXCounter member{name};
#include "ScannerdCounters.def"
#undef SCANNERD_COUNTER
};

Counters& Count();  // makes them at the first call

}  // namespace scannerd
