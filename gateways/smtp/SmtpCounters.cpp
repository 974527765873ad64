#include "SmtpCounters.h"

namespace smtp {

Counters& Count() {
    static Counters& counters = *new Counters;
    return counters;
}

}  // namespace smtp
