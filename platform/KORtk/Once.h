// The once-only call: concurrent first callers wait for a single run; a run that throws leaves the state as it was.
// Owner: the state and the key stand in the object that is to be initialised. Threads: any.
// Failure: what `f` throws leaves call_once, and the next caller runs `f` again.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include <Export.h>

namespace KORtk {

struct OnceInit {
    using state_t = std::atomic<int>;  // 0 not begun, 1 finished, other values in progress
    using key_t = std::uintptr_t;
    static constexpr key_t key = 0x4f6e6365;  // an object copies it when it is built; 0 tells that it is not built yet
};

namespace detail {

inline constexpr int kOnceIdle = 0, kOnceDone = 1, kOnceRunning = 2;

// Leaves the state idle again unless the run came to its end.
class OnceRun {
public:
    explicit OnceRun(OnceInit::state_t& state) : m_state(state) {}
    ~OnceRun() {
        m_state.store(m_end, std::memory_order_release);
        m_state.notify_all();
    }
    OnceRun(OnceRun const&) = delete;
    OnceRun& operator=(OnceRun const&) = delete;
    void Finished() { m_end = kOnceDone; }

private:
    OnceInit::state_t& m_state;
    int m_end = kOnceIdle;
};

}  // namespace detail

// Runs `f` unless a run on this state has finished. A state whose key is not OnceInit::key lies in an object that
// is not built yet (static initialisation): `f` runs, and nothing is kept, as the constructor would wipe it.
template <class F>
void call_once(OnceInit::state_t& state, OnceInit::key_t key, F&& f) {
    if (key != OnceInit::key) return std::forward<F>(f)();
    for (;;) {
        int seen = state.load(std::memory_order_acquire);
        if (seen == detail::kOnceDone) return;
        if (seen != detail::kOnceIdle) {
            state.wait(seen, std::memory_order_acquire);
            continue;
        }
        if (!state.compare_exchange_strong(seen, detail::kOnceRunning, std::memory_order_acquire)) continue;
        detail::OnceRun run(state);
        std::forward<F>(f)();
        run.Finished();
        return;
    }
}

}  // namespace KORtk
