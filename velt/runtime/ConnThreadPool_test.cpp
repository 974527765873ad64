#include <velt/runtime/ConnThreadPool.h>

#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <functional>

#include <velt/errors/Failures.h>
#include <velt/logging/Events.h>
#include <velt/runtime/ConnThread.h>
#include <velt/runtime/RuntimeTest.h>

namespace {

using velt_testing::CounterValue;
using velt_testing::Door;
using velt_testing::Eventually;

// Notes that it runs, and runs until its door opens.
class GatedSession : public VELT::Connection {
public:
    explicit GatedSession(Door& door) : m_door(door) {}
    GatedSession(Door& door, std::atomic<int>& running) : m_door(door), m_running(&running) {}
    void Run() override {
        if (m_running) ++*m_running;
        m_door.Wait();
    }

private:
    Door& m_door;
    std::atomic<int>* m_running = nullptr;
};

class NotingSession : public VELT::Connection {
public:
    NotingSession(std::vector<int>& order, int number) : m_order(order), m_number(number) {}
    void Run() override { m_order.push_back(m_number); }

private:
    std::vector<int>& m_order;
    int m_number;
};

class PidSession : public VELT::Connection {
public:
    explicit PidSession(std::atomic<int>& seen) : m_seen(seen) {}
    void Run() override { m_seen = m_workerId; }

private:
    std::atomic<int>& m_seen;
};

// Notes the second in which it ends.
class TimedSession : public VELT::Connection {
public:
    explicit TimedSession(std::atomic<std::time_t>& end) : m_end(end) {}
    void Run() override { m_end = ::time(nullptr); }

private:
    std::atomic<std::time_t>& m_end;
};

class OpenPool : public VELT::ConnThreadPool {
public:
    using ConnThreadPool::ConnThreadPool;
    using ConnThreadPool::m_mutex;
    using ConnThreadPool::m_queue;
    using ConnThreadPool::m_queueRoom;
    using ConnThreadPool::m_queueWaiting;
    using ConnThreadPool::m_threadCount;

    template <class Look>
    auto Observe(Look look) {
        ::pthread_mutex_lock(&m_mutex);
        auto const seen = look(*this);
        ::pthread_mutex_unlock(&m_mutex);
        return seen;
    }
    unsigned Threads() {
        return Observe([](OpenPool& pool) { return pool.m_threadCount; });
    }
    int Idle() {
        return Observe([](OpenPool& pool) { return pool.m_idleThreads; });
    }
    std::size_t Queued() {
        return Observe([](OpenPool& pool) { return pool.m_queue.size(); });
    }
    bool SomebodyWaits() {
        return Observe([](OpenPool& pool) { return pool.m_queueWaiting; });
    }
    void ConnectionAdded(VELT::Connection*) override {
        ++added;
        if (onAdded) onAdded();
    }

    unsigned added = 0;
    std::function<void()> onAdded;  // m_mutex held
};

class PoolTest : public velt_testing::ProxyFixture {
protected:
    PoolTest() {
        m_proxy->m_queueRatio = 1;
        m_proxy->m_proxyIdleTimeout = 900;
    }

    void StartBusy(OpenPool& pool, int threads) {
        pool.StartPool(threads);
        ASSERT_TRUE(Eventually([&] { return pool.Idle() == threads; }));
        for (int i = 0; i < threads; ++i) {
            pool.QueueConnection(new GatedSession(m_door, m_running), true);
            ASSERT_TRUE(Eventually([&] { return m_running == i + 1; }));
        }
    }
    // Queues sessions that may wait until the caller is held up; the length of the queue at that moment.
    std::size_t LengthAtWhichTheCallerWaits(OpenPool& pool, int most) {
        Door finished;
        std::thread caller([&] {
            for (int i = 0; i < most; ++i) pool.QueueConnection(new GatedSession(m_door), true);
            finished.Open();
        });
        EXPECT_TRUE(Eventually([&] { return pool.SomebodyWaits(); }));
        std::size_t const length = pool.Queued();
        m_door.Open();
        finished.Wait();
        caller.join();
        pool.Shutdown();
        return length;
    }

    Door m_door;
    std::atomic<int> m_running{0};
};

TEST_F(PoolTest, PermanentThreadsMayExceedTheLimitAndThenNoTemporaryOneIsMade) {
    OpenPool pool(1, 0);
    m_proxy->m_queueRatio = 0;
    StartBusy(pool, 4);
    EXPECT_EQ(pool.Threads(), 4u);
    for (int i = 0; i < 4; ++i) pool.QueueConnection(new GatedSession(m_door), true);
    EXPECT_EQ(pool.Threads(), 4u);
    EXPECT_EQ(pool.Queued(), 4u);
    m_door.Open();
    pool.Shutdown();
}

TEST_F(PoolTest, QueueOfRatioOneHoldsTheCallerUpAtTheFifthSessionBehindFourThreads) {
    OpenPool pool(4, 0);
    StartBusy(pool, 4);
    EXPECT_EQ(LengthAtWhichTheCallerWaits(pool, 5), 5u);
}

TEST_F(PoolTest, QueueOfThreeHoldsTheCallerUpAtTheThirdSession) {
    OpenPool pool(4, 3);
    StartBusy(pool, 4);
    EXPECT_EQ(LengthAtWhichTheCallerWaits(pool, 3), 3u);
}

TEST_F(PoolTest, QueueWithoutAnyLimitNeverHoldsTheCallerUp) {
    m_proxy->m_queueRatio = 0;
    OpenPool pool(1, 0);
    StartBusy(pool, 1);
    for (int i = 0; i < 100; ++i) pool.QueueConnection(new GatedSession(m_door), true);
    EXPECT_EQ(pool.Queued(), 100u);
    m_door.Open();
    pool.Shutdown();
}

// The wait slows the caller down once; its session was queued before, and the queue may be as long as it was.
TEST_F(PoolTest, CallerThatWasWokenGoesOnThoughTheQueueIsStillFull) {
    OpenPool pool(1, 1);
    StartBusy(pool, 1);
    Door finished;
    std::thread caller([&] {
        pool.QueueConnection(new GatedSession(m_door), true);
        finished.Open();
    });
    ASSERT_TRUE(Eventually([&] { return pool.SomebodyWaits(); }));
    ::pthread_cond_broadcast(&pool.m_queueRoom);
    EXPECT_TRUE(finished.WaitSome());
    EXPECT_EQ(pool.Queued(), 1u);
    m_door.Open();
    caller.join();
    pool.Shutdown();
}

// A second port's caller may begin to wait while the first one is on its way out: it must still be told of room.
TEST_F(PoolTest, CallerThatLeavesDoesNotHideTheOneThatStillWaits) {
    OpenPool pool(1, 1);
    StartBusy(pool, 1);
    Door firstLeft, secondLeft;
    std::thread first([&] {
        pool.QueueConnection(new GatedSession(m_door), true);
        firstLeft.Open();
    });
    ASSERT_TRUE(Eventually([&] { return pool.SomebodyWaits(); }));
    pool.onAdded = [&] { ::pthread_cond_broadcast(&pool.m_queueRoom); };
    std::thread second([&] {
        pool.QueueConnection(new GatedSession(m_door), true);
        secondLeft.Open();
    });
    ASSERT_TRUE(firstLeft.WaitSome());
    EXPECT_TRUE(pool.SomebodyWaits());
    m_door.Open();
    EXPECT_TRUE(secondLeft.WaitSome());
    ::pthread_cond_broadcast(&pool.m_queueRoom);
    first.join();
    second.join();
    EXPECT_FALSE(pool.SomebodyWaits());
    pool.Shutdown();
}

// Whoever queues is not written to survive that: the pool stays as it was in the middle of it.
TEST_F(PoolTest, ThreadThatCannotBeStartedLeavesTheMutexHeldAndTheCountRaised) {
#ifdef VELT_SANITIZED
    GTEST_SKIP() << "a sanitizer needs its address space";
#endif
    OpenPool pool(1, 0);
    rlimit before{};
    ::getrlimit(RLIMIT_AS, &before);
    rlimit const tight{1UL << 30, before.rlim_max};
    ::setrlimit(RLIMIT_AS, &tight);
    m_proxy->m_handlerStackSize = 0x7fff0000;
    EXPECT_THROW(pool.QueueConnection(new GatedSession(m_door), true),
                 VELT::FWException<VELT::fw_exception_tag::resource>);
    ::setrlimit(RLIMIT_AS, &before);
    EXPECT_EQ(::pthread_mutex_trylock(&pool.m_mutex), EBUSY);
    EXPECT_EQ(pool.m_threadCount, 1u);
    ASSERT_EQ(pool.m_queue.size(), 1u);
    delete pool.m_queue.front();
    ::pthread_mutex_unlock(&pool.m_mutex);
}

TEST_F(PoolTest, CallerThatDoesNotWaitIsNeverRefused) {
    OpenPool pool(1, 1);
    StartBusy(pool, 1);
    for (int i = 0; i < 10; ++i) pool.QueueConnection(new GatedSession(m_door), false);
    EXPECT_EQ(pool.Queued(), 10u);
    EXPECT_EQ(pool.added, 11u);
    m_door.Open();
    pool.Shutdown();
    EXPECT_EQ(pool.Queued(), 0u);
}

TEST_F(PoolTest, FullnessIsReachedWithALimitAndPassedWithARatio) {
    OpenPool limited(1, 2), ratio(1, 0);
    m_proxy->m_queueRatio = 2;
    ratio.m_threadCount = 1;
    for (std::size_t length = 0; length <= 4; ++length) {
        EXPECT_EQ(limited.is_queue_full(), length >= 2) << length;
        EXPECT_EQ(ratio.is_queue_full(), length > 2) << length;
        limited.m_queue.push_back(nullptr);
        ratio.m_queue.push_back(nullptr);
    }
}

TEST_F(PoolTest, TemporaryThreadsAreMadeUpToTheLimit) {
    OpenPool pool(3, 0);
    m_proxy->m_queueRatio = 0;
    unsigned long const started = CounterValue("connections.threads.started");
    for (int i = 0; i < 5; ++i) {
        pool.QueueConnection(new GatedSession(m_door, m_running), true);
        ASSERT_TRUE(Eventually([&] { return m_running == std::min(i + 1, 3); }));
    }
    EXPECT_EQ(pool.Threads(), 3u);
    EXPECT_EQ(pool.Queued(), 2u);
    EXPECT_EQ(CounterValue("connections.threads.started") - started, 3u);
    m_door.Open();
    pool.Shutdown();
}

TEST_F(PoolTest, TemporaryThreadLeavesAboutASecondAfterItsWorkWithAnIdleTimeOfNought) {
    m_proxy->m_proxyIdleTimeout = 0;
    OpenPool pool(1, 0);
    unsigned long const finished = CounterValue("connections.threads.finished");
    std::atomic<std::time_t> idleFrom{0};
    pool.QueueConnection(new TimedSession(idleFrom), true);
    auto const begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(Eventually([&] { return pool.Threads() == 0; }));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_GT(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()), idleFrom)
        << "not before the next second";
    EXPECT_EQ(CounterValue("connections.threads.finished") - finished, 1u);
    EXPECT_EQ(pool.Idle(), 1);
}

TEST_F(PoolTest, AfterAThreadRetiredASessionIsSignalledForAndGetsNoThreadOfItsOwn) {
    m_proxy->m_proxyIdleTimeout = 0;
    m_proxy->m_queueRatio = 0;
    OpenPool pool(2, 0);
    StartBusy(pool, 1);
    Door open;
    open.Open();
    pool.QueueConnection(new GatedSession(open), true);
    ASSERT_TRUE(Eventually([&] { return pool.Threads() == 1 && pool.Idle() == 1; }));
    pool.QueueConnection(new GatedSession(open), true);
    EXPECT_EQ(pool.Threads(), 1u);
    EXPECT_EQ(pool.Queued(), 1u);
    m_door.Open();
    EXPECT_TRUE(Eventually([&] { return pool.Queued() == 0; }));
    pool.Shutdown();
}

// A caller that has time to be told of room while the thread takes its session after a wait, and then has it once more
// while the thread takes the next one at once.
TEST_F(PoolTest, WaitingCallerIsWokenOnlyByAThreadThatFindsWorkOnEntry) {
    OpenPool pool(1, 1);
    pool.StartPool(1);
    ASSERT_TRUE(Eventually([&] { return pool.Idle() == 1; }));
    Door first;
    std::atomic<int> untold{-1}, told{-1};
    std::thread caller([&] {
        timespec soon{};
        ::clock_gettime(CLOCK_REALTIME, &soon);
        ++soon.tv_sec;
        ::pthread_mutex_lock(&pool.m_mutex);
        pool.m_queueWaiting = true;
        untold = ::pthread_cond_timedwait(&pool.m_queueRoom, &pool.m_mutex, &soon);
        soon.tv_sec += 20;
        told = ::pthread_cond_timedwait(&pool.m_queueRoom, &pool.m_mutex, &soon);
        pool.m_queueWaiting = false;
        ::pthread_mutex_unlock(&pool.m_mutex);
    });
    ASSERT_TRUE(Eventually([&] { return pool.SomebodyWaits(); }));
    pool.QueueConnection(new GatedSession(first, m_running), false);
    ASSERT_TRUE(Eventually([&] { return m_running == 1; }));
    ASSERT_TRUE(Eventually([&] { return untold != -1; }));
    m_door.Open();
    pool.QueueConnection(new GatedSession(m_door), false);
    first.Open();
    caller.join();
    EXPECT_EQ(untold, ETIMEDOUT);
    EXPECT_EQ(told, 0);
    pool.Shutdown();
}

TEST_F(PoolTest, HealthChecksTakeAThreadAndMoveNoCounter) {
    VELT::ProxyHealth::init("pool");
    OpenPool pool(1, 0);
    unsigned long const queued = CounterValue("connections.queued"), ran = CounterValue("connections.ran");
    for (char const* from : {"127.0.0.1", "127.0.0.2"}) {
        auto* const session = new GatedSession(m_door, m_running);
        session->getSourceConnection().m_address = velt_testing::Loopback(1, from);
        pool.QueueConnection(session, false);
    }
    m_door.Open();
    pool.Shutdown();
    EXPECT_EQ(m_running, 2);
    EXPECT_EQ(CounterValue("connections.queued") - queued, 1u);
    EXPECT_EQ(CounterValue("connections.ran") - ran, 1u);
}

TEST_F(PoolTest, SessionsRunInTheOrderOfArrival) {
    m_proxy->m_queueRatio = 0;
    OpenPool pool(1, 0);
    StartBusy(pool, 1);
    std::vector<int> order;
    for (int i = 0; i < 20; ++i) pool.QueueConnection(new NotingSession(order, i), true);
    m_door.Open();
    pool.Shutdown();
    std::vector<int> expected(20);
    for (int i = 0; i < 20; ++i) expected[static_cast<std::size_t>(i)] = i;
    EXPECT_EQ(order, expected);
}

TEST_F(PoolTest, ShutdownDrainsTheQueueBeforeItReturns) {
    m_proxy->m_queueRatio = 0;
    OpenPool pool(2, 0);
    StartBusy(pool, 2);
    unsigned long const ran = CounterValue("connections.ran");
    for (int i = 0; i < 50; ++i) pool.QueueConnection(new GatedSession(m_door, m_running), true);
    std::thread opener([&] { m_door.Open(); });
    pool.Shutdown();
    opener.join();
    EXPECT_EQ(m_running, 52);
    EXPECT_EQ(CounterValue("connections.ran") - ran, 50u);
    EXPECT_EQ(pool.Threads(), 0u);
}

TEST_F(PoolTest, ShutdownOfAPoolWithoutThreadsReturnsAtOnce) {
    OpenPool pool(1, 0);
    pool.Shutdown();
    EXPECT_EQ(pool.Threads(), 0u);
}

TEST_F(PoolTest, SessionIsToldTheProcessThatRunsIt) {
    OpenPool pool(1, 0);
    std::atomic<int> seen{0};
    pool.QueueConnection(new PidSession(seen), false);
    pool.Shutdown();
    EXPECT_EQ(seen, ::getpid());
}

TEST_F(PoolTest, RemovingNothingIsAllowed) {
    OpenPool pool(1, 0);
    pool.RemoveConnection(nullptr);
}

TEST_F(PoolTest, EachSessionIsReportedAsQueuedWithItsAttributes) {
    velt_testing::EventCapture events;
    events.Expect(VELT::events::SESSION_QUEUED);
    OpenPool pool(1, 0);
    m_door.Open();
    pool.QueueConnection(new GatedSession(m_door), false);
    pool.Shutdown();
    EXPECT_EQ(velt_testing::TextAt(events.Bag(VELT::events::SESSION_QUEUED), "connection.connection_type"), "Proxy");
}

TEST_F(PoolTest, AcceptorWithSiblingsWaitsUntilAThreadIsFree) {
    OpenPool pool(1, 0);
    StartBusy(pool, 1);
    pool.WaitForFreeThread(1);  // gives up
    std::atomic<bool> free{false};
    std::thread acceptor([&] {
        pool.WaitForFreeThread(60000);
        free = true;
    });
    EXPECT_FALSE(free);
    m_door.Open();
    acceptor.join();
    EXPECT_TRUE(free);
    EXPECT_EQ(pool.Idle(), 1);
    pool.WaitForFreeThread(60000);  // at once
    pool.Shutdown();
}

TEST_F(PoolTest, AcceptorDoesNotWaitWhileThePoolMayGrow) {
    OpenPool pool(2, 0);
    StartBusy(pool, 1);
    pool.WaitForFreeThread(60000);
    m_door.Open();
    pool.Shutdown();
}

}  // namespace
