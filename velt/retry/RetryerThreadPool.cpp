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

// A session that was queued while a retired thread counted as idle, or before the idle one woke, made no other one
// start: it is made up for here.
void RetryerThreadPool::AddLacking() {
    while (m_threadCount < m_maxThreads && m_threadCount < m_connections.size()) AddThread(false);
}

void RetryerThreadPool::StartThreads() {
    ::pthread_mutex_lock(&m_mutex);
    AddLacking();
    if (!m_queue.empty()) ::pthread_cond_broadcast(&m_workReady);
    ::pthread_mutex_unlock(&m_mutex);
}

void RetryerThreadPool::WaitForRoom(std::function<void()> const& meanwhile) {
    ::pthread_mutex_lock(&m_mutex);
    AddLacking();
    while (m_connections.size() >= m_maxThreads + m_maxQueue && !ServiceLoop::shutdown) {
        timespec until{};
        ::clock_gettime(CLOCK_MONOTONIC, &until);
        ++until.tv_sec;  // a signal that stops the process wakes nobody here
        bool const silent = ::pthread_cond_clockwait(&m_removed, &m_mutex, CLOCK_MONOTONIC, &until) != 0;
        if (!silent || !meanwhile) continue;
        ::pthread_mutex_unlock(&m_mutex);
        meanwhile();
        ::pthread_mutex_lock(&m_mutex);
    }
    ::pthread_mutex_unlock(&m_mutex);
}

}  // namespace VELT
