// FixedTime: while one lives, the time of day stands still but for the seconds that the test lets pass. The program is
// linked with time(2) wrapped for it; what else tells the time goes on.
// Owner: the test, one at a time. Threads: any may read, the test's moves. Units: seconds.
#pragma once

#include <atomic>
#include <ctime>

namespace velt_testing {

class FixedTime {
public:
    FixedTime() { s_now = kStart; }
    ~FixedTime() { s_now = 0; }
    FixedTime(FixedTime const&) = delete;
    FixedTime& operator=(FixedTime const&) = delete;

    std::time_t now() const { return s_now; }
    void Pass(long seconds) { s_now += seconds; }

    static std::time_t Shown() { return s_now; }  // 0: the system's

private:
    static constexpr std::time_t kStart = 1700000000;
    static inline std::atomic<std::time_t> s_now{0};
};

}  // namespace velt_testing
