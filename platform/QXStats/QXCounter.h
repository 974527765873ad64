// QXCounter: a named counter in memory that all processes of one proxy share; it survives the worker that moved it.
// Threads: any, and signal handlers: an increment is one lock-free atomic add, without allocation.
// Before initialise, and for a name that finds no room, the counter lives in this process alone.
// Counters of one name are one counter. A counter object is never destroyed before the process ends.
#pragma once

#include <atomic>
#include <string>

#include <Export.h>

namespace QXStats {

class VELTPLATFORM_API QXCounter {
public:
    explicit QXCounter(std::string name);
    static void initialise(std::string const& process);  // maps the table of this proxy; its name is the proxy's

    QXCounter& operator++();
    unsigned long operator++(int);
    unsigned long value() const;
    std::string const& name() const { return m_name; }

private:
    std::string m_name;
    std::atomic<std::atomic<unsigned long>*> m_cell;
};

}  // namespace QXStats
