// RetryerThreadPool: the pool of a retryer. It knows the sessions that it holds, so that the walk can ask whether one
// of them has a file. Owner: the process's RetryerServiceLoop. Threads: any; the list is guarded by the pool's mutex. A
// session is deleted with m_removal held, so that whoever asks about its file meanwhile waits until the file is closed:
// while it was not, the file could be opened and locked a second time, and either close would give up both locks. The
// order is m_removal, then m_mutex. Failure: as ConnThreadPool.
#pragma once

#include <pthread.h>

#include <deque>
#include <functional>
#include <mutex>

#include <velt/Export.h>
#include <velt/runtime/ConnThreadPool.h>

namespace VELT {

class VELT_API RetryerThreadPool : public ConnThreadPool {
public:
    explicit RetryerThreadPool(unsigned threads);  // so many threads, and a queue of as many
    ~RetryerThreadPool() override;

    void RemoveConnection(Connection* session) override;
    void ConnectionAdded(Connection* session) override;

    bool Active(char const* path);  // whether a session answers for the file of this path

    // Returns once fewer sessions are held than run and wait in a full queue, or within a second of the process's stop.
    // It stands in for the wait inside QueueConnection, which does not see a stop, and would let in any number, each
    // with its open file, once threads that have retired count as idle. It starts the threads that are lacking, for the
    // same reason: QueueConnection starts none then. `meanwhile`: called about once a second, without a lock.
    void WaitForRoom(std::function<void()> const& meanwhile = {});

    // Has threads for what waits in the queue, as far as they are: wakes those that are idle, and starts those that the
    // sessions held lack. One may retire in the moment in which it was to be woken for a session, which would wait
    // until another one ends.
    void StartThreads();

protected:
    std::deque<Connection*> m_connections;  // m_mutex: held, waiting and running ones

private:
    void Erase(Connection const* session);
    void AddLacking();  // m_mutex held

    std::mutex m_removal;
    pthread_cond_t m_removed;  // m_mutex: there is one session less
};

}  // namespace VELT
