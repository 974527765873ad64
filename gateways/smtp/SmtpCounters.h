// The mail gateway's counters, shared by all processes of the proxy. Made once, at start-up; any thread moves them.
// Never destroyed: threads may count while the process ends.
#pragma once

#include <QXStats/QXCounter.h>

namespace smtp {

struct Counters {
#define SMTP_COUNTER(member, name) QXStats::QXCounter member{name};
#include "SmtpCounters.def"
#undef SMTP_COUNTER
};

Counters& Count();  // makes them at the first call

}  // namespace smtp
