// FaultPlan: which calls of the system fail. It lies in a file that is mapped by whoever makes the plan and by each
// process that was started with the library velt_faults loaded first and the file's name in VELT_FAULTS; what is
// written into it takes effect at once, in all of them.
// Owner: whoever wrote the file. Threads and processes: any; the counts are exact. Units: calls, from 1 on.
// Failure: without a plan every call goes through.
#pragma once

#include <atomic>
#include <cstdint>

namespace velt_testing {

enum class Fallible : std::int32_t {
    read,     // from files and sockets
    write,    // to files and sockets
    poll,     // every wait for descriptors
    open,     // every way to a new descriptor but those below
    accept,   //
    connect,  //
    fork,     //
    memory,   //
    thread,   // the start of one
    place,    // where and how long a file is, and that it is on the disk
    close,    // the descriptor is gone even so
    name,     // what a file is called, and that it is no more
    lock,     // of a file
    count,
};

inline constexpr std::int32_t kFromFirstLock = 2;  // a plan that is armed so takes effect when a file is to be locked

struct FaultPlan {
    std::atomic<std::int32_t> armed;  // calls are counted, and fail as planned
    std::int32_t kind;                // of the calls that fail
    std::int32_t error;               // their errno; 0: a transfer goes through in part
    std::int32_t process;             // only in this one and its children; 0: in all
    std::int64_t first, last;         // the calls that fail; none where last is below first
    std::atomic<std::int64_t> calls[static_cast<int>(Fallible::count)];  // so far, failed or not
};

static_assert(sizeof(FaultPlan) == 32 + 8 * static_cast<int>(Fallible::count), "tests write it byte by byte");

}  // namespace velt_testing

// What the library offers under these names, for ::dlsym:
//   void velt_faults_spare_thread()      the calling thread's calls go through and are not counted from now on
//   FaultPlan* velt_faults_plan()        the plan of this process
