// SpinBundle: what is kept of a scan that does not come back, while its process still runs: a directory PID-SECONDS-N
// under "spins" in the scan directory, with
//   report   the process, the thread, how long it scans by now, the session's id, policy, identity, and the item's file
//   threads  a back-trace of every thread, each line a file and the place in it, as addr2line(1) takes them
//   item     the item: a link to its spool file, or a copy of what lies in memory
// Owner: static. Threads: start before scans begin; write from one thread at a time, or from a signal handler: it takes
// no lock and no memory. Failure: silent; what cannot be written is missing, as is the item of a thread that does not
// answer. A process writes sixteen bundles at most.
#pragma once

#include <ctime>

#include <velt/scanning/ScannerWatch.h>

namespace VELT {

class SpinBundle {
public:
    static void start();
    static void write(WatchedItem const& item, char const* session, std::time_t seconds);
};

}  // namespace VELT
