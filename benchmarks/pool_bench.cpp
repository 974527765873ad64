// The hand-over of a session to a thread of the pool, beside the same hand-over through a plain queue with a mutex and
// a condition. One run measures both; the pool may cost at most 1.3 times the plain queue.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <atomic>
#include <deque>

#include <QXlog/QXlog.h>
#include <velt/connection/Connection.h>
#include <velt/runtime/ConnThreadPool.h>
#include <velt/runtime/Proxy.h>

namespace {

constexpr int kBatch = 256;  // sessions on their way at once

// Counts what has run and wakes the thread that waits for a whole batch.
class Finish {
public:
    void Expect(int count) { m_left.store(count, std::memory_order_relaxed); }
    void One() {
        if (m_left.fetch_sub(1, std::memory_order_acq_rel) == 1) m_left.notify_one();
    }
    void Wait() {
        for (int left; (left = m_left.load(std::memory_order_acquire)) > 0;) m_left.wait(left);
    }

private:
    std::atomic<int> m_left{0};
};

class CountingSession : public VELT::Connection {
public:
    explicit CountingSession(Finish& finish) : m_finish(finish) {}
    void Run() override { m_finish.One(); }

private:
    Finish& m_finish;
};

// Sessions are made and deleted by the benchmark: what is measured is the hand-over.
class KeepingPool : public VELT::ConnThreadPool {
public:
    using ConnThreadPool::ConnThreadPool;
    void RemoveConnection(VELT::Connection*) override {}
};

// The least that a queue of sessions can be.
class PlainQueue {
public:
    explicit PlainQueue(int threads) : m_threads(static_cast<std::size_t>(threads)) {
        for (pthread_t& thread : m_threads) ::pthread_create(&thread, nullptr, &PlainQueue::Entry, this);
    }
    ~PlainQueue() {
        ::pthread_mutex_lock(&m_mutex);
        m_ending = true;
        ::pthread_cond_broadcast(&m_ready);
        ::pthread_mutex_unlock(&m_mutex);
        for (pthread_t const thread : m_threads) ::pthread_join(thread, nullptr);
    }
    PlainQueue(PlainQueue const&) = delete;
    PlainQueue& operator=(PlainQueue const&) = delete;

    void Push(VELT::Connection* session) {
        ::pthread_mutex_lock(&m_mutex);
        m_queue.push_back(session);
        if (m_idle != 0) ::pthread_cond_signal(&m_ready);
        ::pthread_mutex_unlock(&m_mutex);
    }

private:
    static void* Entry(void* self) {
        while (VELT::Connection* const session = static_cast<PlainQueue*>(self)->Pop()) session->Run();
        return nullptr;
    }
    VELT::Connection* Pop() {
        ::pthread_mutex_lock(&m_mutex);
        while (m_queue.empty() && !m_ending) {
            ++m_idle;
            ::pthread_cond_wait(&m_ready, &m_mutex);
            --m_idle;
        }
        VELT::Connection* session = nullptr;
        if (!m_queue.empty()) {
            session = m_queue.front();
            m_queue.pop_front();
        }
        ::pthread_mutex_unlock(&m_mutex);
        return session;
    }

    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t m_ready = PTHREAD_COND_INITIALIZER;
    std::deque<VELT::Connection*> m_queue;
    std::vector<pthread_t> m_threads;
    int m_idle = 0;
    bool m_ending = false;
};

void PrepareProcess() {
    static auto& proxy = *new VELT::Proxy;
    proxy.m_queueRatio = 0;
    QXlog::detail::noLogging();
}

template <class HandOver>
void Batches(benchmark::State& state, HandOver handOver) {
    Finish finish;
    CountingSession session(finish);
    for (auto _ : state) {
        finish.Expect(kBatch);
        for (int i = 0; i < kBatch; ++i) handOver(&session);
        finish.Wait();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_PlainQueue(benchmark::State& state) {
    PrepareProcess();
    PlainQueue queue(static_cast<int>(state.range(0)));
    Batches(state, [&](VELT::Connection* session) { queue.Push(session); });
}

void BM_Pool(benchmark::State& state) {
    PrepareProcess();
    KeepingPool pool(1, 0);
    pool.StartPool(static_cast<int>(state.range(0)));
    Batches(state, [&](VELT::Connection* session) { pool.QueueConnection(session, true); });
    pool.Shutdown();
}

BENCHMARK(BM_PlainQueue)->Arg(1)->Arg(4)->MeasureProcessCPUTime();
BENCHMARK(BM_Pool)->Arg(1)->Arg(4)->MeasureProcessCPUTime();

}  // namespace
