// The time by which the resource manager waits. Owner: nobody; a function. Thread: any. Units: seconds of a clock that
// only goes forward. Failure: none.
#pragma once

#include <chrono>

namespace rmgrd {

inline double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace rmgrd
