#include "ScannerdCounters.h"

namespace scannerd {

Counters& Count() {
    static Counters& counters = *new Counters;
    return counters;
}

}  // namespace scannerd
