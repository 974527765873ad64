#include "velt/scanning/SpinBundle.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <thread>
#include <vector>

#include "velt/logging/Events.h"
#include "velt/scanning/ScanRun.h"
#include "velt/scanning/ScannerWatch.h"
#include "velt/scanning/ScanningTest.h"

using namespace VELT;
using namespace velt_testing;
namespace fs = std::filesystem;

namespace {

class StuckScan : public ScanningTest {
protected:
    StuckScan() {
        events.Allow(events::FLAT_SPIN);
        AtScan([this] {
            if (m_stuck.exchange(false)) Stick();
        });
    }
    ~StuckScan() override {
        Configure(0, true);
        ::alarm(0);
    }

    void Configure(unsigned timeout, bool threads) {
        SetWatch(timeout, threads);
        Initialise();
    }
    // The watch's visits are the test's own.
    void Watch(bool threads) {
        Configure(10, threads);
        SpinBundle::start();
    }

    // A scan on a thread of its own, which the engine does not end before Release.
    void Begin() {
        m_thread = std::thread([this] { result = Scan(context, output); });
        m_inEngine.Wait();
        run_callback(0);  // what is new waits for the next run
    }
    void Release() {
        m_release = true;
        m_thread.join();
    }
    static int Scan(ScanContext& item, ScanOutput*& out) {
        std::unique_ptr<Scanner> const scanner(Scanner::get(&item));
        unsigned count = 0;
        if (scanner->setup_scan(count) != 0) return -2;
        return scanner->scan(0, out, false);
    }

    fs::path Spins() { return fs::path(world.proxy().m_scanDir) / "spins"; }
    std::vector<fs::path> Bundles() {
        std::vector<fs::path> found;
        std::error_code none;
        for (auto const& entry : fs::directory_iterator(Spins(), none)) found.push_back(entry.path());
        return found;
    }
    std::string Read(fs::path const& path) {
        return world.root().Read(fs::relative(path, world.root().path()).string());
    }
    static mode_t ModeOf(fs::path const& path) {
        struct stat facts {};
        ::stat(path.c_str(), &facts);
        return facts.st_mode & 07777;
    }

    std::function<void()> atStick;
    int result = -3;
    FixedTime time;

private:
    // Its sleeps let a sanitizer bring signals in.
    void Stick() {
        m_inEngine.Open();
        if (atStick) return atStick();
        while (!m_release) ::poll(nullptr, 0, 1);
    }

    std::atomic<bool> m_stuck{true};
    std::atomic<bool> m_release{false};
    Door m_inEngine;
    std::thread m_thread;
};

using StuckScanInAHandler = StuckScan;
using StuckScanTooOften = StuckScan;

TEST_F(StuckScan, LeavesABundleWithAllThatIsKnown) {
    Watch(true);
    Begin();
    time.Pass(10);
    run_callback(0);
    EXPECT_TRUE(Bundles().empty());
    time.Pass(1);
    run_callback(0);
    ASSERT_EQ(Bundles().size(), 1u);
    fs::path const bundle = Bundles().front();
    run_callback(0);
    EXPECT_EQ(Bundles().size(), 1u) << "one for each stuck scan";
    Release();
    EXPECT_EQ(result, 0);

    std::string const report = Read(bundle / "report");
    for (std::string const& line : {"process: " + std::to_string(::getpid()) + "\n", std::string("seconds: 11\n"),
                                    std::string("policy: content_in\n"), std::string("identity: staff\n"),
                                    "session: " + session.getId() + "\n", std::string("size: 11\n")})
        EXPECT_NE(report.find(line), std::string::npos) << line << " in\n" << report;
    EXPECT_EQ(Read(bundle / "item"), "one message");
    EXPECT_EQ(ModeOf(Spins()), 0700u);
    EXPECT_EQ(ModeOf(bundle), 0700u);
    for (char const* const name : {"report", "threads", "item"}) EXPECT_EQ(ModeOf(bundle / name), 0600u) << name;
}

TEST_F(StuckScan, BacktracesEveryThreadTheScansFirst) {
    Watch(true);
    Begin();
    time.Pass(11);
    run_callback(0);
    Release();
    ASSERT_EQ(Bundles().size(), 1u);
    std::string const threads = Read(Bundles().front() / "threads");
    std::string const report = Read(Bundles().front() / "report");
    std::size_t const at = report.find("\nthread: ") + 9;
    std::string const scanning = report.substr(at, report.find('\n', at) - at);
    EXPECT_EQ(threads.rfind("thread " + scanning + " ", 0), 0u) << threads;
    EXPECT_NE(threads.find(", which scans:\n  #0 "), std::string::npos) << threads;
    EXPECT_NE(threads.find("thread " + std::to_string(::gettid()) + " "), std::string::npos) << threads;
#ifndef VELT_SANITIZED  // which may have a thread of its own, with every signal blocked
    EXPECT_EQ(threads.find("no answer"), std::string::npos) << threads;
#endif
    std::string const program = fs::read_symlink("/proc/self/exe");
    EXPECT_NE(threads.find(" " + program + "+0x"), std::string::npos) << threads;
}

TEST_F(StuckScan, ItsItemOnDiskIsKeptUnderASecondName) {
    Watch(true);
    std::string spool = world.root() / "scandir";
    ScannerStream::set_buffer_pool(0, 64);
    ScannerStream large("large", false);
    std::string const content(10000, 'x');
    large.write(content.data(), static_cast<unsigned>(content.size()));
    ASSERT_FALSE(large.get_spool_file().empty());
    context.data = &large;
    Begin();
    time.Pass(11);
    run_callback(0);
    Release();
    ASSERT_EQ(Bundles().size(), 1u);
    EXPECT_EQ(Read(Bundles().front() / "item"), content);
    EXPECT_NE(Read(Bundles().front() / "report").find("item: " + large.get_spool_file() + "\n"), std::string::npos);
    ScannerStream::set_buffer_pool(0, 4096);
}

TEST_F(StuckScan, LeavesTheOtherSessionsTheirScans) {
    Watch(true);
    Begin();
    for (int second = 1; second <= 70; ++second) {
        time.Pass(1);
        for (unsigned bucket = 0; bucket < 10; ++bucket) run_callback(bucket);
        CountingSession other;
        ScannerStream content{64u};
        content.write("other", 5u);
        ScanContext item;
        Fill(item, other, content);
        ScanOutput* out = nullptr;
        EXPECT_EQ(Scan(item, out), 0) << second;
        delete out;
    }
    EXPECT_EQ(session.callbacks, 70);
    Release();
    EXPECT_EQ(result, 0);
}

TEST_F(StuckScan, ADirectoryThatIsALinkIsNotWrittenInto) {
    Watch(true);
    fs::create_directories(world.root() / "elsewhere");
    fs::remove(Spins());
    fs::create_directory_symlink(world.root() / "elsewhere", Spins());
    Begin();
    time.Pass(11);
    run_callback(0);
    Release();
    EXPECT_TRUE(fs::is_empty(world.root() / "elsewhere"));
    EXPECT_EQ(events.Count(events::FLAT_SPIN), 1u);
}

// The same from a handler of the alarm, on the thread that is in the engine.
TEST_F(StuckScanInAHandler, LeavesTheSameBundle) {
    Watch(false);
    atStick = [this] {
        ::raise(SIGALRM);
        time.Pass(11);
        ::raise(SIGALRM);
    };
    EXPECT_EQ(Scan(context, output), 0);
    ASSERT_EQ(Bundles().size(), 1u);
    fs::path const bundle = Bundles().front();
    EXPECT_EQ(Read(bundle / "item"), "one message");
    EXPECT_NE(Read(bundle / "report").find("identity: staff\n"), std::string::npos);
    EXPECT_NE(Read(bundle / "threads").find(", which scans:\n  #0 "), std::string::npos);
    EXPECT_GE(session.callbacks, 1);
}

// The last one: afterwards the process keeps no more.
TEST_F(StuckScanTooOften, AProcessKeepsSixteenAtMost) {
    Watch(true);
    WatchedItem const item{Intern("content_in"), Intern("staff"), nullptr, 0};
    for (int i = 0; i < 20; ++i) SpinBundle::write(item, "id", 11);
    EXPECT_LE(Bundles().size(), 16u);
    EXPECT_GE(Bundles().size(), 10u);
}

}  // namespace
