// The once-only call: concurrent first callers wait for a single run; a run that throws leaves the state as it was.
#pragma once

#include <atomic>
#include <cstdint>

#include <Export.h>

namespace KORtk {
struct OnceInit {
    using state_t = std::atomic<int>;
    using key_t = std::uintptr_t;
    static constexpr key_t key = 0;
};
template <class F>
void call_once(OnceInit::state_t& state, OnceInit::key_t key, F&& f);  // 0 -> running -> 1; resets to 0 if f throws
}  // namespace KORtk
