// A proxy that runs as a service: launcher, supervisor, and the service that is started again and again.
#include <sys/mman.h>

#include <atomic>
#include <functional>
#include <new>

#include <QXlog/QXlog.h>
#include <testing/RefusedCalls.h>
#include <velt/logging/Events.h>
#include <velt/runtime/RuntimeTest.h>

namespace {

using VELT::Proxy;

class HostProxy : public Proxy {
public:
    int ProxyMain() override { return serve(*this); }
    std::function<int(HostProxy&)> serve;
};

// What the processes of one service tell the test.
struct Shared {
    std::atomic<int> starts{0}, restarts{0}, well{0};
};

bool IsIgnored(int signal) {
    struct sigaction action = {};
    ::sigaction(signal, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

std::string FileOf(int fd) {
    char path[64] = "";
    ssize_t const length = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    return length < 0 ? "" : std::string(path, static_cast<std::size_t>(length));
}

bool StandsAlone() {
    return FileOf(0) == "/dev/null" && FileOf(1) == "/dev/null" && FileOf(2) == "/dev/null" && IsIgnored(SIGCHLD);
}

// Takes the forks away once the supervisor has reported its start.
class EndOfForks : public KORlog::Target {
    std::string useableSeverities() const override { return "all"; }
    void write(KORlog::sev::Severity, KORtk::Location const&, QXlog::Event const& event, std::string const&,
               KORlog::InfoBag const&) override {
        if (event.asString() == VELT::events::SERVICE_STARTED.asString()) velt_testing::RefuseForks();
    }
};

class SupervisorTest : public velt_testing::ProxyFixture {
protected:
    SupervisorTest() {
        m_events.AllowAll();
        delete m_proxy;
        m_proxy = m_host = new HostProxy;
        void* const room = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        m_shared = new (room) Shared;
        velt_testing::Checked(::pipe(m_alive), "pipe");
    }
    ~SupervisorTest() override {
        ::close(m_alive[0]);
        ::munmap(m_shared, sizeof(Shared));
    }

    // Returns once the launcher has left, and with success.
    bool Launch() {
        bool const left = velt_testing::StatusOfChild([this] { return m_host->StartAsService(), 1; }) == 0;
        ::close(m_alive[1]);
        return left;
    }
    // Every process of the service has the other end.
    bool AllGone() { return velt_testing::Readable(m_alive[0], 20000) && velt_testing::ReadToEnd(m_alive[0]).empty(); }

    HostProxy* m_host;
    Shared* m_shared;
    int m_alive[2] = {-1, -1};
    velt_testing::EventCapture m_events;
};

// A pause of a second would show: so many starts would take half a minute.
TEST_F(SupervisorTest, ServiceIsStartedAgainAtOnceHoweverItEnded) {
    constexpr int kStarts = 30;
    m_host->serve = [this](HostProxy& proxy) -> int {
        int const start = ++m_shared->starts;
        if (proxy.m_restarted) ++m_shared->restarts;
        if (StandsAlone() && ::getsid(0) == ::getppid()) ++m_shared->well;
        if (start == kStarts) ::kill(::getppid(), SIGKILL);
        if (start % 3 == 1) ::raise(SIGKILL);
        ::_exit(start % 3);
    };
    EXPECT_TRUE(Launch());
    EXPECT_TRUE(AllGone());
    EXPECT_EQ(m_shared->starts, kStarts);
    EXPECT_EQ(m_shared->restarts, kStarts - 1);
    EXPECT_EQ(m_shared->well, kStarts);
}

TEST_F(SupervisorTest, WhoCannotForkRunsTheServiceItself) {
    if (!velt_testing::CanRefuse()) GTEST_SKIP() << "no call can be refused here";
    m_host->serve = [this](HostProxy& proxy) -> int {
        ++m_shared->starts;
        if (proxy.m_restarted) ++m_shared->restarts;
        if (StandsAlone() && ::getsid(0) == ::getpid()) ++m_shared->well;
        std::exit(0);
    };
    static EndOfForks target;
    KORlog::Target* const before = QXlog::detail::exchange_qxtarget(&target);
    EXPECT_TRUE(Launch());
    QXlog::detail::exchange_qxtarget(before);
    EXPECT_TRUE(AllGone());
    EXPECT_EQ(m_shared->starts, 1);
    EXPECT_EQ(m_shared->restarts, 0);
    EXPECT_EQ(m_shared->well, 1);
}

TEST_F(SupervisorTest, LauncherThatCannotForkReportsItAndGivesUp) {
    if (!velt_testing::CanRefuse()) GTEST_SKIP() << "no call can be refused here";
    m_host->serve = [this](HostProxy&) { return ++m_shared->starts; };
    EXPECT_TRUE(velt_testing::InChild([this] {
        velt_testing::RefuseForks();
        return m_host->StartAsService() == -1 && m_events.Names() == std::vector<std::string>{"10000:51"} &&
               velt_testing::NumberAt(m_events.Bag(VELT::events::SERVICE_FORK_FAILED), "velt_error.velt_os_error") ==
                   EAGAIN;
    }));
    EXPECT_EQ(m_shared->starts, 0);
}

}  // namespace
