#include "velt/scanning/ScannerWatch.h"

#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "testing/Child.h"
#include "velt/logging/Events.h"
#include "velt/scanning/ScanRun.h"
#include "velt/scanning/ScanningTest.h"

using namespace VELT;
using namespace velt_testing;

namespace {

class TestWatch final : public ScannerWatch {
public:
    void callbackscan() override {
        ++callbacks;
        if (onCallback) onCallback();
    }
    std::atomic<int> callbacks{0};
    std::function<void()> onCallback;
};

class ScanWatch : public ScanningTest {
protected:
    ~ScanWatch() override {
        ::alarm(0);
        Configure(0);  // for the tests behind it
    }

    void Configure(unsigned timeout, bool threads = true) {
        SetWatch(timeout, threads);
        ScannerWatch::initialise(&world.proxy().m_config);
    }
    void AllBuckets() {
        for (unsigned i = 0; i < 10; ++i) run_callback(i);
    }
    // What is new waits for the second run.
    void AllBucketsTwice() {
        AllBuckets();
        AllBuckets();
    }
    unsigned long Spins() { return Counter("scanner.flatspins") - m_spinsBefore; }
    unsigned long m_spinsBefore = Counter("scanner.flatspins");
    int const m_testProcess = ::getpid();

    // How a process ends whose scan comes to the second stage after so many seconds.
    int EndOfASpin(bool threads = true, int seconds = 71) {
        return RawStatusOf([&] {
            Configure(10, threads);
            if (session.m_workerId == m_testProcess) session.m_workerId = ::getpid();
            FixedTime time;
            TestWatch watch;
            watch.startscan(&session);
            Visit(watch, threads);  // what is new waits for the next run
            time.Pass(11);
            Visit(watch, threads);
            time.Pass(seconds - 11);
            Visit(watch, threads);
        });
    }
    // As the timer's thread does, which has the alarm blocked.
    static void ThreadVisit(TestWatch& watch) {
        sigset_t alarm;
        ::sigemptyset(&alarm);
        ::sigaddset(&alarm, SIGALRM);
        ::pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
        watch.callbacktimer();
    }
    static void Visit(TestWatch& watch, bool threads) {
        if (threads) return ThreadVisit(watch);
        ::alarm(0);  // it has come
        ::raise(SIGALRM);
    }
};

using ScanBuckets = ScanWatch;
using FlatSpin = ScanWatch;
using ForkedScanWatch = ScanWatch;
using ScanTimer = ScanWatch;

// --- One bucket ---

TEST(ScanRunOfWatches, VisitsEachOnceAndTheNewOnesNextTime) {
    std::deque<TestWatch> watches(4);
    ScanRun run;
    EXPECT_EQ(run.get(), nullptr);
    for (int i = 0; i < 3; ++i) run.add(&watches[i]);
    EXPECT_EQ(run.size(), 3u);
    EXPECT_EQ(run.get(), nullptr) << "what is new waits for the next run";
    EXPECT_EQ(run.get(), &watches[0]);
    run.add(&watches[3]);
    EXPECT_EQ(run.get(), &watches[1]);
    EXPECT_EQ(run.get(), &watches[2]);
    EXPECT_EQ(run.get(), nullptr);
    for (int i : {0, 3, 1, 2}) EXPECT_EQ(run.get(), &watches[i]);
    EXPECT_EQ(run.get(), nullptr);
    EXPECT_EQ(run.size(), 4u);
}

TEST(ScanRunOfWatches, RemovesFromWhereverOneIs) {
    for (int removed = 0; removed < 4; ++removed) {
        for (int visited = 0; visited < 5; ++visited) {
            std::deque<TestWatch> watches(4);
            ScanRun run;
            for (TestWatch& watch : watches) run.add(&watch);
            run.get();
            for (int i = 0; i < visited; ++i) run.get();
            run.remove(&watches[removed]);
            EXPECT_EQ(run.size(), 3u);
            run.remove(&watches[removed]);
            EXPECT_EQ(run.size(), 3u) << "it is in neither row";
            while (run.get()) {
            }
            std::vector<ScannerWatch*> seen;
            while (ScannerWatch* const watch = run.get()) seen.push_back(watch);
            std::vector<ScannerWatch*> expected;
            for (int i = 0; i < 4; ++i) {
                if (i != removed) expected.push_back(&watches[i]);
            }
            EXPECT_EQ(seen, expected) << removed << " after " << visited;
        }
    }
}

// --- The buckets ---

TEST_F(ScanBuckets, EachScanHasItsOwnWhileThereAreSome) {
    Configure(0);
    std::deque<TestWatch> watches(11);
    for (TestWatch& watch : watches) watch.startscan(&session);
    AllBuckets();
    for (TestWatch& watch : watches) EXPECT_EQ(watch.callbacks, 0) << "what is new waits for the next run";
    for (unsigned i = 0; i < 10; ++i) {
        run_callback(i);
        for (unsigned j = 0; j < 11; ++j) EXPECT_EQ(watches[j].callbacks, j <= i || j == 10 ? 1 : 0) << i << " " << j;
    }
    watches[4].endscan();
    TestWatch twelfth;
    twelfth.startscan(&session);
    run_callback(4);
    run_callback(4);
    EXPECT_EQ(twelfth.callbacks, 1) << "the first that is empty is taken";
    TestWatch thirteenth;
    thirteenth.startscan(&session);
    run_callback(1);
    run_callback(1);
    EXPECT_EQ(thirteenth.callbacks, 1) << "the lowest of the smallest";
    for (TestWatch& watch : watches) watch.endscan();
    twelfth.endscan();
    thirteenth.endscan();
    AllBuckets();
    EXPECT_EQ(twelfth.callbacks, 1);
}

TEST_F(ScanBuckets, EndingWaitsForACallbackThatRuns) {
    Configure(0);
    for (int i = 0; i < 10; ++i) {
        auto watch = std::make_unique<TestWatch>();
        Door inCallback, ending;
        std::atomic<bool> left{false};
        watch->onCallback = [&] {
            inCallback.Open();
            ending.Wait();
            for (int turn = 0; turn < 20; ++turn) ::sched_yield();
            left = true;
        };
        watch->startscan(&session);
        run_callback(0);
        std::thread timer(run_callback, 0u);
        inCallback.Wait();
        ending.Open();
        watch->endscan();
        EXPECT_TRUE(left);
        watch.reset();
        timer.join();
    }
}

TEST_F(ScanBuckets, ACallbackHoldsUpNoOtherScan) {
    Configure(0);
    TestWatch slow;
    Door inCallback, end;
    slow.onCallback = [&] {
        inCallback.Open();
        end.Wait();
    };
    slow.startscan(&session);
    run_callback(0);
    std::thread timer(run_callback, 0u);
    inCallback.Wait();
    for (int i = 0; i < 20; ++i) {
        TestWatch other;
        other.startscan(&session);
        for (int run = 0; run < 2; ++run) {
            for (unsigned bucket = 1; bucket < 10; ++bucket) run_callback(bucket);
        }
        other.endscan();
        EXPECT_GE(other.callbacks, 1);
    }
    end.Open();
    timer.join();
    slow.endscan();
}

TEST_F(ScanBuckets, WhatAHostThrowsEndsNoProcess) {
    Configure(0);
    TestWatch watch;
    watch.onCallback = [] { throw std::runtime_error("host"); };
    watch.startscan(&session);
    for (int i = 0; i < 3; ++i) run_callback(0);
    EXPECT_EQ(watch.callbacks, 2);
    watch.endscan();
}

// --- The inline scanner under the watch ---

TEST_F(ScanWatch, CallsTheSessionBackDuringAScanOnly) {
    Initialise();
    std::unique_ptr<Scanner> const scanner(Scanner::get(&context));
    unsigned count = 0;
    ASSERT_EQ(scanner->setup_scan(count), 0);
    AllBucketsTwice();
    EXPECT_EQ(session.callbacks, 0);
    AtScan([&] {
        run_callback(0);
        run_callback(0);
        EXPECT_EQ(session.callbacks, 1);
    });
    ASSERT_EQ(scanner->scan(0, output, false), 0);
    AllBucketsTwice();
    EXPECT_EQ(session.callbacks, 1);
}

TEST_F(ScanWatch, DoesNotSeeWhatHappensInSetUp) {
    Configure(1);
    Initialise();
    FixedTime time;
    context.policy = Intern("content_out");
    int setUps = 0;
    script.onPolicy = [&] {
        ++setUps;
        time.Pass(100);
        AllBucketsTwice();
    };
    std::unique_ptr<Scanner> const scanner(Scanner::get(&context));
    unsigned count = 0;
    ASSERT_EQ(scanner->setup_scan(count), 0);
    EXPECT_EQ(setUps, 1);
    EXPECT_EQ(session.callbacks, 0);
    EXPECT_EQ(Spins(), 0u);
}

TEST_F(ScanWatch, EndsWithAnEngineThatThrows) {
    Initialise();
    std::unique_ptr<Scanner> const scanner(Scanner::get(&context));
    unsigned count = 0;
    ASSERT_EQ(scanner->setup_scan(count), 0);
    AtScan([] { throw std::runtime_error("engine"); });
    EXPECT_THROW(scanner->scan(0, output, false), std::runtime_error);
    AllBucketsTwice();
    EXPECT_EQ(session.callbacks, 0);
}

// In a process of its own, in which no agent was initialised.
TEST(ScanWatchBeforeStart, AScanWithoutAnAgentIsNotWatched) {
    if (std::unique_ptr<ScanAgent> const agent(ScanAgent::get()); agent) GTEST_SKIP() << "initialised by a test before";
    CountingSession session;
    ScanContext context;
    context.connection = &session;
    std::unique_ptr<Scanner> const scanner(ScannerInline::get(&context));
    ScanOutput* output = nullptr;
    EXPECT_EQ(scanner->scan(0, output, false), -1);
    for (int run = 0; run < 2; ++run) run_callback(0);
    EXPECT_EQ(session.callbacks, 0);
}

// --- A scan that does not come back ---

TEST_F(FlatSpin, IsNotLookedForByDefault) {
    Configure(0);
    FixedTime time;
    TestWatch watch;
    watch.startscan(&session);
    for (int i = 1; i <= 10; ++i) {
        time.Pass(10000);
        watch.callbacktimer();
        EXPECT_EQ(watch.callbacks, i);
    }
    watch.endscan();
    EXPECT_EQ(Spins(), 0u);
}

TEST_F(FlatSpin, IsCountedAndLoggedOnceJustAfterItsTime) {
    Configure(10);
    events.Expect(events::FLAT_SPIN);
    FixedTime time;
    TestWatch watch;
    watch.startscan(&session);
    for (int second = 0; second <= 70; ++second) {
        watch.callbacktimer();
        EXPECT_EQ(Spins(), second > 10 ? 1u : 0u) << second;
        EXPECT_EQ(watch.callbacks, second + 1);
        time.Pass(1);
    }
    watch.endscan();
    EXPECT_TRUE(TextAt(events.Bag(events::FLAT_SPIN), "connection.connection_type"));
    EXPECT_EQ(events.Names(), std::vector<std::string>{"16000"});
}

TEST_F(FlatSpin, IsLookedForAfterADayAtTheLatestAndNotWithoutANumber) {
    events.Allow(events::FLAT_SPIN);
    FixedTime time;
    auto const told = [&](FakeValue const& timeout, long seconds) {
        Set("scanning", "FlatSpinTimeout", timeout);
        ScannerWatch::initialise(&world.proxy().m_config);
        unsigned long const before = Spins();
        TestWatch watch;
        watch.startscan(&session);
        time.Pass(seconds);
        watch.callbacktimer();
        watch.endscan();
        EXPECT_EQ(watch.callbacks, 1);
        return Spins() != before;
    };
    EXPECT_FALSE(told(FakeValue::Unsigned(90000), 86400));
    EXPECT_TRUE(told(FakeValue::Unsigned(90000), 86401));
    EXPECT_FALSE(told(FakeValue::Unsigned(1), 1));
    EXPECT_TRUE(told(FakeValue::Unsigned(1), 2));
    EXPECT_FALSE(told(FakeValue::Text("10"), 1000000));
    EXPECT_FALSE(told(FakeValue::Unsigned(1), -1000)) << "the clock was set back";
}

TEST_F(FlatSpin, StaysToldForTheNextScanOfTheScanner) {
    Configure(10);
    events.Expect(events::FLAT_SPIN, 2);
    FixedTime time;
    TestWatch watch;
    auto const spin = [&] {
        watch.startscan(&session);
        time.Pass(11);
        watch.callbacktimer();
        watch.endscan();
    };
    spin();
    spin();
    EXPECT_EQ(Spins(), 1u);
    watch.reset();
    spin();
    EXPECT_EQ(Spins(), 2u);
}

TEST_F(FlatSpin, EndsTheProcessAMinuteLater) {
    events.Allow(events::FLAT_SPIN);
    EXPECT_TRUE(Exited(EndOfASpin(true, 70), kCameBack));
    EXPECT_TRUE(EndedBy(EndOfASpin(true, 71), SIGABRT));
}

TEST_F(FlatSpin, IsToldBeforeItEndsTheProcessHoweverLate) {
    Configure(10);
    events.Expect(events::FLAT_SPIN);
    FixedTime time;
    TestWatch watch;
    watch.startscan(&session);
    time.Pass(1000);
    watch.callbacktimer();
    EXPECT_EQ(watch.callbacks, 1);
    watch.endscan();
}

// The abort and the word to syslog name the worker; what outlives them for ten seconds exits.
TEST_F(FlatSpin, EndsTheSessionsWorkerWithAWordToSyslog) {
    events.Allow(events::FLAT_SPIN);
    for (bool const threads : {true, false}) {
        NotedEnd end;
        session.m_workerId = 54321;
        EXPECT_TRUE(Exited(EndOfASpin(threads), 0));
        EXPECT_EQ(end->process, 54321);
        EXPECT_EQ(end->signal, SIGABRT);
        EXPECT_EQ(end->priority, 0x1E);
        EXPECT_STREQ(end->text, "Flat spin detected in process 54321");
        EXPECT_EQ(end->slept, 10u);
    }
}

// The engine may be in syslog itself.
TEST_F(FlatSpin, ThatCannotBeToldToSyslogEndsTheProcessByTheAlarm) {
    events.Allow(events::FLAT_SPIN);
    for (bool const threads : {true, false}) {
        NotedEnd end;
        end->syslogHangs = true;
        EXPECT_TRUE(EndedBy(EndOfASpin(threads), SIGALRM)) << threads;
        EXPECT_EQ(end->lastAlarm, 2u) << threads;
        EXPECT_EQ(end->process, 0) << threads;
    }
}

TEST_F(FlatSpin, AWorkerThatWouldBeAGroupIsThisProcess) {
    events.Allow(events::FLAT_SPIN);
    for (int const worker : {0, -1, 1, -54321}) {
        NotedEnd end;
        session.m_workerId = worker;
        EXPECT_TRUE(Exited(EndOfASpin(), 0)) << worker;
        EXPECT_GT(end->process, 1) << worker;
        EXPECT_NE(end->process, m_testProcess) << "which is not the process that spins";
    }
    EXPECT_EQ(CountingSession().m_workerId, ::getpid());
}

// --- Without a thread ---

// On a slow machine the alarm itself may come between any two lines.
TEST_F(ForkedScanWatch, TheAlarmCallsBackAndIsSetAgain) {
    Configure(0, false);
    TestWatch watch;
    watch.startscan(&session);
    EXPECT_EQ(::alarm(0), 1u);
    struct sigaction action;
    ::sigaction(SIGALRM, nullptr, &action);
    EXPECT_EQ(action.sa_handler, &alarm_handler);
    watch.onCallback = [] { errno = ENOENT; };
    ::raise(SIGALRM);  // what is new waits for the next run
    for (int i = 0; i < 2; ++i) {
        int const before = watch.callbacks;
        errno = EXDEV;
        ::raise(SIGALRM);
        EXPECT_EQ(errno, EXDEV);
        EXPECT_EQ(::alarm(0), 1u);
        EXPECT_GT(watch.callbacks, before);
    }
    watch.endscan();
    EXPECT_EQ(::alarm(0), 0u);
    int const before = watch.callbacks;
    ::raise(SIGALRM);
    EXPECT_EQ(watch.callbacks, before);
}

TEST_F(ForkedScanWatch, KeepsWhatElseTheActionSays) {
    Configure(0, false);
    struct sigaction before;
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    action.sa_flags = SA_RESTART;
    ::sigaddset(&action.sa_mask, SIGUSR2);
    ::sigaction(SIGALRM, &action, &before);
    TestWatch watch;
    watch.startscan(&session);
    ::sigaction(SIGALRM, nullptr, &action);
    EXPECT_EQ(action.sa_handler, &alarm_handler);
    EXPECT_TRUE(action.sa_flags & SA_RESTART);
    EXPECT_EQ(::sigismember(&action.sa_mask, SIGUSR2), 1);
    watch.endscan();
    ::sigaction(SIGALRM, nullptr, &action);
    EXPECT_EQ(action.sa_handler, &alarm_handler) << "one that has come already finds it";
    ::sigaction(SIGALRM, &before, nullptr);
}

TEST_F(ForkedScanWatch, ARunningScanIsCalledBackByTheAlarmItself) {
    Configure(0, false);
    TestWatch watch;
    watch.startscan(&session);
    EXPECT_TRUE(Eventually([&] { return watch.callbacks >= 1; }));
    watch.endscan();
}

TEST_F(ForkedScanWatch, TheFirstEndStopsTheAlarmForAll) {
    Configure(0, false);
    std::deque<TestWatch> watches(3);
    for (TestWatch& watch : watches) watch.startscan(&session);
    for (int run = 0; run < 2; ++run) ::raise(SIGALRM);
    for (TestWatch& watch : watches) EXPECT_GE(watch.callbacks, 1) << "all are in one bucket";
    watches[1].endscan();
    EXPECT_EQ(::alarm(0), 0u);
    std::vector<int> before;
    for (TestWatch& watch : watches) before.push_back(watch.callbacks);
    run_callback(0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(watches[i].callbacks, before[i] + (i == 1 ? 0 : 1));
    watches[0].endscan();
    watches[2].endscan();
}

TEST_F(ForkedScanWatch, AFlatSpinIsToldByTheHandler) {
    Configure(10, false);
    events.Expect(events::FLAT_SPIN);
    FixedTime time;
    TestWatch watch;
    watch.startscan(&session);
    ::raise(SIGALRM);
    time.Pass(10);
    ::raise(SIGALRM);
    EXPECT_EQ(Spins(), 0u);
    time.Pass(1);
    ::raise(SIGALRM);
    EXPECT_EQ(Spins(), 1u);
    EXPECT_TRUE(TextAt(events.Bag(events::FLAT_SPIN), "connection.connection_type"));
    EXPECT_GE(watch.callbacks, 2);
    watch.endscan();
}

TEST_F(ForkedScanWatch, AFlatSpinEndsTheProcess) {
    events.Allow(events::FLAT_SPIN);
    EXPECT_TRUE(Exited(EndOfASpin(false, 70), kCameBack));
    EXPECT_TRUE(EndedBy(EndOfASpin(false, 71), SIGABRT));
}

TEST_F(ForkedScanWatch, AReportThatCannotBeMadeHoldsUpNothing) {
    class Unspeakable : public CountingSession {
    public:
        void LogConnectionAttributes(KORlog::InfoBag&) const override { throw std::runtime_error("host"); }
    } unspeakable;
    Configure(10, false);
    FixedTime time;
    TestWatch watch;
    watch.startscan(&unspeakable);
    ::raise(SIGALRM);
    time.Pass(11);
    ::raise(SIGALRM);
    watch.endscan();
    EXPECT_EQ(Spins(), 1u);
    EXPECT_GE(watch.callbacks, 1);
}

TEST_F(ForkedScanWatch, LooksNothingUpForAReportThatNobodyReads) {
    class Asked : public CountingSession {
    public:
        void LogConnectionAttributes(KORlog::InfoBag&) const override { ++asked; }
        mutable int asked = 0;
    } asked;
    auto const scan = [&] {
        TestWatch watch;
        watch.startscan(&asked);
        watch.endscan();
        return asked.asked;
    };
    Configure(0, false);
    EXPECT_EQ(scan(), 0);
    Configure(10, false);
    events::FLAT_SPIN.enable(false);
    EXPECT_EQ(scan(), 0);
    events::FLAT_SPIN.enable(true);
    EXPECT_EQ(scan(), 1);
}

TEST_F(ForkedScanWatch, ThreadsOfTheLibraryLeaveTheAlarmToTheFirst) {
    class Asking : public ThreadRunner {
    public:
        Asking() { StartThread(0); }
        void ThreadMain() override { ::pthread_sigmask(SIG_BLOCK, nullptr, &mask); }
        sigset_t mask;
    };
    Asking asking;
    asking.Join();
    EXPECT_EQ(::sigismember(&asking.mask, SIGALRM), 1);
    EXPECT_EQ(::sigismember(&asking.mask, SIGTERM), 0);
    sigset_t own;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &own);
    EXPECT_EQ(::sigismember(&own, SIGALRM), 0);
}

// What a thread really gets that asks for so much: a sanitizer adds to it.
std::size_t StackOfAThreadWith(std::size_t kibibytes) {
    std::size_t size = 0;
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, kibibytes * 1024);
    auto const measure = [](void* out) -> void* {
        *static_cast<std::size_t*>(out) = OwnStack();
        return nullptr;
    };
    pthread_t thread;
    if (::pthread_create(&thread, &attributes, measure, &size) == 0) ::pthread_join(thread, nullptr);
    ::pthread_attr_destroy(&attributes);
    return size;
}

TEST_F(ScanTimer, HasTheStackThatTheSettingsGiveIt) {
    struct Row {
        FakeValue setting;
        std::size_t kibibytes;
    };
    Row const rows[] = {{FakeValue::Unsigned(256), 256}, {FakeValue::Unsigned(1), 64}, {FakeValue::Unreadable(), 128}};
    for (Row const& row : rows) {
        EXPECT_TRUE(InChild([&] {
            Set("scanning", "InlineScannerThreadStackSize", row.setting);
            Configure(0);
            FixedTime const time;
            ScannerWatch::start();
            std::atomic<std::size_t> stack{0};
            TestWatch watch;
            watch.onCallback = [&stack] { stack = OwnStack(); };
            watch.startscan(&session);
            bool const called = Eventually([&] { return stack != 0; });
            watch.endscan();
            return called && stack == StackOfAThreadWith(row.kibibytes);
        })) << row.kibibytes;
    }
}

// The last one: its thread visits the buckets of all that come behind it.
TEST_F(ScanTimer, ComesByAgainAndAgain) {
    Configure(0);
    FixedTime const time;
    ScannerWatch::start();
    TestWatch watch;
    watch.startscan(&session);
    EXPECT_TRUE(Eventually([&] { return watch.callbacks >= 3; }));
    watch.endscan();
    int const before = watch.callbacks;
    TestWatch another;
    another.startscan(&session);
    EXPECT_TRUE(Eventually([&] { return another.callbacks >= 1; }));
    another.endscan();
    EXPECT_EQ(watch.callbacks, before);
    EXPECT_EQ(LastPause(), 100000u) << "ten buckets a second";

    std::mutex mutex;
    std::vector<unsigned> visited;
    std::deque<TestWatch> watches(10);
    for (unsigned i = 0; i < 10; ++i) {
        watches[i].onCallback = [&, i] {
            std::lock_guard const hold(mutex);
            visited.push_back(i);
        };
        watches[i].startscan(&session);
    }
    EXPECT_TRUE(Eventually([&] {
        std::lock_guard const hold(mutex);
        return visited.size() >= 40;
    }));
    for (TestWatch& each : watches) each.endscan();
    for (std::size_t i = 21; i < 40; ++i) EXPECT_EQ(visited[i], (visited[i - 1] + 1) % 10) << "bucket after bucket";
}

}  // namespace
