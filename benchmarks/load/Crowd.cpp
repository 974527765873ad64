#include "Crowd.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <thread>
#include <vector>

#include "Options.h"
#include "Tally.h"

namespace velt_load {

namespace {

constexpr std::chrono::milliseconds kBetweenClients{1};

struct Shared {
    std::atomic<unsigned> taken{0};
    std::mutex mutex;
    // Guarded by mutex.
    Latencies latencies;
    unsigned long good = 0, failed = 0;
};

void WorkOff(Shared& shared, unsigned count, Work const& work) {
    while (shared.taken++ < count) {
        double const begun = Now();
        bool const good = work();
        double const seconds = Now() - begun;
        std::lock_guard<std::mutex> const guard(shared.mutex);
        ++(good ? shared.good : shared.failed);
        if (good) shared.latencies.Add(seconds);
    }
}

}  // namespace

void RunCrowd(char const* items, unsigned clients, unsigned count, std::function<Work()> const& newClient) {
    Shared shared;
    double const begun = Now();
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < clients; ++i) {
        threads.emplace_back([&] { WorkOff(shared, count, newClient()); });
        std::this_thread::sleep_for(kBetweenClients);  // they come one after the other, as they do later on
    }
    for (std::thread& thread : threads) thread.join();
    double const seconds = Now() - begun;
    auto const& latencies = shared.latencies;
    std::printf(
        "{\"%s\":%lu,\"failed\":%lu,\"seconds\":%.3f,\"rate\":%.1f,"
        "\"latency_us\":{\"p50\":%lu,\"p99\":%lu,\"p999\":%lu,\"max\":%lu}}\n",
        items, shared.good, shared.failed, seconds, static_cast<double>(shared.good) / seconds, latencies.At(0.5),
        latencies.At(0.99), latencies.At(0.999), latencies.longest());
}

std::string FileText(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) Usage();
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace velt_load
