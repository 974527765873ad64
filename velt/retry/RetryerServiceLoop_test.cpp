// The queues and their settings, what a walk takes and what it leaves, and the single-process pass.
#include <velt/retry/RetryerServiceLoop.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <climits>

#include <testing/Child.h>
#include <velt/config_details/settings/smtpretryer.h>
#include <velt/retry/RetryTest.h>

namespace {

using velt_testing::FakeValue;
using velt_testing::Made;
using velt_testing::OpenDescriptors;
using velt_testing::OpenRetryLoop;
using velt_testing::RetryHooks;
using velt_testing::TextAt;

class RetryWalk : public velt_testing::RetryFixture {
protected:
    void Walk(long interval = 300, bool force = false) {
        if (!m_loop) m_loop = Loop();
        m_loop->ScanDir(force, interval);
    }
    // Whether a session was made of the only file, and whether it was told that the file is new.
    std::string Taken() {
        std::size_t const before = s_made.size();
        Walk();
        if (s_made.size() == before) return "no";
        return s_made.back().isNew ? "new" : "again";
    }

    std::unique_ptr<OpenRetryLoop> m_loop;
};

// A process that holds a lock on a file from the constructor to the destructor, as another retryer does.
class OtherRetryer {
public:
    explicit OtherRetryer(std::string const& path) {
        int ready[2];
        velt_testing::Checked(::pipe(ready), "pipe");
        std::fflush(nullptr);
        m_pid = ::fork();
        if (m_pid == 0) {
            int const fd = ::open(path.c_str(), O_RDWR);
            bool const locked = ::lockf(fd, F_TLOCK, 0) == 0;
            [[maybe_unused]] ssize_t const ignored = ::write(ready[1], locked ? "l" : "-", 1);
            for (;;) ::pause();
        }
        char answer = 0;
        EXPECT_EQ(::read(ready[0], &answer, 1), 1);
        EXPECT_EQ(answer, 'l');
        ::close(ready[0]);
        ::close(ready[1]);
    }
    ~OtherRetryer() {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }

private:
    pid_t m_pid;
};

// --- queues ---

struct Queue {
    char const* name;
    VELT::QUEUE_TYPE type;
    int number;
    char const* directory;
    unsigned threads;
    bool logs;
};

constexpr Queue kQueues[] = {
    {"smtp", VELT::QUEUE_SMTP, 0, "/deferred/smtp/", 6, true},
    {"log", VELT::QUEUE_LOG, 1, "/deferred/logging/", 1, false},
    {"quarantine", VELT::QUEUE_QUARANTINE, 2, "/quarantine/smtp/", 1, false},
};

class RetryQueues : public velt_testing::RetryFixture {};

TEST_F(RetryQueues, HaveTheirTypeAndTheirDefaults) {
    for (Queue const& queue : kQueues) {
        SCOPED_TRACE(queue.name);
        OpenRetryLoop const loop(&m_proxy->m_config, queue.name);
        EXPECT_EQ(loop.queueType, queue.type);
        EXPECT_EQ(static_cast<int>(loop.queueType), queue.number);
        EXPECT_EQ(loop.directory, m_root / (queue.directory + 1));
        EXPECT_EQ(loop.suffix, ".rmd");
        EXPECT_EQ(loop.maxConcurrent, queue.threads);
        EXPECT_EQ(loop.newFileDelta, 5);
        EXPECT_EQ(loop.scanInterval, 10u);
        EXPECT_EQ(loop.retryInterval, 300u);
        EXPECT_EQ(loop.config, &m_proxy->m_config);
    }
}

TEST_F(RetryQueues, ReadTheirOwnSection) {
    for (Queue const& queue : kQueues) {
        SCOPED_TRACE(queue.name);
        std::string const section = std::string(queue.name) + "retryer";
        Put(section, "MaxConncurrent", FakeValue::Unsigned(3));
        Put(section, "ScanDir", FakeValue::Text("/elsewhere/" + section));
        Put(section, "NewFileDelta", FakeValue::Int(7));
        Put(section, "ScanInterval", FakeValue::Unsigned(11));
        Put(section, "RetryInterval", FakeValue::Unsigned(13));
        Put(section, "MemoryLimit", FakeValue::Unsigned(17 + static_cast<unsigned>(queue.number)));
        OpenRetryLoop const loop(&m_proxy->m_config, queue.name);
        EXPECT_EQ(loop.maxConcurrent, 3u);
        EXPECT_EQ(loop.directory, "/elsewhere/" + section + "/");
        EXPECT_EQ(loop.newFileDelta, 7);
        EXPECT_EQ(loop.scanInterval, 11u);
        EXPECT_EQ(loop.retryInterval, 13u);
        EXPECT_EQ(VELT::MemCheck::s_Size, 17u + static_cast<unsigned>(queue.number));
    }
}

TEST_F(RetryQueues, SettingsStayWithinTheirBounds) {
    auto const put = [this](unsigned natural, int whole) {
        for (char const* const key : {"MaxConncurrent", "ScanInterval", "RetryInterval"})
            Put("smtpretryer", key, FakeValue::Unsigned(natural));
        Put("smtpretryer", "NewFileDelta", FakeValue::Int(whole));
        return std::make_unique<OpenRetryLoop>(&m_proxy->m_config, "smtp");
    };
    Put("smtpretryer", "MemoryLimit", FakeValue::Unsigned(UINT_MAX));
    for (auto const& [loop, bound] : {std::pair{put(0, -3), 1u}, {put(70000, 70000), 65535u}}) {
        EXPECT_EQ(loop->maxConcurrent, bound);
        EXPECT_EQ(loop->scanInterval, bound);
        EXPECT_EQ(loop->retryInterval, bound);
        EXPECT_EQ(loop->newFileDelta, static_cast<int>(bound));
    }
    EXPECT_EQ(VELT::MemCheck::s_Size, UINT_MAX);
}

// The key's own spelling is the one that counts.
TEST_F(RetryQueues, TakeTheNumberOfThreadsFromTheKeyWithTheDoubledLetter) {
    EXPECT_STREQ(VELTCFG::smtpretryer::attrname_MaxConncurrent::text.key, "MaxConncurrent");
    Put("smtpretryer", "MaxConcurrent", FakeValue::Unsigned(9));
    EXPECT_EQ(OpenRetryLoop(&m_proxy->m_config, "smtp").maxConcurrent, 6u);
    Put("smtpretryer", "MaxConncurrent", FakeValue::Unsigned(9));
    EXPECT_EQ(OpenRetryLoop(&m_proxy->m_config, "smtp").maxConcurrent, 9u);
}

TEST_F(RetryQueues, ReportEventsAsTheirSettingSays) {
    for (Queue const& queue : kQueues) {
        QXlog::detail::allowLogging(true);
        m_proxy->m_loggingOn = true;
        OpenRetryLoop const loop(&m_proxy->m_config, queue.name);
        EXPECT_EQ(m_proxy->m_loggingOn, queue.logs) << queue.name;
        EXPECT_EQ(QXlog::detail::is_loggable(VELT::events::RETRY_FILE), queue.logs) << queue.name;
    }
}

// The default switches the measurement off, whatever the limit of the process was.
TEST_F(RetryQueues, PutTheirMemoryLimitInThePlaceOfTheProcesss) {
    VELT::MemCheck::setMemSize(75000);
    OpenRetryLoop const loop(&m_proxy->m_config, "smtp");
    EXPECT_EQ(VELT::MemCheck::s_Size, 0u);
}

TEST_F(RetryQueues, DirectoryEndsInASlash) {
    for (auto const& [said, used] : {std::pair{"/var/spool/x", "/var/spool/x/"},
                                     {"/var/spool/x/", "/var/spool/x/"},
                                     {"x", "x/"},
                                     {"/", "/"},
                                     {"", ""}}) {
        Put("smtpretryer", "ScanDir", FakeValue::Text(said));
        EXPECT_EQ(OpenRetryLoop(&m_proxy->m_config, "smtp").directory, used);
    }
}

// A name is compared exactly; one that was not given is one that nobody knows.
TEST_F(RetryQueues, UnknownNameIsAQueueWithoutADirectoryWhoseWalksFail) {
    Put("smtpretryer", "RetryInterval", FakeValue::Unsigned(13));
    for (char const* const name : {"SMTP", "smtp ", "smt", "", "other", static_cast<char const*>(nullptr)}) {
        unsigned long const reads = m_store.reads;
        OpenRetryLoop loop(&m_proxy->m_config, name);
        EXPECT_EQ(m_store.reads, reads + 1) << "the shut-down timeout and no more";
        EXPECT_EQ(loop.directory, "");
        EXPECT_EQ(loop.maxConcurrent, 1u);
        EXPECT_GT(loop.scanInterval, 0u);
        m_events.Clear();
        m_events.Expect(VELT::events::RETRY_DIRECTORY_FAILED, 2);
        loop.ScanDir(false, 300);
        loop.ScanDir(true, 0);
        EXPECT_EQ(m_events.Names(), std::vector<std::string>(2, "70002:119"));
        EXPECT_EQ(velt_testing::Describe(m_events.Bag(VELT::events::RETRY_DIRECTORY_FAILED)), "retry_directory=");
    }
    EXPECT_EQ(Counted("directory_scans"), 0u);
    EXPECT_TRUE(s_made.empty());
}

// --- what is due ---

TEST_F(RetryWalk, FileAtRestIsDueOnceTheIntervalHasPassedSinceItsStatusTime) {
    Wait("a.rmd", 100);
    for (long const seconds : {0, 299, 300}) {
        LetPassSince("a.rmd", seconds);
        EXPECT_EQ(Taken(), "no") << seconds;
    }
    for (long const seconds : {301, 100000}) {
        LetPassSince("a.rmd", seconds);
        EXPECT_EQ(Taken(), "again") << seconds;
    }
}

TEST_F(RetryWalk, IntervalBeyondAllTimesIsNeverOver) {
    Wait("a.rmd", 100);
    LetPassSince("a.rmd", 10);
    for (long const interval : {LONG_MAX, LONG_MAX - 100, 10L}) Walk(interval);
    EXPECT_TRUE(s_made.empty());
    for (long const interval : {9L, 0L, -100L, LONG_MIN}) Walk(interval);
    EXPECT_EQ(s_made.size(), 4u);
}

TEST_F(RetryWalk, NewFileIsDueAtOnceWhateverTheIntervalIs) {
    Wait("a.rmd");
    LetPassSince("a.rmd", 2);
    for (long const interval : {1L, 300L, 65535L}) {
        Walk(interval);
        EXPECT_EQ(s_made.size(), interval == 1 ? 1u : interval == 300 ? 2u : 3u) << interval;
    }
    EXPECT_FALSE(s_made[0].isNew) << "a second is over, and it was tried as any other";
    EXPECT_TRUE(s_made[1].isNew);
    EXPECT_TRUE(s_made[2].isNew);
}

TEST_F(RetryWalk, FileIsNewWhileItsTimesAreLessThanTheDeltaApart) {
    for (auto const& [behind, taken] : {std::pair{0L, "new"}, {4L, "new"}, {5L, "no"}, {6L, "no"}, {-60L, "new"}}) {
        Wait("a.rmd", behind);
        LetPassSince("a.rmd", 2);
        EXPECT_EQ(Taken(), taken) << behind;
    }
}

TEST_F(RetryWalk, ClockThatWasSetBackKeepsAFileAtRestAndANewOneDue) {
    Wait("old.rmd", 100);
    Wait("new.rmd");
    LetPassSince("old.rmd", -100000);
    Walk();
    EXPECT_EQ(Ids(), std::vector<std::string>{"new"});
}

TEST_F(RetryWalk, EachFileIsJudgedAfreshAndByTheSameTime) {
    for (char const* const name : {"a.rmd", "b.rmd", "c.rmd"}) Wait(name);
    Wait("rests.rmd", 100);
    LetPassSince("a.rmd", 300);
    s_run = [this] { m_time.Pass(1000); };
    Walk();
    EXPECT_EQ(Ids(), (std::vector<std::string>{"a", "b", "c"}));
    for (Made const& made : s_made) EXPECT_TRUE(made.isNew) << made.id;
}

TEST_F(RetryWalk, ForcedTakesEverythingAndCallsNothingNew) {
    Wait("new.rmd");
    Wait("rests.rmd", 100);
    LetPassSince("rests.rmd", 1);
    Walk(300, true);
    EXPECT_EQ(Ids(), (std::vector<std::string>{"new", "rests"}));
    for (Made const& made : s_made) EXPECT_FALSE(made.isNew) << made.id;
}

// --- names ---

TEST_F(RetryWalk, OnlyNamesThatEndInTheSuffixAreFilesThatWait) {
    for (char const* const name : {"abc.rmd", "abc.rmd.tmp", "rmd", "x", "abc.RMD", "abcrmd", "a.rmd.rmd"}) Wait(name);
    Walk();
    EXPECT_EQ(Ids(), (std::vector<std::string>{"a.rmd", "abc"}));
    EXPECT_EQ(Counted("messages.traversed"), 2u);
    EXPECT_EQ(m_events.Count(VELT::events::RETRY_FILE), 7u) << "each name is reported before it is judged";
}

TEST_F(RetryWalk, NamesThatBeginWithADotArePassedOverWithoutAWord) {
    for (char const* const name : {".rmd", ".abc.rmd", "..rmd"}) Wait(name);
    Walk();
    EXPECT_TRUE(s_made.empty());
    EXPECT_EQ(m_events.Count(VELT::events::RETRY_FILE), 0u);
    EXPECT_EQ(Counted("messages.traversed"), 0u);
    EXPECT_EQ(Counted("directory_scans"), 1u);
}

TEST_F(RetryWalk, ReportsTheDirectoryAndTheName) {
    Wait("abc.rmd");
    Walk();
    EXPECT_EQ(velt_testing::Describe(m_events.Bag(VELT::events::RETRY_FILE)),
              "retry_directory=" + m_directory + " file_for_retry=abc.rmd");
}

// --- what a session is made of ---

TEST_F(RetryWalk, SessionGetsTheFileOpenAndLockedAndIsRunAndDeleted) {
    Wait("abc.rmd");
    bool locked = false;
    s_run = [&] {
        locked = velt_testing::InChild([] { return ::lockf(s_made[0].fd, F_TEST, 0) == -1; });
        EXPECT_EQ(::fcntl(s_made[0].fd, F_GETFL) & O_ACCMODE, O_RDWR);
        EXPECT_NE(::fcntl(s_made[0].fd, F_GETFD) & FD_CLOEXEC, 0);
    };
    std::size_t const before = OpenDescriptors();
    Walk();
    ASSERT_EQ(s_made.size(), 1u);
    Made const expected{s_made[0].fd, true, m_directory, "abc", true, 1, 1};
    EXPECT_EQ(s_made[0], expected) << "traversed and retried were counted before it was made";
    EXPECT_TRUE(locked);
    EXPECT_EQ(OpenDescriptors(), before);
}

// A host may have a file of its own worked on, which no walk has seen: nothing is counted or reported.
TEST_F(RetryWalk, FileThatAHostHandsOverIsWorkedOnAtOnce) {
    m_loop = Loop();
    Wait("a.rmd");
    std::string id = "any id", unused = "unused";
    for (bool const isNew : {false, true}) {
        int const fd = ::open(Path("a.rmd").c_str(), O_RDWR | O_CLOEXEC);
        m_loop->HandleEmail(id, unused, fd, isNew);
        Made const expected{fd, true, m_directory, "any id", isNew, 0, 0};
        EXPECT_EQ(s_made.back(), expected);
        EXPECT_EQ(::fcntl(fd, F_GETFD), -1) << "its session is over";
    }
    EXPECT_EQ(unused, "unused");
    EXPECT_TRUE(m_events.Names().empty());
    VELT::RetryerServiceLoop::setRetryerFactory(nullptr);
    int const fd = ::open(Path("a.rmd").c_str(), O_RDWR | O_CLOEXEC);
    m_loop->HandleEmail(id, unused, fd, true);
    EXPECT_NE(::fcntl(fd, F_GETFD), -1);
    ::close(fd);
}

// A name may be any that the system has, and lead to a file elsewhere.
TEST_F(RetryWalk, NamesAreTakenAsTheyAre) {
    std::string const longest(NAME_MAX - 4, 'n');
    std::vector<std::string> ids = {"a b", "a%s", "x.", "\xff", longest};
    for (std::string const& id : ids) Wait(id + ".rmd");
    Wait("elsewhere");
    std::filesystem::create_symlink("elsewhere", Path("link.rmd"));
    ids.push_back("link");
    std::sort(ids.begin(), ids.end());
    Walk(300, true);
    EXPECT_EQ(Ids(), ids);
}

TEST_F(RetryWalk, SessionIsToldWhetherTheQueueIsTheQuarantine) {
    Wait("abc.rmd");
    for (Queue const& queue : kQueues) {
        Loop(queue.name)->ScanDir(true, 0);
        EXPECT_EQ(s_made.back().notQuarantine, queue.type != VELT::QUEUE_QUARANTINE) << queue.name;
    }
}

TEST_F(RetryWalk, FactoryThatGivesNothingLosesNoDescriptorAndNoFile) {
    Wait("abc.rmd");
    VELT::RetryerServiceLoop::setRetryerFactory(
        [](int, bool, std::string&, std::string&, bool) -> VELT::Connection* { return nullptr; });
    std::size_t const before = OpenDescriptors();
    for (int i = 0; i < 3; ++i) Walk();
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(Counted("messages.retried"), 3u);
}

// Nobody is there to own the file: the daemon forgot to say who works on it.
TEST_F(RetryWalk, WithoutAFactoryTheFileStaysOpenAndLocked) {
    Wait("abc.rmd");
    VELT::RetryerServiceLoop::setRetryerFactory(nullptr);
    std::size_t const before = OpenDescriptors();
    Walk();
    EXPECT_EQ(OpenDescriptors(), before + 1);
    EXPECT_EQ(Counted("messages.retried"), 1u);
    std::string const path = Path("abc.rmd");
    EXPECT_TRUE(velt_testing::InChild([&] { return ::lockf(::open(path.c_str(), O_RDWR), F_TEST, 0) == -1; }));
}

// --- what is left ---

TEST_F(RetryWalk, FileThatAnotherProcessHasLockedIsClosedAgainAndTraversedOnly) {
    Wait("locked.rmd");
    Wait("open.rmd");
    OtherRetryer const other(Path("locked.rmd"));
    std::size_t const before = OpenDescriptors();
    Walk();
    EXPECT_EQ(Ids(), std::vector<std::string>{"open"});
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(Counted("messages.traversed"), 2u);
    EXPECT_EQ(Counted("messages.retried"), 1u);
}

TEST_F(RetryWalk, FileThatCannotBeOpenedIsReportedAndTheWalkGoesOn) {
    std::filesystem::create_directory(Path("folder.rmd"));
    Wait("open.rmd");
    Walk(300, true);
    EXPECT_EQ(Ids(), std::vector<std::string>{"open"});
    EXPECT_EQ(m_events.Count(VELT::events::RETRY_FILE_FAILED), 1u);
    EXPECT_EQ(velt_testing::Describe(m_events.Bag(VELT::events::RETRY_FILE_FAILED)),
              "retry_directory=" + m_directory + " file_for_retry=folder.rmd");
    EXPECT_EQ(Counted("messages.traversed"), 2u);
    EXPECT_EQ(Counted("messages.retried"), 1u);
}

TEST_F(RetryWalk, FileThatHasGoneIsPassedOverWithoutAMessage) {
    std::filesystem::create_symlink("nowhere", Path("gone.rmd"));
    Walk(300, true);
    EXPECT_EQ(m_events.Names(), std::vector<std::string>{"70000:117"});
    EXPECT_EQ(Counted("messages.traversed"), 0u);
}

TEST_F(RetryWalk, DirectoryThatCannotBeReadIsReportedAndNotCounted) {
    std::filesystem::remove(m_directory);
    m_loop = Loop();
    Walk();
    EXPECT_EQ(m_events.Names(), std::vector<std::string>{"70002:119"});
    EXPECT_EQ(velt_testing::Describe(m_events.Bag(VELT::events::RETRY_DIRECTORY_FAILED)),
              "retry_directory=" + m_directory);
    EXPECT_EQ(Counted("directory_scans"), 0u);
}

TEST_F(RetryWalk, DirectoryThatBreaksOffIsReportedAndTheWalkEnds) {
    Wait("a.rmd");
    RetryHooks::readingFails = true;
    std::size_t const before = OpenDescriptors();
    Walk();
    EXPECT_EQ(m_events.Names(), std::vector<std::string>{"70002:119"});
    EXPECT_EQ(Counted("directory_scans"), 1u);
    EXPECT_EQ(OpenDescriptors(), before);
    errno = EIO;  // an end that is none of a failure says nothing
    RetryHooks::readingFails = false;
    Walk();
    EXPECT_EQ(m_events.Count(VELT::events::RETRY_DIRECTORY_FAILED), 1u);
}

TEST_F(RetryWalk, EndsBetweenTwoFilesOnceTheProcessStops) {
    for (char const* const name : {"a.rmd", "b.rmd", "c.rmd"}) Wait(name);
    s_run = [] { VELT::ServiceLoop::shutdown = true; };
    Walk();
    EXPECT_EQ(s_made.size(), 1u);
    Walk();
    EXPECT_EQ(s_made.size(), 1u) << "and the next one takes nothing";
    EXPECT_EQ(Counted("directory_scans"), 2u);
}

TEST_F(RetryWalk, LeavesNoDescriptorBehind) {
    for (char const* const name : {"a.rmd", "b.rmd", "x", "c.rmd.tmp"}) Wait(name);
    Wait("rests.rmd", 100);
    LetPassSince("rests.rmd", 1);
    std::filesystem::create_directory(Path("folder.rmd"));
    std::size_t const before = OpenDescriptors();
    for (int i = 0; i < 5; ++i) Walk();
    EXPECT_EQ(OpenDescriptors(), before);
}

// --- another retryer between the look at a file and its lock ---

TEST_F(RetryWalk, FileThatWasFinishedBeforeTheLockIsNotWorkedOnAgain) {
    Wait("a.rmd");
    RetryHooks::beforeLock = [this] { std::filesystem::remove(Path("a.rmd")); };
    std::size_t const before = OpenDescriptors();
    Walk();
    EXPECT_TRUE(s_made.empty());
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(Counted("messages.traversed"), 1u);
    EXPECT_EQ(Counted("messages.retried"), 0u);
}

TEST_F(RetryWalk, FileThatWasReplacedBeforeTheLockWaitsForTheNextWalk) {
    Wait("a.rmd");
    RetryHooks::beforeLock = [this] {
        Wait("a.new");
        std::filesystem::rename(Path("a.new"), Path("a.rmd"));
    };
    Walk();
    EXPECT_TRUE(s_made.empty());
    RetryHooks::beforeLock = nullptr;
    Walk();
    EXPECT_EQ(Ids(), std::vector<std::string>{"a"});
}

TEST_F(RetryWalk, FileThatWasTriedBeforeTheLockRests) {
    Wait("a.rmd");
    RetryHooks::beforeLock = [this] { Wait("a.rmd", 60); };
    Walk();
    EXPECT_TRUE(s_made.empty());
}

// --- the single-process pass ---

class RetryPass : public velt_testing::RetryFixture {
protected:
    void Pass(std::vector<std::string> ids) {
        if (!m_loop) m_loop = Loop();
        std::vector<char*> argv;
        for (std::string& id : ids) argv.push_back(id.data());
        m_loop->Process(static_cast<int>(ids.size()), argv.data());
    }

    std::unique_ptr<OpenRetryLoop> m_loop;
};

TEST_F(RetryPass, WithoutIdsTakesAllFilesAlsoThoseAtRest) {
    Wait("new.rmd");
    Wait("rests.rmd", 100);
    LetPassSince("rests.rmd", 1);
    Pass({});
    EXPECT_EQ(Ids(), (std::vector<std::string>{"new", "rests"}));
    for (Made const& made : s_made) EXPECT_FALSE(made.isNew);
    EXPECT_EQ(m_loop->maxConcurrent, 1u);
    EXPECT_EQ(Counted("directory_scans"), 1u);
}

TEST_F(RetryPass, TakesTheFilesOfTheIdsInTheirOrderAsNewOnes) {
    for (char const* const name : {"a.rmd", "b.rmd", "c.rmd"}) Wait(name, 100);
    LetPassSince("a.rmd", 1);
    Pass({"c", "a"});
    ASSERT_EQ(s_made.size(), 2u);
    EXPECT_EQ(s_made[0].id, "c");
    EXPECT_EQ(s_made[1].id, "a");
    for (Made const& made : s_made) EXPECT_TRUE(made.isNew);
    EXPECT_EQ(m_loop->maxConcurrent, 1u);
    EXPECT_EQ(Counted("directory_scans"), 0u);
    EXPECT_EQ(m_events.Count(VELT::events::RETRY_FILE), 2u);
    EXPECT_EQ(velt_testing::Describe(m_events.Bag(VELT::events::RETRY_FILE)),
              "retry_directory=" + m_directory + " file_for_retry=c.rmd");
}

// A file that is worked on has been traversed, and is retried when the session is over: the walk counts before.
TEST_F(RetryPass, CountsIdsAfterTheirSession) {
    Wait("a.rmd");
    Pass({"a"});
    ASSERT_EQ(s_made.size(), 1u);
    EXPECT_EQ(s_made[0].traversed, 1u);
    EXPECT_EQ(s_made[0].retried, 0u);
    EXPECT_EQ(Counted("messages.retried"), 1u);
}

TEST_F(RetryPass, IdWithoutAFileIsReportedAndTheNextOneTaken) {
    Wait("b.rmd");
    Pass({"a", "b"});
    EXPECT_EQ(Ids(), std::vector<std::string>{"b"});
    EXPECT_EQ(m_events.Names(), (std::vector<std::string>{"70000:117", "70002:120", "70000:117"}));
    EXPECT_EQ(velt_testing::Describe(m_events.Bag(VELT::events::RETRY_FILE_FAILED)),
              "retry_directory=" + m_directory + " file_for_retry=a.rmd");
    EXPECT_EQ(Counted("messages.traversed"), 1u);
}

TEST_F(RetryPass, IdThatIsLockedIsTraversedOnly) {
    Wait("a.rmd");
    OtherRetryer const other(Path("a.rmd"));
    std::size_t const before = OpenDescriptors();
    Pass({"a"});
    EXPECT_TRUE(s_made.empty());
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(Counted("messages.traversed"), 1u);
    EXPECT_EQ(Counted("messages.retried"), 0u);
}

TEST_F(RetryPass, IdThatWasFinishedBeforeTheLockIsNotWorkedOnAgain) {
    Wait("a.rmd");
    RetryHooks::beforeLock = [this] { std::filesystem::remove(Path("a.rmd")); };
    std::size_t const before = OpenDescriptors();
    Pass({"a"});
    EXPECT_TRUE(s_made.empty());
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(Counted("messages.retried"), 0u);
}

TEST_F(RetryPass, EachSessionIsOverBeforeTheNextBegins) {
    Wait("a.rmd");
    Wait("b.rmd");
    std::size_t const before = OpenDescriptors();
    std::vector<std::size_t> open;
    s_run = [&] { open.push_back(OpenDescriptors()); };
    Pass({"a", "b", "a"});
    EXPECT_EQ(open, std::vector<std::size_t>(3, before + 1));
}

}  // namespace
