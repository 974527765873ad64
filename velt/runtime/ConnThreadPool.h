// ConnThreadPool: runs the sessions of a threaded worker. Accepting threads queue sessions; a core of permanent threads
// and a variable number of temporary ones take them in the order of arrival.
// Owner: the service loop, through ServiceLoop::connthreads. The destructor deletes neither threads nor sessions.
// Threads: any; m_mutex guards all state. A session belongs to the pool from QueueConnection on.
// Limits: nothing is ever refused. Beyond the limits a session waits in the queue, and a caller that agreed to wait is
// held up once, so that pressure backs up to the listening socket.
// Units: timeouts in seconds. Failure: a thread that cannot be started throws out of StartPool and QueueConnection with
// the pool's mutex held; the process is not meant to survive that.
#pragma once

#include <pthread.h>

#include <deque>
#include <vector>

#include <velt/Export.h>

namespace QXStats {
class QXCounter;
}

namespace VELT {

class Connection;
class ConnThread;

class VELT_API ConnThreadPool {
public:
    ConnThreadPool(unsigned maxThreads, unsigned maxQueue);  // maxQueue 0: the queue is limited by QueueRatio
    virtual ~ConnThreadPool();
    ConnThreadPool(ConnThreadPool const&) = delete;
    ConnThreadPool& operator=(ConnThreadPool const&) = delete;

    virtual bool is_queue_full();                        // called with m_mutex held
    virtual void RemoveConnection(Connection* session);  // the session has run: deletes it; null is allowed
    virtual void ConnectionAdded(Connection* session);   // called with m_mutex held, the session just queued

    void StartPool(int count);  // permanent threads, whatever maxThreads says
    void QueueConnection(Connection* session, bool wait);

    // For the pool's own threads: the next session, or null when `thread` has to end, which is then forgotten here.
    Connection* GetConnection(int timeoutSeconds, ConnThread* thread);  // -1: no timeout

    // For an accepting thread that has siblings in other processes: returns when a session would be run at once, or
    // after so long.
    void WaitForFreeThread(int milliseconds);

    void Shutdown();  // lets the threads finish what is queued; returns when the last has left

protected:
    void AddThread(bool permanent);  // m_mutex held

    bool m_shuttingDown;
    bool m_queueWaiting;  // an enqueuer waits for room
    int m_idleThreads;    // stays one too high for each temporary thread that has retired
    unsigned m_threadCount;
    unsigned m_maxQueue;
    unsigned m_maxThreads;
    pthread_mutex_t m_mutex;       // guards all of this
    pthread_cond_t m_workReady;    // a session was queued, or shutdown began
    pthread_cond_t m_queueRoom;    // room in the queue
    pthread_cond_t m_allFinished;  // the last thread left
    QXStats::QXCounter* m_started;
    QXStats::QXCounter* m_finished;
    QXStats::QXCounter* m_queuedCount;
    QXStats::QXCounter* m_ranCount;
    std::vector<ConnThread*> m_threads;
    std::deque<Connection*> m_queue;

private:
    bool HasFreeThread() const;                   // m_mutex held
    void FindRoom(bool wait);                     // m_mutex held
    Connection* TakeFirst();                      // m_mutex held, the queue not empty
    Connection* WaitForWork(int timeoutSeconds);  // m_mutex held; null: idle too long, or shutdown
    bool WaitUntilSignalled(int timeoutSeconds);  // m_mutex held; false: the time is up
    void Forget(ConnThread* thread);              // m_mutex held

    pthread_cond_t m_threadFree;     // m_mutex: a thread found no work
    unsigned m_waitingForFree = 0;   // m_mutex
    unsigned m_enqueuersHeldUp = 0;  // m_mutex: how many m_queueWaiting stands for
};

}  // namespace VELT
