// What a reader of settings pays, with the real store under it: the price of the names, the slot, the store's look-up,
// the clamping; beside one look-up in a hash table of the four pointers that the store is asked with, without a lock
// and with one that readers share.
#include <benchmark/benchmark.h>
#include <eFabric/Policy.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <shared_mutex>
#include <string>
#include <tuple>
#include <unordered_map>

#include <velt/Config.h>
#include <velt/config_details/settings/network.h>
#include <velt/config_details/settings/process.h>

#include "benchmarks/Allocations.h"

namespace {

using VELT::Config;

constexpr char const* kRules = R"(<rules version="1">
  <policy name="base">
    <settings section="network"><set name="Timeout">60</set><set name="NetMem">8</set>
      <list name="BindPorts"><item>25</item><item>587</item></list></settings>
    <settings section="process"><set name="UserId">mail</set></settings>
  </policy>
  <policy name="content" base="base"><settings section="network"><set name="Timeout">90</set></settings></policy>
  <policy name="content_in" base="content">
    <identity name="staff"><settings section="network"><set name="Timeout">120</set></settings></identity>
  </policy>
</rules>)";

// A store read from a file, and a Config whose identities are known, as in the middle of a session.
class World {
public:
    static World& get() {
        static World* const world = new World;
        return *world;
    }
    Config config;
    bool good = false;

private:
    World() {
        std::string folder = std::filesystem::temp_directory_path() / "velt-config-bench-XXXXXX";
        if (!::mkdtemp(folder.data())) return;
        ::setenv("VELT_ROOT", folder.c_str(), 1);
        std::ofstream(folder + "/rules.xml") << kRules;
        eFabric::eConfig files;
        files.rules = std::filesystem::path(folder + "/rules.xml").wstring();
        KORPropertyBag bag;
        eFabric::IPolicyLoader* const store = CreatePolicyLoader(3, 1);
        good = store->initialise(files, 0, &bag);
        Config::initialise(store);
        config.inbound = true;
        config.policies[Config::POLICY_CONTENT].identity = store->internAttribute("staff");
        std::filesystem::remove_all(folder);
        good = good && VELT::ReadSetting<VELTCFG::network::Timeout>(config, Config::POLICY_CONTENT) == 120;
    }
};

template <class Read>
void Measure(benchmark::State& state, Read read) {
    World& world = World::get();
    if (!world.good) return state.SkipWithError("the store did not load");
    benchmark::DoNotOptimize(read(world.config));
    CountedAllocations const counted(state);
    for (auto _ : state) benchmark::DoNotOptimize(read(world.config));
}

void Setting_read(benchmark::State& state) {
    Measure(state, [](Config& config) {
        return VELT::ReadSetting<VELTCFG::network::Timeout>(config, Config::POLICY_CONTENT);
    });
}
BENCHMARK(Setting_read);

void Setting_readOfBase(benchmark::State& state) {
    Measure(state, [](Config& config) { return VELT::ReadSetting<VELTCFG::network::NetMem>(config); });
}
BENCHMARK(Setting_readOfBase);

void Setting_readOfDefault(benchmark::State& state) {
    Measure(state, [](Config& config) { return VELT::ReadSetting<VELTCFG::process::ProxyIdleTimeout>(config); });
}
BENCHMARK(Setting_readOfDefault);

void Setting_readOfText(benchmark::State& state) {
    Measure(state, [](Config& config) { return VELT::ReadSetting<VELTCFG::process::UserId>(config).size(); });
}
BENCHMARK(Setting_readOfText);

struct PointerHash {
    std::size_t operator()(std::tuple<void const*, void const*, void const*, void const*> const& key) const {
        auto const mix = [](std::size_t seed, void const* p) {
            return (seed ^ reinterpret_cast<std::size_t>(p)) * 0x9e3779b97f4a7c15ull;
        };
        return mix(mix(mix(mix(0, std::get<0>(key)), std::get<1>(key)), std::get<2>(key)), std::get<3>(key));
    }
};

using Key = std::tuple<void const*, void const*, void const*, void const*>;
using Table = std::unordered_map<Key, unsigned, PointerHash>;

char const kTexts[64] = {};

Table TableOfPointers() {
    Table table;
    for (int i = 0; i < 32; ++i) table[{&kTexts[i % 9], &kTexts[i % 3], &kTexts[i % 5], &kTexts[i]}] = 60u + i;
    return table;
}

Key const kKey{&kTexts[7], &kTexts[1], &kTexts[2], &kTexts[7]};

void Setting_hashLookup(benchmark::State& state) {
    Table const table = TableOfPointers();
    Key key = kKey;
    for (auto _ : state) {
        benchmark::DoNotOptimize(key);
        benchmark::DoNotOptimize(table.find(key)->second);
    }
}
BENCHMARK(Setting_hashLookup);

void Setting_lockedHashLookup(benchmark::State& state) {
    Table const table = TableOfPointers();
    std::shared_mutex mutex;
    Key key = kKey;
    for (auto _ : state) {
        benchmark::DoNotOptimize(key);
        std::shared_lock<std::shared_mutex> const hold(mutex);
        benchmark::DoNotOptimize(table.find(key)->second);
    }
}
BENCHMARK(Setting_lockedHashLookup);

}  // namespace
