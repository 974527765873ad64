// What a report costs that nobody reads: beside one relaxed load and a branch, which it should be.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>

#include "benchmarks/Allocations.h"
#include "velt/logging/Events.h"
#include "velt/logging/Keys.h"
#include "velt/logging/Log.h"

namespace {

void Event_off(benchmark::State& state) {
    VELT::events::SESSION_QUEUED.enable(false);
    long value = 1;
    CountedAllocations const counted(state);
    for (auto _ : state) {
        benchmark::DoNotOptimize(value);
        VELT::LogEvent(VELT::events::SESSION_QUEUED,
                       [&] { return KORlog::InfoBag(VELT::QXPROP_VELT_ID(std::to_string(value))); });
    }
}

void Event_relaxedLoad(benchmark::State& state) {
    static std::atomic<bool> on{false};
    long value = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(value);
        if (on.load(std::memory_order_relaxed)) std::abort();
    }
}

BENCHMARK(Event_off);
BENCHMARK(Event_relaxedLoad);

}  // namespace
