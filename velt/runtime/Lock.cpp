#include <velt/runtime/Lock.h>

namespace VELT {

bool Lock::Try() {
    if (::pthread_mutex_trylock(&m_mutex) == 0) return true;
    return ::pthread_equal(m_owner.load(std::memory_order_relaxed), ::pthread_self()) != 0;
}

}  // namespace VELT
