#include <velt/retry/RetryerThreadPool.h>

#include <atomic>
#include <thread>

#include <velt/runtime/RuntimeTest.h>
#include <velt/runtime/ServiceLoop.h>

namespace {

using velt_testing::Door;
using velt_testing::Eventually;

// Answers for one path; runs, and is deleted, once the doors are open.
class FileHolder : public VELT::Connection {
public:
    FileHolder(std::string path, Door& run, Door* end = nullptr, std::atomic<bool>* ending = nullptr)
        : m_path(std::move(path)), m_run(run), m_end(end), m_ending(ending) {}
    ~FileHolder() override {
        if (m_ending) *m_ending = true;
        if (m_end) m_end->Wait();
    }
    void Run() override { m_run.Wait(); }
    bool Active(char const* path) override { return m_path == path; }

private:
    std::string m_path;
    Door& m_run;
    Door* m_end;
    std::atomic<bool>* m_ending;
};

class OpenRetryPool : public VELT::RetryerThreadPool {
public:
    using RetryerThreadPool::m_connections;
    using RetryerThreadPool::m_idleThreads;
    using RetryerThreadPool::m_maxQueue;
    using RetryerThreadPool::m_maxThreads;
    using RetryerThreadPool::m_mutex;
    using RetryerThreadPool::m_queue;
    using RetryerThreadPool::m_queueWaiting;
    using RetryerThreadPool::m_threadCount;
    using RetryerThreadPool::RetryerThreadPool;

    std::size_t Held() {
        ::pthread_mutex_lock(&m_mutex);
        std::size_t const held = m_connections.size();
        ::pthread_mutex_unlock(&m_mutex);
        return held;
    }
    std::size_t Waiting() {
        ::pthread_mutex_lock(&m_mutex);
        std::size_t const waiting = m_queue.size();
        ::pthread_mutex_unlock(&m_mutex);
        return waiting;
    }
    unsigned Threads() {
        ::pthread_mutex_lock(&m_mutex);
        unsigned const threads = m_threadCount;
        ::pthread_mutex_unlock(&m_mutex);
        return threads;
    }
};

class RetryPool : public velt_testing::ProxyFixture {
protected:
    RetryPool() {
        m_events.AllowAll();
        m_proxy->m_proxyIdleTimeout = 900;
    }
    ~RetryPool() override { VELT::ServiceLoop::shutdown = false; }

    velt_testing::EventCapture m_events;
    Door m_run;
};

TEST_F(RetryPool, HasOneNumberForItsThreadsAndItsQueue) {
    OpenRetryPool const pool(3);
    EXPECT_EQ(pool.m_maxThreads, 3u);
    EXPECT_EQ(pool.m_maxQueue, 3u);
}

TEST_F(RetryPool, KnowsTheFilesOfSessionsThatWaitAndThatRun) {
    OpenRetryPool pool(1);
    EXPECT_FALSE(pool.Active("/d/a.rmd"));
    pool.StartPool(1);
    for (char const* const path : {"/d/a.rmd", "/d/b.rmd"}) pool.QueueConnection(new FileHolder(path, m_run), false);
    EXPECT_TRUE(pool.Active("/d/a.rmd"));
    EXPECT_TRUE(pool.Active("/d/b.rmd"));
    EXPECT_FALSE(pool.Active("/d/c.rmd"));
    m_run.Open();
    EXPECT_TRUE(Eventually([&] { return pool.Held() == 0; }));
    EXPECT_FALSE(pool.Active("/d/a.rmd"));
    pool.Shutdown();
}

TEST_F(RetryPool, DeletesWhatItRemovesKnownOrNot) {
    OpenRetryPool pool(1);
    std::atomic<bool> deleted{false};
    pool.RemoveConnection(nullptr);
    pool.RemoveConnection(new FileHolder("/d/a.rmd", m_run, nullptr, &deleted));
    EXPECT_TRUE(deleted);
}

// The file is open until the session is gone: while it goes, nobody is told that the file is free.
TEST_F(RetryPool, AnswersNobodyWhileASessionIsDeleted) {
    OpenRetryPool pool(1);
    Door end;
    std::atomic<bool> ending{false}, answered{false};
    m_run.Open();
    pool.StartPool(1);
    pool.QueueConnection(new FileHolder("/d/a.rmd", m_run, &end, &ending), false);
    ASSERT_TRUE(Eventually([&] { return ending.load(); }));
    Door asked;
    std::thread walker([&] {
        asked.Open();
        EXPECT_FALSE(pool.Active("/d/a.rmd"));
        answered = true;
    });
    asked.Wait();
    ::poll(nullptr, 0, 50);  // for long enough that an answer would have come
    EXPECT_FALSE(answered);
    end.Open();
    walker.join();
    pool.Shutdown();
}

// Threads that have retired count as idle for ever, so that the queue's own limit no longer holds a caller up.
TEST_F(RetryPool, HoldsTheWalkUpThoughRetiredThreadsCountAsIdle) {
    OpenRetryPool pool(1);
    pool.StartPool(1);
    pool.QueueConnection(new FileHolder("/d/a.rmd", m_run), true);
    pool.WaitForRoom();  // there is room for one more
    ::pthread_mutex_lock(&pool.m_mutex);
    pool.m_idleThreads += 5;
    ::pthread_mutex_unlock(&pool.m_mutex);
    std::atomic<bool> queued{false}, through{false};
    std::thread walker([&] {
        pool.QueueConnection(new FileHolder("/d/b.rmd", m_run), true);
        queued = true;
        pool.WaitForRoom();
        through = true;
    });
    ASSERT_TRUE(Eventually([&] { return queued.load(); }));
    ::poll(nullptr, 0, 50);
    EXPECT_FALSE(through);
    m_run.Open();
    walker.join();
    pool.Shutdown();
}

// What is queued in one go finds the one thread idle each time, until it has woken.
TEST_F(RetryPool, StartsTheThreadsThatAFullPoolLacks) {
    OpenRetryPool pool(2);
    pool.StartPool(1);
    ::pthread_mutex_lock(&pool.m_mutex);
    pool.m_idleThreads += 5;
    ::pthread_mutex_unlock(&pool.m_mutex);
    Door held, freed;
    pool.QueueConnection(new FileHolder("/d/a.rmd", held), true);
    for (char const* const path : {"/d/b.rmd", "/d/c.rmd", "/d/d.rmd"}) {
        pool.QueueConnection(new FileHolder(path, freed), true);
    }
    freed.Open();
    std::thread walker([&] { pool.WaitForRoom(); });
    EXPECT_TRUE(Eventually([&] { return pool.Held() == 1; })) << "another thread runs what waits behind the first";
    held.Open();
    walker.join();
    pool.Shutdown();
}

// With less than a full pool, too.
TEST_F(RetryPool, ASessionDoesNotWaitBehindAnotherWhileThreadsAreFree) {
    OpenRetryPool pool(3);
    pool.StartPool(1);
    ::pthread_mutex_lock(&pool.m_mutex);
    pool.m_idleThreads += 5;
    ::pthread_mutex_unlock(&pool.m_mutex);
    Door held, freed;
    freed.Open();
    pool.QueueConnection(new FileHolder("/d/a.rmd", held), true);
    pool.WaitForRoom();
    pool.QueueConnection(new FileHolder("/d/b.rmd", freed), true);
    pool.WaitForRoom();
    EXPECT_TRUE(Eventually([&] { return pool.Held() == 1; }));
    held.Open();
    pool.Shutdown();
}

// The thread that was to be woken for it retires in that moment.
TEST_F(RetryPool, ASessionThatNobodyWasWokenForIsRunOnceThreadsAreStarted) {
    OpenRetryPool pool(3);
    pool.StartPool(1);
    Door held, freed;
    freed.Open();
    pool.QueueConnection(new FileHolder("/d/a.rmd", held), true);
    ASSERT_TRUE(Eventually([&] { return pool.Waiting() == 0; }));
    ::pthread_mutex_lock(&pool.m_mutex);
    pool.m_queue.push_back(new FileHolder("/d/b.rmd", freed));
    pool.m_connections.push_back(pool.m_queue.back());
    ::pthread_mutex_unlock(&pool.m_mutex);
    pool.StartThreads();
    EXPECT_TRUE(Eventually([&] { return pool.Held() == 1; }));
    EXPECT_EQ(pool.Threads(), 2u);
    pool.StartThreads();
    EXPECT_EQ(pool.Threads(), 2u) << "there is none lacking";
    held.Open();
    pool.Shutdown();
}

TEST_F(RetryPool, HoldsNobodyUpOnceTheProcessStops) {
    OpenRetryPool pool(1);
    for (char const* const path : {"/d/a.rmd", "/d/b.rmd"}) pool.m_connections.push_back(new FileHolder(path, m_run));
    std::thread walker([&] { pool.WaitForRoom(); });
    EXPECT_TRUE(Eventually([&] { return pool.Threads() == 1; })) << "it has let go of the mutex, and waits";
    VELT::ServiceLoop::shutdown = true;
    walker.join();
    while (!pool.m_connections.empty()) pool.RemoveConnection(pool.m_connections.front());
    pool.Shutdown();
}

TEST_F(RetryPool, FullQueueHoldsTheCallerUpUntilAThreadTakesWork) {
    OpenRetryPool pool(1);
    pool.StartPool(1);
    pool.QueueConnection(new FileHolder("/d/a.rmd", m_run), true);
    ASSERT_TRUE(Eventually([&] { return pool.Held() == 1; }));
    std::thread walker([&] {
        for (char const* const path : {"/d/b.rmd", "/d/c.rmd"}) {
            pool.QueueConnection(new FileHolder(path, m_run), true);
            pool.WaitForRoom();
        }
    });
    EXPECT_TRUE(Eventually([&] { return pool.Held() == 2; }));
    EXPECT_FALSE(pool.Active("/d/c.rmd"));
    m_run.Open();
    walker.join();
    pool.Shutdown();
    EXPECT_EQ(pool.Held(), 0u);
}

}  // namespace
