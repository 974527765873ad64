// Allocations: how often memory was asked for, by the operators new of this program, which Allocations.cpp replaces.
#pragma once

#include <benchmark/benchmark.h>

// Those of the calling thread, since it began.
unsigned long AllocationsOfThread();

// Puts the thread's allocations between its making and its end under "allocations" of a benchmark.
class CountedAllocations {
public:
    explicit CountedAllocations(benchmark::State& state) : m_state(state), m_before(AllocationsOfThread()) {}
    ~CountedAllocations() { m_state.counters["allocations"] = static_cast<double>(AllocationsOfThread() - m_before); }
    CountedAllocations(CountedAllocations const&) = delete;
    CountedAllocations& operator=(CountedAllocations const&) = delete;

private:
    benchmark::State& m_state;
    unsigned long const m_before;
};
