#include <velt/runtime/ServiceLoop.h>

#include <fcntl.h>
#include <sys/wait.h>

#include <filesystem>

#include <velt/runtime/RuntimeTest.h>
#include <velt/runtime/Shutdown.h>

namespace {

using VELT::ServiceLoop;

class PlainLoop : public ServiceLoop {
public:
    using ServiceLoop::m_parentReadFd;
    using ServiceLoop::m_parentWriteFd;
    void StopServices() override {
        ++stops;
        errno = EBADF;  // as a close may leave it
    }
    int stops = 0;
};

// A loop between the two pipes of a worker; the test is the parent.
class ServiceLoopTest : public velt_testing::ProxyFixture {
protected:
    ServiceLoopTest() {
        velt_testing::Checked(::pipe(m_toChild), "pipe");
        velt_testing::Checked(::pipe(m_fromChild), "pipe");
        m_loop.SetPipes(m_toChild[0], m_fromChild[1]);
    }
    ~ServiceLoopTest() override {
        for (int const fd : {m_toChild[0], m_toChild[1], m_fromChild[0], m_fromChild[1]}) ::close(fd);
        VELT::SetShutDownTimeout(0);
        ServiceLoop::shutdown = false;
    }
    void ParentWrites(std::string const& bytes) {
        ASSERT_EQ(::write(m_toChild[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    void ParentCloses() {
        ::close(m_toChild[1]);
        m_toChild[1] = -1;
    }

    int m_toChild[2], m_fromChild[2];
    PlainLoop m_loop;
};

TEST_F(ServiceLoopTest, StartsInTmpWithoutPipesAndWithItsFlagsClear) {
    ServiceLoop::shutdown = ServiceLoop::bProxyShutdown = true;
    PlainLoop loop;
    EXPECT_EQ(loop.m_parentReadFd, -1);
    EXPECT_EQ(loop.m_parentWriteFd, -1);
    EXPECT_FALSE(ServiceLoop::shutdown);
    EXPECT_FALSE(ServiceLoop::bProxyShutdown);
    EXPECT_EQ(std::filesystem::current_path(), "/tmp");
}

TEST_F(ServiceLoopTest, ReadsExactlyWhatWasAskedForThoughItComesInPieces) {
    std::thread parent([this] {
        for (char const byte : {'a', 'b', 'c', 'd'}) ParentWrites(std::string(1, byte));
    });
    char buffer[4] = "";
    EXPECT_EQ(m_loop.ReadParentData(buffer, 3), 0);
    EXPECT_EQ(std::string(buffer, 3), "abc");
    parent.join();
}

TEST_F(ServiceLoopTest, EndOfFileIsMinusTwoAlsoInMidMessage) {
    ParentWrites("ab");
    ParentCloses();
    char buffer[3];
    EXPECT_EQ(m_loop.ReadParentData(buffer, 3), -2);
    EXPECT_EQ(m_loop.HandleMessageFromParent(), -2);
}

TEST_F(ServiceLoopTest, ReadErrorIsMinusOne) {
    m_loop.m_parentReadFd = -1;
    char buffer[3];
    EXPECT_EQ(m_loop.ReadParentData(buffer, 3), -1);
    EXPECT_EQ(m_loop.HandleMessageFromParent(), -1);
}

TEST_F(ServiceLoopTest, MessageFiveAsksTheChildToLeaveAndOthersDoNot) {
    for (int type = 0; type < 256; ++type) {
        ServiceLoop::bProxyShutdown = false;
        ParentWrites({0, 0, static_cast<char>(type)});
        EXPECT_EQ(m_loop.HandleMessageFromParent(), 0);
        EXPECT_EQ(ServiceLoop::bProxyShutdown.load(), type == 5) << type;
    }
    EXPECT_FALSE(ServiceLoop::shutdown);
}

// A parent has nothing more to say; were there more, it would be the next message's beginning.
TEST_F(ServiceLoopTest, ChildReadsThreeBytesOfAMessageWhateverItsLength) {
    ParentWrites(std::string("\0\2\5xy", 5));
    EXPECT_EQ(m_loop.HandleMessageFromParent(), 0);
    EXPECT_TRUE(ServiceLoop::bProxyShutdown);
    char left[8];
    ASSERT_EQ(::read(m_toChild[0], left, sizeof left), 2);
    EXPECT_EQ(std::string(left, 2), "xy");
}

TEST_F(ServiceLoopTest, MessageToTheParentIsThreeBytes) {
    m_loop.WriteMsgToParent(VELT::MSG_STOPPING);
    char bytes[8];
    ASSERT_EQ(::read(m_fromChild[0], bytes, sizeof bytes), 3);
    EXPECT_EQ(std::string(bytes, 3), std::string("\0\0\4", 3));
}

TEST_F(ServiceLoopTest, HangupStopsTheNewestLoopAndKeepsErrno) {
    m_loop.PreForkInit();
    errno = EDOM;
    ::raise(SIGHUP);
    EXPECT_EQ(errno, EDOM);
    EXPECT_TRUE(ServiceLoop::shutdown);
    EXPECT_EQ(m_loop.stops, 1);
}

TEST_F(ServiceLoopTest, PreparationGivesTheInterruptItsDefaultBack) {
    ::signal(SIGINT, SIG_IGN);
    m_loop.PreForkInit();
    struct sigaction interrupt = {}, hangup = {};
    ::sigaction(SIGINT, nullptr, &interrupt);
    ::sigaction(SIGHUP, nullptr, &hangup);
    EXPECT_EQ(interrupt.sa_handler, SIG_DFL);
    EXPECT_EQ(hangup.sa_handler, &VELT::sigfinish_handler);
}

TEST_F(ServiceLoopTest, HangupAfterTheLoopIsGoneStillSetsTheFlag) {
    {
        PlainLoop newest;
        newest.PreForkInit();
    }
    ::raise(SIGHUP);
    EXPECT_TRUE(ServiceLoop::shutdown);
    EXPECT_EQ(m_loop.stops, 0);
}

TEST_F(ServiceLoopTest, HangupInterruptsWhatWaits) {
    m_loop.PreForkInit();
    struct sigaction action = {};
    ::sigaction(SIGHUP, nullptr, &action);
    EXPECT_EQ(action.sa_flags & SA_RESTART, 0);
    ::sigaction(SIGINT, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
}

TEST_F(ServiceLoopTest, ExitIsCutOffAfterTheTimeOfTheSetting) {
    VELT::SetShutDownTimeout(0);
    ::alarm(600);
    VELT::setupshutdown();
    EXPECT_GT(::alarm(0), 2u) << "without a time a host's own alarm stays";
    ServiceLoop::ServiceLoopConfig(&m_proxy->m_config);
    VELT::setupshutdown();
    EXPECT_EQ(::alarm(0), 2u);
    struct sigaction action = {};
    ::sigaction(SIGALRM, nullptr, &action);
    EXPECT_EQ(action.sa_handler, &VELT::shutdown_signal);
}

TEST_F(ServiceLoopTest, LastResortKillsTheWholeGroupAndIsCounted) {
    ::signal(SIGCHLD, SIG_DFL);
    QXStats::QXCounter::initialise("group");  // all of its processes count in one place from here on
    unsigned long const before = velt_testing::CounterValue("shutdowntimeouts");
    pid_t const leader = ::fork();
    if (leader == 0) {
        ::setpgid(0, 0);
        if (::fork() == 0) {
            for (;;) ::pause();
        }
        VELT::shutdown_signal(SIGALRM);
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(leader, &status, 0), leader);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    EXPECT_TRUE(velt_testing::Eventually([leader] { return ::kill(-leader, 0) == -1; }));
    EXPECT_EQ(velt_testing::CounterValue("shutdowntimeouts"), before + 1);
}

TEST_F(ServiceLoopTest, ChildSignalDoesNothing) {
    VELT::childshutdown_signal(SIGCHLD);
    EXPECT_FALSE(ServiceLoop::shutdown);
}

TEST_F(ServiceLoopTest, StackDumpLeavesTheCallerAsItWas) { VELT::pdk_dump_stack(); }

}  // namespace
