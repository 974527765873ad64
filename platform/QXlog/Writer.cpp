#include <QXlog/Writer.h>

#include <algorithm>
#include <chrono>
#include <csignal>

namespace QXlog::detail {
namespace {

// How long a first record waits for others, so that the reports of a busy process share one wake-up of the thread.
constexpr std::chrono::milliseconds kGather{5};

// Signals are for the threads of the program: the one started meanwhile takes none.
class NoSignals {
public:
    NoSignals() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~NoSignals() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    NoSignals(NoSignals const&) = delete;
    NoSignals& operator=(NoSignals const&) = delete;

private:
    sigset_t m_before;
};

}  // namespace

Writer::Writer(std::size_t size, bool dropWhenFull, Deliver deliver)
    : m_size(size), m_dropWhenFull(dropWhenFull), m_deliver(std::move(deliver)) {
    NoSignals const quiet;
    m_thread = std::thread([this] { Run(); });
}

Writer::Pushed Writer::Push(Record& record) {
    std::unique_lock lock(m_mutex);
    bool const full = m_records.size() >= m_size;
    if (full && !m_ended && m_dropWhenFull) return Pushed::Dropped;
    m_room.wait(lock, [this] { return m_ended || m_records.size() < m_size; });
    if (m_ended) return Pushed::Ended;
    m_records.push_back(std::move(record));
    if (m_records.size() == 1 || m_records.size() == EnoughToWrite()) m_work.notify_one();
    return full ? Pushed::TakenAfterWait : Pushed::Taken;
}

std::size_t Writer::EnoughToWrite() const { return std::max<std::size_t>(1, m_size / 2); }

bool Writer::Drain(int stepMs, int mostSteps) {
    std::unique_lock lock(m_mutex);
    auto const idle = [this] { return m_records.empty() && !m_writing; };
    for (int step = 0; step < mostSteps; ++step) {
        std::size_t const seen = m_written;
        if (m_idle.wait_for(lock, std::chrono::milliseconds(stepMs), idle)) return true;
        if (m_written == seen) break;
    }
    return false;
}

void Writer::Finish() {
    {
        std::lock_guard const lock(m_mutex);
        m_ended = true;
    }
    m_work.notify_all();
    m_room.notify_all();
    if (m_thread.joinable()) m_thread.join();
}

void Writer::Run() {
    std::deque<Record> batch;
    for (;;) {
        {
            std::unique_lock lock(m_mutex);
            m_work.wait(lock, [this] { return m_ended || !m_records.empty(); });
            if (m_records.empty()) return;
            m_work.wait_for(lock, kGather, [this] { return m_ended || m_records.size() >= EnoughToWrite(); });
            batch.swap(m_records);
            m_writing = true;
        }
        m_room.notify_all();
        for (Record& record : batch) {
            m_deliver(record);
            ++m_written;
        }
        batch.clear();
        std::lock_guard const lock(m_mutex);
        m_writing = false;
        m_idle.notify_all();
    }
}

}  // namespace QXlog::detail
