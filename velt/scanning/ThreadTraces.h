// ThreadTraces: where every thread of this process is at work. Each is asked by a signal, and answers on its own stack;
// the one whose item is of interest keeps a copy of that at the same time, as nobody else may touch it.
// Owner: static. Threads: Prepare before others run; Write one at a time, or from a signal handler: no lock, no memory.
// Units: none of a caller's. Failure: a thread that has the signal blocked, or does not run, is said not to have
// answered; all together take five seconds at most.
#pragma once

#include <velt/scanning/ScannerWatch.h>

namespace VELT {

class ThreadTraces {
public:
    static void Prepare();
    // Writes the file "threads" in the directory, and the file "item" by the item's thread.
    static void Write(int directory, WatchedItem const& item);
};

}  // namespace VELT
