// QXCounter: a named counter in memory that all processes of one proxy share; it survives the worker that moved it.
// Threads: any, and signal handlers: an increment is one lock-free atomic add, without allocation.
// Before initialise, and for a name that finds no room, the counter lives in this process alone.
// Counters of one name are one counter; a QXCounter is a handle to it, and what it counts in is never freed.
// docs/formats/counters.md describes the shared table, which velt-counters reads.
#pragma once

#include <atomic>
#include <string>

#include <Export.h>

namespace QXStats {

namespace detail {
struct Counter {  // immortal; one per name and process
    std::string name;
    std::atomic<std::atomic<unsigned long>*> cell;
    std::atomic<unsigned long> own{0};  // counts until the table is there
};
}  // namespace detail

class VELTPLATFORM_API QXCounter {
public:
    explicit QXCounter(std::string name);  // allocates: not in a signal handler

    // Maps the table of this proxy, named by the proxy, and moves into it what was counted so far. Call it before there
    // are threads, and before the first fork. Never fails: without a file the table is shared with children only.
    static void initialise(std::string const& process);

    QXCounter& operator++() {
        ++*this->m_counter->cell.load(std::memory_order_acquire);
        return *this;
    }
    unsigned long operator++(int) { return (*m_counter->cell.load(std::memory_order_acquire))++; }
    unsigned long value() const { return m_counter->cell.load(std::memory_order_acquire)->load(); }
    std::string const& name() const { return m_counter->name; }

private:
    detail::Counter* m_counter;
};

}  // namespace QXStats
