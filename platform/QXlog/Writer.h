// Writer: a bounded queue of records, and the thread that hands them to the sinks.
// Owner: the log. Threads: Push from any; Finish from one. No record that was taken is lost: Finish returns when all of
// them are written, and a Push that comes too late says so. Failure: the constructor throws std::system_error.
#pragma once

#include <QXlog/Record.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace QXlog::detail {

class Writer {
public:
    enum class Pushed { Taken, TakenAfterWait, Dropped, Ended };
    using Deliver = std::function<void(Record&)>;

    Writer(std::size_t size, bool dropWhenFull, Deliver deliver);
    Writer(Writer const&) = delete;
    Writer& operator=(Writer const&) = delete;

    Pushed Push(Record& record);  // moves from `record` when it is taken
    // Waits until all that was taken is written: for `mostSteps` steps of `stepMs`, and no longer than a step that sees
    // no record written. False: there is more.
    bool Drain(int stepMs, int mostSteps);
    void Finish();

    // Round a fork: the queue is whole in the child, whose writer thread does not exist. The child leaves the object
    // be.
    void LockForFork() { m_mutex.lock(); }
    void UnlockAfterFork() { m_mutex.unlock(); }

private:
    void Run();
    std::size_t EnoughToWrite() const;  // records that are written without waiting for more

    std::size_t const m_size;
    bool const m_dropWhenFull;
    Deliver const m_deliver;

    std::mutex m_mutex;  // guards all below
    std::condition_variable m_work;
    std::condition_variable m_room;
    std::condition_variable m_idle;
    std::deque<Record> m_records;
    bool m_ended = false;
    bool m_writing = false;                 // a batch is with the sinks
    std::atomic<std::size_t> m_written{0};  // the one that the lock does not guard

    std::thread m_thread;
};

}  // namespace QXlog::detail
