#include <velt/retry/RetryerThreadPool.h>

#include <algorithm>
#include <ctime>

#include <velt/connection/Connection.h>
#include <velt/runtime/ServiceLoop.h>
#include <velt/runtime/Thread.h>

namespace VELT {

RetryerThreadPool::RetryerThreadPool(unsigned threads) : ConnThreadPool(threads, threads) {
    PthreadCondInit(&m_removed);
}

RetryerThreadPool::~RetryerThreadPool() = default;

void RetryerThreadPool::ConnectionAdded(Connection* session) { m_connections.push_back(session); }

void RetryerThreadPool::Erase(Connection const* session) {
    ::pthread_mutex_lock(&m_mutex);
    auto const held = std::find(m_connections.begin(), m_connections.end(), session);
    if (held != m_connections.end()) m_connections.erase(held);
    ::pthread_cond_broadcast(&m_removed);
    ::pthread_mutex_unlock(&m_mutex);
}

void RetryerThreadPool::RemoveConnection(Connection* session) {
    std::lock_guard const hold(m_removal);
    Erase(session);
    delete session;
}

bool RetryerThreadPool::Active(char const* path) {
    std::lock_guard const hold(m_removal);
    ::pthread_mutex_lock(&m_mutex);
    bool const found = std::any_of(m_connections.begin(), m_connections.end(),
                                   [path](Connection* session) { return session->Active(path); });
    ::pthread_mutex_unlock(&m_mutex);
    return found;
}

// Sessions that were queued before the idle thread woke have made no other one start: it is made up for here, as nobody
// comes to queue while the walk is held up.
void RetryerThreadPool::WaitForRoom() {
    ::pthread_mutex_lock(&m_mutex);
    if (m_connections.size() >= m_maxThreads + m_maxQueue) {
        while (m_threadCount < m_maxThreads) AddThread(false);
    }
    while (m_connections.size() >= m_maxThreads + m_maxQueue && !ServiceLoop::shutdown) {
        timespec until{};
        ::clock_gettime(CLOCK_MONOTONIC, &until);
        ++until.tv_sec;  // a signal that stops the process wakes nobody here
        ::pthread_cond_clockwait(&m_removed, &m_mutex, CLOCK_MONOTONIC, &until);
    }
    ::pthread_mutex_unlock(&m_mutex);
}

}  // namespace VELT
