#include <velt/runtime/ConnThreadPool.h>

#include <cerrno>

#include <QXStats/QXCounter.h>
#include <velt/connection/Connection.h>
#include <velt/logging/Events.h>
#include <velt/logging/Keys.h>
#include <velt/logging/Log.h>
#include <velt/runtime/Clock.h>
#include <velt/runtime/ConnThread.h>
#include <velt/runtime/Proxy.h>

namespace VELT {

namespace {

// Threads may still move these while the process exits: they are never destroyed.
struct PoolCounters {
    QXStats::QXCounter started{"connections.threads.started"};
    QXStats::QXCounter finished{"connections.threads.finished"};
    QXStats::QXCounter queued{"connections.queued"};
    QXStats::QXCounter ran{"connections.ran"};
};

PoolCounters& Counters() {
    static auto& counters = *new PoolCounters;
    return counters;
}

KORlog::InfoBag AttributesOf(Connection const& session) {
    KORlog::InfoBag attributes;
    session.LogConnectionAttributes(attributes);
    return QXPROP_CONNECTION(attributes);
}

}  // namespace

ConnThreadPool::ConnThreadPool(unsigned maxThreads, unsigned maxQueue)
    : m_shuttingDown(false),
      m_queueWaiting(false),
      m_idleThreads(0),
      m_threadCount(0),
      m_maxQueue(maxQueue),
      m_maxThreads(maxThreads),
      m_started(&Counters().started),
      m_finished(&Counters().finished),
      m_queuedCount(&Counters().queued),
      m_ranCount(&Counters().ran) {
    PthreadMutexInit(&m_mutex);
    PthreadCondInit(&m_workReady);
    PthreadCondInit(&m_queueRoom);
    PthreadCondInit(&m_allFinished);
    PthreadCondInit(&m_threadFree);
}

// The mutex and the conditions own nothing of the system, and to destroy a condition would wait for its waiters.
ConnThreadPool::~ConnThreadPool() = default;

// A queue with a limit of its own is full when it has reached it; one limited by ratio is full when it is above it.
bool ConnThreadPool::is_queue_full() {
    if (m_maxQueue != 0) return m_queue.size() >= m_maxQueue;
    unsigned const ratio = Proxy::s_pProxyInstance->m_queueRatio;
    if (ratio == 0) return false;
    return m_queue.size() > std::size_t{ratio} * m_threadCount;
}

void ConnThreadPool::RemoveConnection(Connection* session) { delete session; }

void ConnThreadPool::ConnectionAdded(Connection*) {}

// The new thread waits for m_mutex before it looks at anything here.
void ConnThreadPool::AddThread(bool permanent) {
    ++m_threadCount;
    m_threads.push_back(new ConnThread(this, permanent));
    (*m_started)++;
}

void ConnThreadPool::StartPool(int count) {
    ::pthread_mutex_lock(&m_mutex);
    m_threads.clear();
    for (int i = 0; i < count; ++i) AddThread(true);
    ::pthread_mutex_unlock(&m_mutex);
}

// With nobody idle the pool grows; when it cannot, the caller may be slowed down. That wait does no more: the session
// is in the queue already. Whoever leaves may leave another caller behind, who came to wait after the broadcast.
void ConnThreadPool::FindRoom(bool wait) {
    if (m_threadCount < m_maxThreads) {
        AddThread(false);
    } else if (wait && is_queue_full()) {
        m_queueWaiting = true;
        ++m_enqueuersHeldUp;
        ::pthread_cond_wait(&m_queueRoom, &m_mutex);
        m_queueWaiting = --m_enqueuersHeldUp != 0;
    }
}

// Whoever is woken finds the mutex free: signalled before, it would go to sleep on it again.
void ConnThreadPool::QueueConnection(Connection* session, bool wait) {
    LogEvent(events::SESSION_QUEUED, [session] { return AttributesOf(*session); });
    if (!session->IsHealthCheck()) (*m_queuedCount)++;
    ::pthread_mutex_lock(&m_mutex);
    m_queue.push_back(session);
    ConnectionAdded(session);
    bool const idle = m_idleThreads != 0;
    if (!idle) FindRoom(wait);
    ::pthread_mutex_unlock(&m_mutex);
    if (idle) ::pthread_cond_signal(&m_workReady);
}

bool ConnThreadPool::HasFreeThread() const {
    return m_threadCount < m_maxThreads || m_idleThreads > static_cast<int>(m_queue.size());
}

void ConnThreadPool::WaitForFreeThread(int milliseconds) {
    ::pthread_mutex_lock(&m_mutex);
    if (!HasFreeThread()) {
        timespec until{};
        ::clock_gettime(CLOCK_REALTIME, &until);
        long const nanoseconds = until.tv_nsec + milliseconds * 1'000'000L;
        until.tv_sec += nanoseconds / 1'000'000'000;
        until.tv_nsec = nanoseconds % 1'000'000'000;
        ++m_waitingForFree;
        ::pthread_cond_timedwait(&m_threadFree, &m_mutex, &until);
        --m_waitingForFree;
    }
    ::pthread_mutex_unlock(&m_mutex);
}

Connection* ConnThreadPool::TakeFirst() {
    Connection* const session = m_queue.front();
    m_queue.pop_front();
    return session;
}

bool ConnThreadPool::WaitUntilSignalled(int timeoutSeconds) {
    if (timeoutSeconds == -1) {
        ::pthread_cond_wait(&m_workReady, &m_mutex);
        return true;
    }
    timespec const until{Clock::getTime() + timeoutSeconds + 1, 0};
    return ::pthread_cond_timedwait(&m_workReady, &m_mutex, &until) != ETIMEDOUT;
}

// A thread that retires does not lower m_idleThreads: a later session is then signalled for, and no thread is made for
// it, though only threads that really wait can answer.
Connection* ConnThreadPool::WaitForWork(int timeoutSeconds) {
    while (!m_shuttingDown) {
        ++m_idleThreads;
        if (m_waitingForFree != 0) ::pthread_cond_signal(&m_threadFree);
        if (!WaitUntilSignalled(timeoutSeconds)) return nullptr;
        --m_idleThreads;
        if (!m_queue.empty()) return TakeFirst();
    }
    return nullptr;
}

void ConnThreadPool::Forget(ConnThread* thread) {
    std::erase(m_threads, thread);
    if (m_shuttingDown && m_threads.empty()) ::pthread_cond_signal(&m_allFinished);
    --m_threadCount;
    (*m_finished)++;
}

// Work is taken first whether or not shutdown has begun, so that the queue drains. Only a thread that finds work at
// once tells a waiting enqueuer of the room.
Connection* ConnThreadPool::GetConnection(int timeoutSeconds, ConnThread* thread) {
    ::pthread_mutex_lock(&m_mutex);
    bool const atOnce = !m_queue.empty();
    bool const tell = atOnce && m_queueWaiting;
    Connection* const session = atOnce ? TakeFirst() : WaitForWork(timeoutSeconds);
    if (!session) Forget(thread);
    ::pthread_mutex_unlock(&m_mutex);
    if (tell) ::pthread_cond_broadcast(&m_queueRoom);
    if (session && !session->IsHealthCheck()) (*m_ranCount)++;
    return session;
}

void ConnThreadPool::Shutdown() {
    ::pthread_mutex_lock(&m_mutex);
    m_shuttingDown = true;
    ::pthread_cond_broadcast(&m_workReady);
    while (!m_threads.empty()) ::pthread_cond_wait(&m_allFinished, &m_mutex);
    ::pthread_mutex_unlock(&m_mutex);
}

}  // namespace VELT
