// Lock: a mutex that knows its owner, for short critical sections.
// Owner: the object whose data it guards. Threads: any. It is not recursive: a thread that acquires twice waits for
// ever. Failure: none is reported.
#pragma once

#include <pthread.h>

#include <atomic>
#include <ctime>

#include <velt/Export.h>

namespace VELT {

class VELT_API Lock {
public:
    Lock() = default;
    ~Lock() { ::pthread_mutex_destroy(&m_mutex); }
    Lock(Lock const&) = delete;
    Lock& operator=(Lock const&) = delete;

    void Acquire() {
        ::pthread_mutex_lock(&m_mutex);
        m_owner.store(::pthread_self(), std::memory_order_relaxed);
    }
    void Release() {
        m_owner.store(s_free, std::memory_order_relaxed);
        ::pthread_mutex_unlock(&m_mutex);
    }
    bool Try();  // true: it was free and is held now, without the owner being noted; or the caller holds it already

    // For the holder: the lock is free while the wait lasts. May end without a cause, so that a flag has to say more.
    void Wait(pthread_cond_t& condition) {
        m_owner.store(s_free, std::memory_order_relaxed);
        ::pthread_cond_wait(&condition, &m_mutex);
        m_owner.store(::pthread_self(), std::memory_order_relaxed);
    }
    int WaitUntil(pthread_cond_t& condition, std::time_t when);  // seconds of the day's clock; 0, or ETIMEDOUT

private:
    static constexpr pthread_t s_free = static_cast<pthread_t>(-1);

    std::atomic<pthread_t> m_owner{s_free};  // another thread's Try reads it while the owner writes
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
};

}  // namespace VELT
