// What a scan costs above the spool and the session: the chain of scanners, the agent, the scan thread's object, the
// plan that is read from the policy, the walk over the message and the content that is handed back, with every engine
// off. Beside it the spool alone, which is read, copied and read once more, and the same scan with the engines on.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <velt/Config.h>
#include <velt/connection/Connection.h>
#include <velt/results/ProcessScanResult.h>
#include <velt/runtime/Proxy.h>
#include <velt/scanning/EFabricScanAgent.h>
#include <velt/scanning/ScanContext.h>
#include <velt/scanning/Scanner.h>
#include <velt/streams/ScannerStream.h>

#include "benchmarks/Allocations.h"

namespace {

constexpr unsigned kMemoryBytes = 1 << 20;  // of a content, before it goes to disk
constexpr unsigned kBlockBytes = 64 << 10;

char const kRules[] = R"(<rules version="1">
  <policy name="content_in"/>
  <policy name="off">
    <settings section="KORAVScanner"><set name="Enabled">false</set></settings>
    <settings section="KORContentScanner"><set name="Enabled">false</set></settings>
    <settings section="KORFormatScanner"><set name="Enabled">false</set></settings>
  </policy>
</rules>)";

std::string Message(std::size_t size) {
    std::string text = "From: a@example.test\r\nTo: b@example.test\r\nSubject: figures\r\n\r\n";
    while (text.size() < size)
        text += "The quick brown fox jumps over the lazy dog, and then it does so once again.\r\n";
    return text;
}

// The library as a gateway has it after its start, with a root of its own.
class World {
public:
    static World& get() {
        static World* const world = new World;
        return *world;
    }
    InternedString Intern(char const* text) const { return m_loader->internAttribute(text); }

    VELT::Connection session;
    bool good = false;

private:
    World() {
        std::string folder = std::filesystem::temp_directory_path() / "velt-scanning-bench-XXXXXX";
        if (!::mkdtemp(folder.data())) return;
        ::setenv("VELT_ROOT", folder.c_str(), 1);
        std::filesystem::create_directories(folder + "/config/qxxmlconf");
        std::ofstream(folder + "/config/qxxmlconf/rules.xml") << kRules;
        auto* const proxy = new VELT::Proxy;
        VELT::ScannerStream::set_buffer_pool(4, kMemoryBytes);
        VELT::ScannerStream::set_spool_dir(folder);
        good = VELT::EFabricScanAgent::load("", "bench", false, nullptr);
        m_loader = VELT::EFabricScanAgent::getPolicyLoader();
        VELT::Config::initialise(m_loader);
        VELT::Scanner::initialise(&proxy->m_config);
        VELT::ScanAgent::start();
        std::filesystem::remove_all(folder);
    }
    eFabric::IPolicyLoader* m_loader = nullptr;
};

// A message as it has come in; null: there was no room.
std::unique_ptr<VELT::ScannerStream> Spooled(benchmark::State const& state) {
    std::string const text = Message(static_cast<std::size_t>(state.range(0)));
    auto spool = std::make_unique<VELT::ScannerStream>("scanned", false);
    if (spool->write(text.data(), static_cast<unsigned>(text.size())) != static_cast<long>(text.size())) return nullptr;
    return spool;
}

// As a gateway does for one identity, up to the question whether there is a finding.
bool IsScannedClean(VELT::ScanContext& context) {
    std::unique_ptr<VELT::Scanner> const scanner(VELT::Scanner::get(&context));
    unsigned count = 0;
    VELT::ScanOutput* given = nullptr;
    bool const scanned = scanner->setup_scan(count) == 0 && count == 1 && scanner->scan(0, given, false) == 0;
    std::unique_ptr<VELT::ScanOutput> const output(given);
    return scanned && output && !VELT::ProcessScanResult().DoFallBackScan(output.get()) &&
           !output->result->IsTriggered();
}

void Scan(benchmark::State& state, char const* policy) {
    World& world = World::get();
    auto const spool = Spooled(state);
    VELT::ScanContext context;
    context.connection = &world.session;
    context.data = spool.get();
    context.policy = world.Intern(policy);
    context.identities = {InternedString()};
    if (!world.good || !spool || !IsScannedClean(context)) return state.SkipWithError("the message was not scanned");
    unsigned long const before = AllocationsOfThread();
    for (auto _ : state)
        if (!IsScannedClean(context)) state.SkipWithError("the message was not scanned");
    state.counters["allocations_each"] =
        benchmark::Counter(static_cast<double>(AllocationsOfThread() - before), benchmark::Counter::kAvgIterations);
}

void Scan_enginesOff(benchmark::State& state) { Scan(state, "off"); }
void Scan_enginesOn(benchmark::State& state) { Scan(state, "content_in"); }

// What no scan can do without: the content is read, a copy of it is made, and the copy is for whoever wants it.
void Scan_spool(benchmark::State& state) {
    World::get();
    auto const spool = Spooled(state);
    if (!spool) return state.SkipWithError("no spool");
    std::string block(kBlockBytes, 'x');
    for (auto _ : state) {
        VELT::ScannerStream copy("copy", true);
        for (int round = 0; round < 2; ++round) {
            spool->seek(0, 0);
            unsigned got = 0;
            while (spool->read(block.data(), kBlockBytes, &got) == 0 && got > 0)
                if (round == 1) copy.write(block.data(), got);
        }
        if (copy.size() != spool->size()) state.SkipWithError("the spool did not give the message");
    }
}

BENCHMARK(Scan_enginesOff)->Arg(4 << 10)->Arg(256 << 10);
BENCHMARK(Scan_enginesOn)->Arg(4 << 10)->Arg(256 << 10);
BENCHMARK(Scan_spool)->Arg(4 << 10)->Arg(256 << 10);

}  // namespace
