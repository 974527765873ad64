// WrappedCalls: what a test tells the system's calls under the code that is tested, and what they tell it. The program
// is linked with poll, recv, send and writev wrapped.
// Owner: nobody. Threads: each thread has its own. Units: milliseconds.
#pragma once

#include <vector>

namespace velt_testing {

inline thread_local std::vector<int> waits;         // how long each poll so far was allowed to wait
inline thread_local std::vector<int> pollFailures;  // the errno values of the next polls, the last first
inline thread_local std::vector<int> failures;      // the same of the other three
inline thread_local int sendFlags = 0;              // of the last send

}  // namespace velt_testing
