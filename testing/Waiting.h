// What tests of threads wait with. Owner: the test. Threads: any. Failure: what does not come about is told after so
// long that no slow machine is mistaken for it.
#pragma once

#include <poll.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace velt_testing {

constexpr int kPatienceSeconds = 30;

// Waits for what another thread brings about.
template <class Condition>
bool Eventually(Condition condition) {
    for (int i = 0; i < kPatienceSeconds * 1000; ++i) {
        if (condition()) return true;
        ::poll(nullptr, 0, 1);
    }
    return condition();
}

// Any thread may wait; opened once.
class Door {
public:
    void Open() {
        std::lock_guard const hold(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    void Wait() {
        std::unique_lock hold(m_mutex);
        m_changed.wait(hold, [this] { return m_open; });
    }
    bool WaitSome() {
        std::unique_lock hold(m_mutex);
        return m_changed.wait_for(hold, std::chrono::seconds(kPatienceSeconds), [this] { return m_open; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
};

}  // namespace velt_testing
