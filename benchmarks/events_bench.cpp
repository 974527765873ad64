// What a report costs that nobody reads: beside one relaxed load and a branch, which it should be.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "velt/logging/Events.h"
#include "velt/logging/Keys.h"
#include "velt/logging/Log.h"

namespace {

std::atomic<unsigned long> g_allocations{0};

void Event_off(benchmark::State& state) {
    VELT::events::SESSION_QUEUED.enable(false);
    long value = 1;
    unsigned long const before = g_allocations;
    for (auto _ : state) {
        benchmark::DoNotOptimize(value);
        VELT::LogEvent(VELT::events::SESSION_QUEUED,
                       [&] { return KORlog::InfoBag(VELT::QXPROP_VELT_ID(std::to_string(value))); });
    }
    state.counters["allocations"] = static_cast<double>(g_allocations - before);
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

[[gnu::noinline]] void* operator new(std::size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* const memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
