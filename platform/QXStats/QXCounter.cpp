#include <QXStats/CounterTable.h>
#include <QXStats/QXCounter.h>

#include <map>
#include <mutex>

namespace QXStats {
namespace {

struct Counters {
    std::mutex mutex;
    std::map<std::string, detail::Counter*, std::less<>> byName;  // guarded by mutex, as is all here
    CounterTable* table = nullptr;
    std::string process;
};

Counters& All() {
    static Counters& all = *new Counters;
    return all;
}

// Moves the counter into the table, with what it has counted on its own. Without room it stays as it is.
void Attach(detail::Counter& counter, CounterTable& table) {
    std::atomic<unsigned long>* const cell = table.Find(counter.name);
    if (!cell) return;
    counter.cell.store(cell, std::memory_order_release);
    cell->fetch_add(counter.own.exchange(0));
}

detail::Counter* FindOrMake(std::string name) {
    Counters& all = All();
    std::lock_guard const lock(all.mutex);
    auto const found = all.byName.find(name);
    if (found != all.byName.end()) return found->second;
    auto* const counter = new detail::Counter{std::move(name), {nullptr}};
    counter->cell.store(&counter->own);
    if (all.table) Attach(*counter, *all.table);
    all.byName.emplace(counter->name, counter);
    return counter;
}

}  // namespace

QXCounter::QXCounter(std::string name) : m_counter(FindOrMake(std::move(name))) {}

void QXCounter::initialise(std::string const& process) {
    Counters& all = All();
    std::lock_guard const lock(all.mutex);
    if (all.table && all.process == process) return;
    all.table = CounterTable::OpenShared(process);
    all.process = process;
    for (auto const& [name, counter] : all.byName) Attach(*counter, *all.table);
}

}  // namespace QXStats
