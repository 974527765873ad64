#include <velt/runtime/Clock.h>

#include <unistd.h>

#include <atomic>
#include <mutex>

#include <KORnet/Addr.h>
#include <velt/runtime/MemCheck.h>
#include <velt/scanning/ScanAgent.h>

namespace VELT {

namespace {

constexpr int kClockStack = 8192;  // bytes; the system's default takes its place, as it is below the system's least

std::atomic<std::time_t> s_Time{0};
std::atomic<std::time_t> s_ProxyTime{0};
std::atomic<std::time_t> s_start{0};
std::atomic<bool> s_thread_present{false};
std::once_flag s_started;

}  // namespace

// The time is set before the thread runs, so that nobody ever reads 0 and takes every deadline for past.
Clock::Clock(bool withThread) {
    if (!withThread) {
        s_start = ::time(nullptr);
        return;
    }
    s_Time = ::time(nullptr);
    s_thread_present = true;
    std::call_once(s_started, [this] { Start(); });
}

void Clock::Start() { StartThread(kClockStack, Thread::DETACHED); }

void Clock::ThreadMain() {
    for (;;) {
        MemCheck::Check();
        std::time_t const now = ::time(nullptr);
        s_Time = now;
        ScanAgent::set_time(now);
        ::sleep(1);
    }
}

std::time_t Clock::getTime() {
    if (!s_thread_present.load(std::memory_order_relaxed)) s_Time.store(::time(nullptr), std::memory_order_relaxed);
    return s_Time.load(std::memory_order_relaxed);
}

// Nothing counts the proxy's time while the thread runs: the answer is then 0 for ever.
std::time_t Clock::getProxyTime() {
    if (s_thread_present.load(std::memory_order_relaxed)) return s_ProxyTime.load(std::memory_order_relaxed);
    return ::time(nullptr) - s_start.load(std::memory_order_relaxed);
}

std::string Clock::getRFC822Time() { return KORnet::rfc2822Date(getTime()); }

}  // namespace VELT
