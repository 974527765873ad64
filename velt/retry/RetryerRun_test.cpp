// The life of the process: how it begins, its walks and what it waits for between them, and how it ends.
#include <fcntl.h>
#include <signal.h>

#include <atomic>
#include <thread>

#include <testing/Child.h>
#include <velt/retry/RetryTest.h>
#include <velt/runtime/ConnThreadPool.h>

namespace {

using VELT::ServiceLoop;
using velt_testing::Door;
using velt_testing::FakeValue;
using velt_testing::InChild;
using velt_testing::Made;
using velt_testing::OpenRetryLoop;
using velt_testing::RetryHooks;

// Each wait takes as long as it may, by a clock that nothing else moves.
class RetryRun : public velt_testing::RetryFixture {
protected:
    RetryRun() {
        RetryHooks::monotonicMs = 1000;
        RetryHooks::poll = [this](pollfd* watched, nfds_t count, int timeoutMs) {
            EXPECT_EQ(count, 1u);
            m_waits.push_back(timeoutMs);
            if (watched->fd != -1) ++m_asked;
            if (onWait) onWait();
            RetryHooks::monotonicMs += timeoutMs;
            return velt_testing::RealPoll(watched, 0);
        };
        Put("smtpretryer", "ScanInterval", FakeValue::Unsigned(3));
        m_loop = Loop();
        Wait("a.rmd");
        LetPassSince("a.rmd", 2);
    }
    ~RetryRun() override {
        for (int const fd : m_parent) ::close(fd);
    }

    // When the walks of a run began that ends after so many; each takes the one file.
    std::vector<long> WalksOf(std::size_t count, long eachTakes = 0) {
        std::vector<long> begins;
        s_run = [&begins, count, eachTakes] {
            begins.push_back(RetryHooks::monotonicMs);
            RetryHooks::monotonicMs += eachTakes;
            if (begins.size() == count) ServiceLoop::shutdown = true;
        };
        m_loop->Run();
        return begins;
    }
    void GiveItAParent() {
        velt_testing::Checked(::pipe(m_parent), "pipe");
        m_loop->SetPipes(::dup(m_parent[0]), -1);
        ::close(m_parent[0]);
        m_parent[0] = -1;
    }
    void ParentSays(std::string const& bytes) {
        ASSERT_EQ(::write(m_parent[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    void ParentLeaves() {
        ::close(m_parent[1]);
        m_parent[1] = -1;
    }

    std::unique_ptr<OpenRetryLoop> m_loop;
    std::vector<int> m_waits;
    unsigned m_asked = 0;  // waits that looked at the parent
    std::function<void()> onWait;
    int m_parent[2] = {-1, -1};
};

TEST_F(RetryRun, WalksBeginOneIntervalApart) {
    EXPECT_EQ(WalksOf(3), (std::vector<long>{1000, 4000, 7000}));
    EXPECT_EQ(WalksOf(1), std::vector<long>{});
}

TEST_F(RetryRun, TimeOfAWalkIsPartOfTheInterval) {
    EXPECT_EQ(WalksOf(3, 1200), (std::vector<long>{1000, 4000, 7000}));
    EXPECT_EQ(m_waits[0], 1000);
    EXPECT_EQ(m_waits[1], 800);
}

TEST_F(RetryRun, WalkThatTakesLongerThanTheIntervalIsFollowedAtOnce) {
    EXPECT_EQ(WalksOf(3, 5000), (std::vector<long>{1000, 6000, 11000}));
    EXPECT_EQ(m_waits, std::vector<int>(m_waits.size(), 0));
}

TEST_F(RetryRun, ClockThatWasSetBackDoesNotStretchTheRest) {
    onWait = [this] { m_time.Pass(-100); };
    EXPECT_EQ(WalksOf(3), (std::vector<long>{1000, 4000, 7000}));
}

TEST_F(RetryRun, TakesWhatIsDueAfterTheRetryIntervalOfItsQueue) {
    Put("smtpretryer", "RetryInterval", FakeValue::Unsigned(30));
    m_loop = Loop();
    Wait("a.rmd", 60);
    LetPassSince("a.rmd", 29);
    onWait = [this] { m_time.Pass(1); };
    EXPECT_EQ(WalksOf(1), std::vector<long>{4000}) << "31 seconds have passed by then";
    EXPECT_FALSE(s_made.at(0).isNew);
}

TEST_F(RetryRun, DirectoryThatIsNotThereIsLookedForOnceInEachInterval) {
    std::filesystem::remove_all(m_directory);
    onWait = [this] {
        if (m_waits.size() == 9) ServiceLoop::shutdown = true;
    };
    m_loop->Run();
    EXPECT_EQ(m_events.Count(VELT::events::RETRY_DIRECTORY_FAILED), 3u);
    EXPECT_EQ(m_waits, std::vector<int>(9, 1000));
}

TEST_F(RetryRun, UnknownQueueRestsBetweenItsWalks) {
    m_loop = std::make_unique<OpenRetryLoop>(&m_proxy->m_config, nullptr);
    onWait = [this] {
        if (m_waits.size() == 20) ServiceLoop::shutdown = true;
    };
    m_loop->Run();
    EXPECT_EQ(m_events.Count(VELT::events::RETRY_DIRECTORY_FAILED), 2u);
}

TEST_F(RetryRun, StopThatComesDuringTheRestEndsItWithinASecond) {
    Put("smtpretryer", "ScanInterval", FakeValue::Unsigned(65535));
    m_loop = Loop();
    onWait = [this] {
        if (m_waits.size() == 3) ServiceLoop::shutdown = true;
    };
    m_loop->Run();
    EXPECT_EQ(m_waits, std::vector<int>(3, 1000));
    EXPECT_EQ(s_made.size(), 1u);
}

TEST_F(RetryRun, StopThatComesDuringAWalkIsFollowedByNoRest) {
    EXPECT_EQ(WalksOf(1), std::vector<long>{1000});
    EXPECT_EQ(m_waits, std::vector<int>{0});
}

TEST_F(RetryRun, WaitThatFailsIsARestAllTheSame) {
    RetryHooks::poll = [this](pollfd*, nfds_t, int timeoutMs) {
        m_waits.push_back(timeoutMs);
        errno = ENOMEM;
        return -1;
    };
    EXPECT_EQ(WalksOf(3), (std::vector<long>{1000, 4000, 7000}));
    EXPECT_LE(m_waits.size(), 7u);
}

TEST_F(RetryRun, WaitThatASignalInterruptsIsTakenUpAgain) {
    RetryHooks::poll = [this](pollfd*, nfds_t, int timeoutMs) {
        m_waits.push_back(timeoutMs);
        RetryHooks::monotonicMs += 300;
        errno = EINTR;
        return -1;
    };
    EXPECT_EQ(WalksOf(2), (std::vector<long>{1000, 4000}));
    EXPECT_EQ(m_waits.at(9), 300) << "what is left of the rest";
}

TEST_F(RetryRun, StopBeforeTheFirstWalkIsTheEnd) {
    ServiceLoop::shutdown = true;
    m_loop->Run();
    EXPECT_EQ(Counted("directory_scans"), 0u);
    EXPECT_TRUE(m_waits.empty());
}

TEST_F(RetryRun, HangupStopsItAndStopServicesHasNothingToDo) {
    m_loop->PreForkInit();
    GiveItAParent();
    std::size_t const before = velt_testing::OpenDescriptors();
    s_run = [before] {
        ::raise(SIGHUP);
        EXPECT_EQ(velt_testing::OpenDescriptors(), before + 2) << "the walk and its file";
    };
    m_loop->Run();
    EXPECT_EQ(Counted("directory_scans"), 1u);
}

// So its parent starts the next one while it finishes what it holds.
TEST_F(RetryRun, ClosesItsPipesWhenItStops) {
    int toChild[2], fromChild[2];
    velt_testing::Checked(::pipe(toChild), "pipe");
    velt_testing::Checked(::pipe(fromChild), "pipe");
    m_loop->SetPipes(toChild[0], fromChild[1]);
    ServiceLoop::shutdown = true;
    m_loop->Run();
    EXPECT_EQ(velt_testing::ReadToEnd(fromChild[0]), "");
    EXPECT_EQ(::write(toChild[1], "x", 1), -1);
    for (int const fd : {toChild[1], fromChild[0]}) ::close(fd);
}

TEST_F(RetryRun, ParentThatHasGoneIsTheEnd) {
    GiveItAParent();
    ParentLeaves();
    m_loop->Run();
    EXPECT_TRUE(ServiceLoop::shutdown);
    EXPECT_EQ(s_made.size(), 1u);
}

TEST_F(RetryRun, ParentThatHasGoneIsNoticedThoughThereIsNoTimeToRest) {
    GiveItAParent();
    ParentLeaves();
    EXPECT_EQ(WalksOf(5, 5000).size(), 1u);
}

TEST_F(RetryRun, ParentsMessageIsHeardAndTheWalksGoOn) {
    GiveItAParent();
    ParentSays(std::string("\0\0\5", 3));
    EXPECT_EQ(WalksOf(3), (std::vector<long>{1000, 4000, 7000}));
    EXPECT_TRUE(ServiceLoop::bProxyShutdown);
    EXPECT_EQ(m_asked, m_waits.size());
}

TEST_F(RetryRun, ParentThatBreaksOffInAMessageIsLeftAndTheWalksGoOn) {
    GiveItAParent();
    ParentSays("x");
    ParentLeaves();
    EXPECT_EQ(WalksOf(2), (std::vector<long>{1000, 4000}));
    EXPECT_EQ(m_asked, 1u);
}

TEST_F(RetryRun, ParentPipeThatIsNoneIsNotAskedOverAndOver) {
    GiveItAParent();
    ::close(m_loop->m_parentReadFd);
    EXPECT_EQ(WalksOf(2), (std::vector<long>{1000, 4000}));
    EXPECT_EQ(m_asked, 1u);
}

// --- before the fork ---

class RetryStart : public velt_testing::RetryFixture {};

// Notes the set-up of its class.
class Probe : public VELT::Connection {
public:
    ~Probe() override { ++s_deleted; }
    void InitialiseConnectionClass(bool transparent, VELT::Config& config) override {
        ++s_initialised;
        s_transparent = transparent;
        s_config = &config;
    }
    static inline int s_initialised = 0, s_deleted = 0;
    static inline bool s_transparent = true;
    static inline VELT::Config* s_config = nullptr;
};

VELT::Connection* MakeProbe(int fd, bool notQuarantine, std::string& directory, std::string& id, bool isNew) {
    static std::vector<Made> made;
    made.push_back({fd, notQuarantine, directory, id, isNew, 0, 0});
    EXPECT_EQ(made.size(), 1u);
    EXPECT_EQ(made[0].fd, -1);
    EXPECT_FALSE(notQuarantine);
    EXPECT_TRUE(directory.ends_with("/waiting/"));
    EXPECT_EQ(id, "");
    EXPECT_FALSE(isNew);
    return new Probe;
}

TEST_F(RetryStart, ClassIsSetUpOnceByASessionWithoutAFile) {
    auto const loop = Loop();
    VELT::RetryerServiceLoop::setRetryerFactory(&MakeProbe);
    EXPECT_EQ(loop->PreForkInit(), 0);
    EXPECT_EQ(Probe::s_initialised, 1);
    EXPECT_EQ(Probe::s_deleted, 1);
    EXPECT_FALSE(Probe::s_transparent);
    EXPECT_EQ(Probe::s_config, &m_proxy->m_config);
    EXPECT_NE(VELT::Connection::s_pNoMessages, nullptr);
}

TEST_F(RetryStart, NeedsNeitherAFactoryNorItsSessionAndTakesTheSignals) {
    auto const loop = Loop();
    for (bool const registered : {false, true}) {
        VELT::RetryerServiceLoop::setRetryerFactory(
            registered ? [](int, bool, std::string&, std::string&, bool) -> VELT::Connection* { return nullptr; }
                       : VELT::RetryerServiceLoop::RetryerFactory{});
        ::signal(SIGHUP, SIG_IGN);
        EXPECT_EQ(loop->PreForkInit(), 0);
        struct sigaction hangup = {};
        ::sigaction(SIGHUP, nullptr, &hangup);
        EXPECT_EQ(hangup.sa_handler, &VELT::sigfinish_handler);
    }
}

// --- after the fork ---

class RetryWorker : public velt_testing::RetryFixture {
protected:
    RetryWorker() {
        m_loop = Loop();
        Wait("a.rmd");
        LetPassSince("a.rmd", 2);
    }
    void Walk() { m_loop->ScanDir(false, 300); }

    std::unique_ptr<OpenRetryLoop> m_loop;
};

TEST_F(RetryWorker, IsStartedAsAProcessThatScans) {
    int const status = velt_testing::RawStatusOf([this] {
        int const result = m_loop->PostForkInit();
        ::_exit(result == 0 && ::getsid(0) == ::getpid() ? 1 : 0);
    });
    EXPECT_TRUE(velt_testing::Exited(status, 1)) << status;
}

TEST_F(RetryWorker, HasAPoolWhoseThreadsRunItsSessions) {
    EXPECT_TRUE(InChild([this] {
        static std::atomic<bool> elsewhere{false};
        pthread_t const main = ::pthread_self();
        s_run = [main] { elsewhere = !::pthread_equal(main, ::pthread_self()); };
        m_loop->PostForkInit();
        Walk();
        return velt_testing::Eventually([] { return elsewhere.load(); });
    }));
}

TEST_F(RetryWorker, FileIsNotTakenAgainWhileItsSessionHoldsIt) {
    EXPECT_TRUE(InChild([this] {
        static Door done;
        s_run = [] { done.Wait(); };
        m_loop->PostForkInit();
        std::size_t const before = velt_testing::OpenDescriptors();
        Walk();
        Walk();
        bool const once = s_made.size() == 1 && Counted("messages.traversed") == 2;
        done.Open();
        bool const closed = velt_testing::Eventually([&] { return velt_testing::OpenDescriptors() == before; });
        Walk();
        return once && closed && s_made.size() == 2;
    }));
}

// A lock does not keep the process that has it from taking it again.
TEST_F(RetryWorker, SessionThatDoesNotAnswerForItsFileIsGivenItTwice) {
    EXPECT_TRUE(InChild([this] {
        static Door done;
        s_run = [] { done.Wait(); };
        s_answersForItsFile = false;
        m_loop->PostForkInit();
        Walk();
        Walk();
        done.Open();
        return s_made.size() == 2;
    }));
}

// Its parent may start the next one then, however long what it holds will last.
TEST_F(RetryWorker, WalkThatAFullPoolHoldsUpSeesTheStop) {
    Put("smtpretryer", "MaxConncurrent", FakeValue::Unsigned(1));
    m_loop = Loop();
    for (char const* const name : {"b.rmd", "c.rmd"}) Wait(name);
    EXPECT_TRUE(InChild([this] {
        static Door done;
        s_run = [] { done.Wait(); };
        int toParent[2];
        velt_testing::Checked(::pipe(toParent), "pipe");
        m_loop->SetPipes(-1, toParent[1]);
        m_loop->PostForkInit();
        bool left = false;
        std::thread watcher([&] {
            velt_testing::Eventually([] { return Counted("messages.retried") == 2; });
            ServiceLoop::shutdown = true;
            pollfd closed{toParent[0], POLLIN, 0};
            left = velt_testing::RealPoll(&closed, 10'000) == 1 && (closed.revents & POLLHUP);
            done.Open();
        });
        m_loop->Run();
        watcher.join();
        return left && s_made.size() == 2;
    }));
}

// The next service starts the next one then.
TEST_F(RetryWorker, WalkThatAFullPoolHoldsUpSeesThatItsParentHasGone) {
    Put("smtpretryer", "MaxConncurrent", FakeValue::Unsigned(1));
    m_loop = Loop();
    for (char const* const name : {"b.rmd", "c.rmd"}) Wait(name);
    EXPECT_TRUE(InChild([this] {
        static Door done;
        s_run = [] { done.Wait(); };
        int parent[2];
        velt_testing::Checked(::pipe(parent), "pipe");
        m_loop->SetPipes(parent[0], -1);
        m_loop->PostForkInit();
        bool seen = false;
        std::thread watcher([&] {
            velt_testing::Eventually([] { return Counted("messages.retried") == 2; });
            ::close(parent[1]);
            seen = velt_testing::Eventually([] { return ServiceLoop::shutdown.load(); });
            ServiceLoop::shutdown = true;
            done.Open();
        });
        m_loop->Run();
        watcher.join();
        return seen && s_made.size() == 2;
    }));
}

// The thread retires in the moment in which it is told of the third file, behind the walk: another one is started while
// the walks rest, which may be for hours. The first session holds its own thread until the third has run.
TEST_F(RetryWorker, RestHasAThreadForWhatNobodyWasWokenFor) {
    Put("smtpretryer", "MaxConncurrent", FakeValue::Unsigned(2));
    Put("smtpretryer", "ScanInterval", FakeValue::Unsigned(65535));
    m_loop = Loop();
    for (char const* const name : {"b.rmd", "c.rmd"}) Wait(name);
    m_proxy->m_proxyIdleTimeout = 900;
    EXPECT_TRUE(InChild([this] {
        static Door third, resting;
        static std::atomic<int> running{0}, deaf{0};
        s_run = [] {
            int const which = ++running;
            if (which == 1) third.WaitSome();
            if (which == 3) third.Open();
        };
        RetryHooks::deafWait = [] {
            ++deaf;
            resting.Wait();
        };
        RetryHooks::beforeLock = [] {  // of each file, before it is queued
            if (s_made.empty()) velt_testing::Eventually([] { return RetryHooks::waiting == 1; });
            if (s_made.size() == 1) velt_testing::Eventually([] { return running == 1; });
            if (s_made.size() != 2) return;
            velt_testing::Eventually([] { return deaf == 1; });
            RetryHooks::poll = [](pollfd* watched, nfds_t, int timeoutMs) {
                if (timeoutMs != 0) resting.Open();
                return velt_testing::RealPoll(watched, std::min(timeoutMs, 1));
            };
        };
        m_loop->PostForkInit();
        bool ran = false;
        std::thread watcher([&ran] {
            ran = third.WaitSome();
            ServiceLoop::shutdown = true;
        });
        m_loop->Run();
        watcher.join();
        return ran;
    }));
}

TEST_F(RetryWorker, LongWalkEndsOnceItsParentHasGone) {
    for (char const* const name : {"b.rmd", "c.rmd", "d.rmd"}) Wait(name);
    EXPECT_TRUE(InChild([this] {
        int parent[2];
        velt_testing::Checked(::pipe(parent), "pipe");
        ::close(parent[1]);
        m_loop->SetPipes(parent[0], -1);
        m_loop->PostForkInit();
        m_loop->Run();
        return s_made.size() == 1;
    }));
}

TEST_F(RetryWorker, EndsOnceItsSessionsHaveRun) {
    EXPECT_TRUE(InChild([this] {
        static std::atomic<int> ran{0};
        s_run = [] {
            ++ran;
            ServiceLoop::shutdown = true;
        };
        m_loop->PostForkInit();
        m_loop->Run();
        return ran > 0 && ran == static_cast<int>(s_made.size());
    }));
}

}  // namespace
