#include "velt/scanning/ScannerThread.h"

#include <sys/resource.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "testing/Child.h"
#include "velt/errors/Failures.h"
#include "velt/scanning/ScanningTest.h"

using namespace VELT;
using namespace velt_testing;

namespace {

// The threads of the pool live as long as the process: what counts them wants a process of its own, which it has where
// each case is run by itself.
#define NEEDS_A_FRESH_POOL() \
    if (Counter("scanner.threads.started") != 0) GTEST_SKIP() << "a test before has made threads"

class ScanThreads : public ScanningTest {
protected:
    void Pool(unsigned most, unsigned initial) {
        Set("scanning", "MaxScannerThreads", FakeValue::Unsigned(most));
        Set("scanning", "InitialScannerThreads", FakeValue::Unsigned(initial));
        ScannerThread::initialise(&world.proxy().m_config);
        ScannerThread::start();
    }
    std::unique_ptr<Scanner> Get() { return std::unique_ptr<Scanner>(ScannerThread::get(&context)); }
    int Scan(Scanner& scanner, unsigned index = 0, bool fallback = false) {
        if (!fallback) delete std::exchange(output, nullptr);
        return scanner.scan(index, output, fallback);
    }
};

using ScanMeeting = ScanThreads;

TEST_F(ScanThreads, AreNoneByDefault) {
    NEEDS_A_FRESH_POOL();
    ScannerThread::initialise(&world.proxy().m_config);
    ScannerThread::start();
    EXPECT_EQ(ScannerThread::get(&context), nullptr);
    EXPECT_EQ(Counter("scanner.threads.started"), 0u);
}

TEST_F(ScanThreads, AreNoneWhereNoneAreAllowedWhateverTheStartWants) {
    NEEDS_A_FRESH_POOL();
    Pool(0, 5);
    EXPECT_EQ(Counter("scanner.threads.started"), 0u);
    EXPECT_EQ(ScannerThread::get(&context), nullptr);
}

TEST_F(ScanThreads, OfTheStartAreNotCountedAmongThoseOnDemand) {
    NEEDS_A_FRESH_POOL();
    Pool(2, 5);
    EXPECT_EQ(Counter("scanner.threads.started"), 2u);
    std::vector<std::unique_ptr<Scanner>> lent;
    for (int i = 0; i < 4; ++i) {
        lent.push_back(Get());
        ASSERT_NE(lent.back(), nullptr) << i;
    }
    EXPECT_EQ(ScannerThread::get(&context), nullptr);
    EXPECT_EQ(Counter("scanner.threads.started"), 4u);
    lent.clear();
    for (int i = 0; i < 4; ++i) lent.push_back(Get());
    EXPECT_EQ(ScannerThread::get(&context), nullptr);
    EXPECT_EQ(Counter("scanner.threads.started"), 4u) << "threads are kept, not made anew";
}

// At the start, and in all.
TEST_F(ScanThreads, AreAsManyAsTheSettingsSayOrElseTheirDefaults) {
    struct Row {
        FakeValue most, initial;
        unsigned long started, all;
    };
    Row const rows[] = {{FakeValue::Unsigned(4), FakeValue::Unsigned(2), 2, 6},
                        {FakeValue::Unsigned(1), FakeValue::Unsigned(1), 1, 2},
                        {FakeValue::Unsigned(3), FakeValue::Unreadable(), 1, 4},
                        {FakeValue::Unsigned(3), FakeValue::Unsigned(0), 1, 4},
                        {FakeValue::Unreadable(), FakeValue::Unsigned(4), 0, 0}};
    for (Row const& row : rows) {
        int const end = RawStatusOf([&] {
            unsigned long const before = Counter("scanner.threads.started");
            Set("scanning", "MaxScannerThreads", row.most);
            Set("scanning", "InitialScannerThreads", row.initial);
            ScannerThread::initialise(&world.proxy().m_config);
            ScannerThread::start();
            if (Counter("scanner.threads.started") - before != row.started) ::_exit(1);
            while (ScannerThread::get(&context)) {
            }
            ::_exit(Counter("scanner.threads.started") - before == row.all ? kCameBack : 2);
        });
        EXPECT_TRUE(Exited(end, kCameBack)) << row.started << " and " << row.all << ": " << end;
    }
}

TEST_F(ScanThreads, HaveTheStackThatTheSystemGivesEveryThread) {
    Pool(1, 1);
    std::size_t ofTheScan = 0, ofAnother = 0;
    AtScan([&] { ofTheScan = OwnStack(); });
    std::unique_ptr<Scanner> const scanner = Get();
    EXPECT_EQ(Scan(*scanner), 0);
    std::thread([&] { ofAnother = OwnStack(); }).join();
    EXPECT_EQ(ofTheScan, ofAnother);
}

TEST_F(ScanThreads, ThatAreAllBusyLeaveTheItemToTheSessionsOwnThread) {
    NEEDS_A_FRESH_POOL();
    Pool(1, 1);
    Initialise();
    std::vector<std::unique_ptr<Scanner>> lent;
    while (std::unique_ptr<Scanner> one = Get()) lent.push_back(std::move(one));
    ASSERT_EQ(lent.size(), 2u);
    std::unique_ptr<Scanner> const scanner(Scanner::get(&context));
    unsigned count = 0;
    EXPECT_EQ(scanner->setup_scan(count), 0);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(Counter("scanner.inline.scans"), 1u);
    EXPECT_EQ(Scan(*scanner), 0);
    EXPECT_EQ(Counter("scanner.threads.scans"), 0u);
}

TEST_F(ScanThreads, AreTheFirstChoice) {
    Pool(1, 1);
    Initialise();
    std::unique_ptr<Scanner> const scanner(Scanner::get(&context));
    unsigned count = 7;
    EXPECT_EQ(scanner->setup_scan(count), 0);
    EXPECT_EQ(count, 1u) << "one scan, whatever the number of identities";
    EXPECT_FALSE(scanner->is_streaming_media());
    int scannedOn = 0;
    AtScan([&] { scannedOn = ::gettid(); });
    auto const before = Counter("scanner.threads.scans"), inLine = Counter("scanner.inline.scans");
    EXPECT_EQ(Scan(*scanner), 0);
    EXPECT_EQ(Counter("scanner.threads.scans"), before + 1);
    EXPECT_EQ(Counter("scanner.inline.scans"), inLine);
    EXPECT_NE(scannedOn, ::gettid());
    EXPECT_EQ(session.callbacks, 0);
}

TEST_F(ScanThreads, AreLentFirstInFirstOut) {
    NEEDS_A_FRESH_POOL();
    Pool(1, 1);
    std::vector<int> scannedOn;
    AtScan([&] { scannedOn.push_back(::gettid()); });
    std::unique_ptr<Scanner> first = Get(), second = Get();
    EXPECT_EQ(Scan(*first), 0);
    EXPECT_EQ(Scan(*second), 0);
    ASSERT_NE(scannedOn[0], scannedOn[1]);
    second.reset();
    first.reset();
    EXPECT_EQ(Scan(*Get()), 0);
    EXPECT_EQ(scannedOn[2], scannedOn[1]);
    EXPECT_EQ(Scan(*Get()), 0);
    EXPECT_EQ(scannedOn[3], scannedOn[0]);
}

TEST_F(ScanThreads, ReturnToThePoolWithoutAScan) {
    NEEDS_A_FRESH_POOL();
    Pool(1, 1);
    std::unique_ptr<Scanner> const first = Get();
    for (int i = 0; i < 10; ++i) {
        std::unique_ptr<Scanner> second = Get();
        ASSERT_NE(second, nullptr);
        EXPECT_EQ(ScannerThread::get(&context), nullptr);
        ScannerThread::put(nullptr);
    }
    EXPECT_EQ(Counter("scanner.threads.started"), 2u);
    std::unique_ptr<Scanner> const second = Get();
    EXPECT_EQ(ScannerThread::get(&context), nullptr);
}

TEST_F(ScanThreads, ThatTheSystemRefusesAreNotCountedAndTheItemIsScannedInLine) {
    NEEDS_A_FRESH_POOL();
#ifdef VELT_SANITIZED
    GTEST_SKIP() << "a sanitizer needs its address space";
#endif
    Set("scanning", "MaxScannerThreads", FakeValue::Unsigned(1));
    Initialise();
    pthread_attr_t before, large;
    ::pthread_getattr_default_np(&before);
    ::pthread_attr_init(&large);
    ::pthread_attr_setstacksize(&large, 4UL << 30);
    rlimit room{};
    ::getrlimit(RLIMIT_AS, &room);
    rlimit const tight{2UL << 30, room.rlim_max};
    ASSERT_EQ(::pthread_setattr_default_np(&large), 0);
    ::setrlimit(RLIMIT_AS, &tight);
    EXPECT_THROW(ScannerThread::get(&context), FWException<fw_exception_tag::resource>);
    std::unique_ptr<Scanner> const instead(Scanner::get(&context));
    ::setrlimit(RLIMIT_AS, &room);
    ::pthread_setattr_default_np(&before);
    unsigned count = 0;
    EXPECT_EQ(instead->setup_scan(count), 0);
    EXPECT_EQ(Counter("scanner.inline.scans"), 1u);
    std::unique_ptr<Scanner> const scanner = Get();
    ASSERT_NE(scanner, nullptr);
    EXPECT_EQ(Scan(*scanner), 0);
}

// --- One scan ---

TEST_F(ScanMeeting, ScansTheFirstIdentityWhateverTheIndex) {
    Pool(1, 1);
    std::unique_ptr<Scanner> const scanner = Get();
    for (unsigned const index : {0u, 1u, 3u}) {
        ASSERT_EQ(Scan(*scanner, index), 0);
        EXPECT_EQ(output->identity, context.identities[0]);
    }
    context.identities.clear();
    EXPECT_EQ(Scan(*scanner, 0), -1);
    EXPECT_EQ(output, nullptr);
}

TEST_F(ScanMeeting, GivesWhatTheAgentGave) {
    Pool(1, 1);
    std::unique_ptr<Scanner> const scanner = Get();
    script.giveObject = false;
    EXPECT_EQ(Scan(*scanner), -1);
    script.giveObject = true;
    EXPECT_EQ(Scan(*scanner), 0);
    ASSERT_NE(output, nullptr);
    context.policy = Intern("content_out");
    script.takesPolicy = false;
    EXPECT_EQ(Scan(*scanner), -1) << "set-up failed";
    script.takesPolicy = true;
    EXPECT_EQ(output, nullptr);
}

TEST_F(ScanMeeting, AFallbackScanReplacesTheOutput) {
    Pool(1, 1);
    std::unique_ptr<Scanner> const scanner = Get();
    ASSERT_EQ(Scan(*scanner), 0);
    script.Forget();
    ASSERT_EQ(Scan(*scanner, 0, true), 0);
    auto const calls = script.Calls();
    EXPECT_EQ(calls.front(), "release object");
    ASSERT_NE(output, nullptr);
    EXPECT_EQ(Scan(*scanner, 0, true), 0);
}

// Scans of every length to a quarter of a minute: one callback for each five seconds that pass in it.
TEST_F(ScanMeeting, CallsTheSessionBackEveryFiveSeconds) {
    Pool(1, 1);
    std::unique_ptr<Scanner> const scanner = Get();
    for (int const seconds : {1, 4, 5, 6, 9, 10, 11, 12, 15, 16}) {
        FixedTime time;
        std::time_t const end = time.now() + seconds;
        Door engine;
        AtScan([&] { engine.Wait(); });
        ScriptedWaits const waits([&](pthread_cond_t* condition, pthread_mutex_t* mutex, timespec const* until) {
            if (until->tv_sec < end) {
                time.Pass(until->tv_sec - time.now());
                return ETIMEDOUT;
            }
            time.Pass(end - time.now());
            engine.Open();
            return ::pthread_cond_wait(condition, mutex);
        });
        session.callbacks = 0;
        EXPECT_EQ(Scan(*scanner), 0);
        EXPECT_EQ(session.callbacks, (seconds - 1) / 5) << seconds << " s";
    }
}

TEST_F(ScanMeeting, OutlastsWakeUpsThatMeanNothing) {
    Pool(1, 1);
    std::unique_ptr<Scanner> const scanner = Get();
    Door engine;
    bool scanned = false;
    AtScan([&] {
        engine.Wait();
        scanned = true;
    });
    int wakeUps = 0;
    ScriptedWaits const waits([&](pthread_cond_t* condition, pthread_mutex_t* mutex, timespec const*) {
        if (++wakeUps < 20) return 0;
        engine.Open();
        return ::pthread_cond_wait(condition, mutex);
    });
    EXPECT_EQ(Scan(*scanner), 0);
    EXPECT_TRUE(scanned);
    EXPECT_GE(wakeUps, 20);
    EXPECT_EQ(session.callbacks, 0);
    EXPECT_NE(output, nullptr);
}

TEST_F(ScanMeeting, AnEngineThatThrowsHasFailedAndItsThreadGoesOn) {
    Pool(1, 1);
    std::unique_ptr<Scanner> const scanner = Get();
    AtScan([] { throw std::runtime_error("engine"); });
    EXPECT_EQ(Scan(*scanner), -1);
    EXPECT_EQ(output, nullptr);
    script.scan = nullptr;
    EXPECT_EQ(Scan(*scanner), 0);
}

TEST_F(ScanMeeting, AHostThatThrowsGetsItsExceptionAfterTheScan) {
    Pool(1, 1);
    std::unique_ptr<Scanner> const scanner = Get();
    Door engine;
    bool scanned = false;
    AtScan([&] {
        engine.Wait();
        scanned = true;
    });
    session.onCallback = [&] {
        engine.Open();
        throw std::runtime_error("host");
    };
    {
        ScriptedWaits const waits([](pthread_cond_t*, pthread_mutex_t*, timespec const*) { return ETIMEDOUT; });
        EXPECT_THROW(Scan(*scanner), std::runtime_error);
    }
    EXPECT_TRUE(scanned);
    EXPECT_EQ(session.callbacks, 1);
    session.onCallback = nullptr;
    EXPECT_EQ(Scan(*scanner), 0);
}

// In a process of its own, in which no agent was initialised.
TEST(ScanMeetingBeforeStart, WithoutAnAgentTheScanHasFailed) {
    if (std::unique_ptr<ScanAgent> const agent(ScanAgent::get()); agent) GTEST_SKIP() << "initialised by a test before";
    SessionWorld world;
    FakePolicyStore store;
    Config::initialise(&store);
    store.Put("base", "scanning", "MaxScannerThreads", FakeValue::Unsigned(1));
    ScannerThread::initialise(&world.proxy().m_config);
    ScanContext context;
    ScanOutput* output = nullptr;
    std::unique_ptr<Scanner> const scanner(ScannerThread::get(&context));
    ASSERT_NE(scanner, nullptr);
    EXPECT_EQ(scanner->scan(0, output, false), -1);
    EXPECT_EQ(output, nullptr);
    Config::initialise(nullptr);
}

// --- Many ---

// One session's share of the items; each item gets its scanner as a session does, and waits for a thread of the pool.
void ScanItems(int items, InternedString policy, InternedString identity, std::atomic<int>& scanned) {
    CountingSession session;
    ScannerStream body{64u};
    body.write("item", 4u);
    ScanContext context;
    context.connection = &session;
    context.data = &body;
    context.policy = policy;
    context.identities = {identity};
    for (int i = 0; i < items; ++i) {
        std::unique_ptr<Scanner> scanner;
        while (!(scanner = std::unique_ptr<Scanner>(ScannerThread::get(&context)))) ::sched_yield();
        ScanOutput* output = nullptr;
        if (scanner->scan(0, output, false) == 0) ++scanned;
        delete output;
    }
}

// A request that a thread missed would hold its session for ever, and this test with it.
TEST_F(ScanThreads, OnDemandNeverMissTheirWork) {
    NEEDS_A_FRESH_POOL();
    Pool(1, 1);  // and one on demand
    std::atomic<int> scanned{0};
    std::vector<std::thread> sessions;
    for (int i = 0; i < 4; ++i)
        sessions.emplace_back(ScanItems, 250, Intern("content_in"), Intern("staff"), std::ref(scanned));
    for (std::thread& one : sessions) one.join();
    EXPECT_EQ(scanned, 1000);
    EXPECT_EQ(Counter("scanner.threads.started"), 2u);
    EXPECT_EQ(Counter("scanner.threads.scans"), 1000u);
}

TEST_F(ScanThreads, JustMadeTakeTheScanThatTheyWereMadeFor) {
    NEEDS_A_FRESH_POOL();
    Set("scanning", "MaxScannerThreads", FakeValue::Unsigned(100));
    ScannerThread::initialise(&world.proxy().m_config);
    std::vector<std::unique_ptr<Scanner>> lent;
    for (unsigned i = 0; i < 100; ++i) {
        lent.push_back(Get());
        ASSERT_EQ(Scan(*lent.back()), 0);
    }
    EXPECT_EQ(Counter("scanner.threads.started"), 100u);
    EXPECT_EQ(Counter("scanner.threads.scans"), 100u);
}

}  // namespace
