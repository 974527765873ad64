// Writer: a bounded queue of records, and the thread that hands them to the sinks.
// Owner: the log. Threads: Push from any; Finish from one. No record that was taken is lost: Finish returns when all of
// them are written, and a Push that comes too late says so. Failure: the constructor throws std::system_error.
#pragma once

#include <QXlog/Record.h>

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
    std::deque<Record> m_records;
    bool m_ended = false;

    std::thread m_thread;
};

}  // namespace QXlog::detail
