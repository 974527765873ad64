#include <velt/runtime/Lock.h>

namespace VELT {

bool Lock::Try() {
    if (::pthread_mutex_trylock(&m_mutex) == 0) return true;
    return ::pthread_equal(m_owner.load(std::memory_order_relaxed), ::pthread_self()) != 0;
}

int Lock::WaitUntil(pthread_cond_t& condition, std::time_t when) {
    timespec const until{when, 0};
    m_owner.store(s_free, std::memory_order_relaxed);
    int const outcome = ::pthread_cond_timedwait(&condition, &m_mutex, &until);
    m_owner.store(::pthread_self(), std::memory_order_relaxed);
    return outcome;
}

}  // namespace VELT
