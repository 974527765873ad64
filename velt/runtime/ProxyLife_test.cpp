// What a proxy leaves behind: folders, and what it does not own. And when an exit is cut off.
#include <sys/stat.h>

#include <filesystem>
#include <utility>

#include <testing/RefusedCalls.h>
#include <velt/runtime/ProxyMonitor.h>
#include <velt/runtime/RuntimeTest.h>
#include <velt/runtime/ServiceLoop.h>
#include <velt/runtime/Shutdown.h>

namespace {

using VELT::Proxy;

class NotedLoop : public VELT::ServiceLoop {
public:
    ~NotedLoop() override { ++deleted; }
    void StopServices() override {}
    static inline int deleted = 0;
};

class NotedMonitor : public VELT::ProxyMonitor {
public:
    ~NotedMonitor() override { ++deleted; }
    static inline int deleted = 0;
};

class ProxyLife : public velt_testing::ProxyFixture {
protected:
    unsigned ModeOf(std::string const& below) {
        struct stat found {};
        return ::stat((m_root / below).c_str(), &found) == 0 ? found.st_mode & 07777u : 0;
    }
};

// Whoever sets the spool up gives it its rights: until then no ordinary user can go into it.
TEST_F(ProxyLife, SpoolFoldersAreMadeWithoutTheRightToEnter) {
    std::filesystem::create_directories(m_root / "scandir");
    m_proxy->SetProxyName("mail");
    EXPECT_EQ(ModeOf("scandir/mail"), 0666u);
    if (::geteuid() == 0) {
        EXPECT_EQ(ModeOf("scandir/mail/segv"), 0666u);
    }
}

TEST_F(ProxyLife, FoldersThatCannotBeMadeAreNoReasonToStop) {
    m_proxy->SetProxyName("mail");
    EXPECT_EQ(m_proxy->m_scanDir, m_root / "scandir/mail");
    EXPECT_FALSE(m_root.Exists("scandir"));
}

TEST_F(ProxyLife, EndLeavesLoopMonitorAndBindingsAlone) {
    m_proxy->m_serviceLoop = new NotedLoop;
    m_proxy->m_monitor = new NotedMonitor;
    sockaddr_in binding = velt_testing::Loopback(25);
    m_proxy->AddSvcBinding(binding);
    auto const kept = Proxy::GetSvcBindings();
    VELT::ServiceLoop* const loop = m_proxy->m_serviceLoop;
    VELT::ProxyMonitor* const monitor = m_proxy->m_monitor;
    delete std::exchange(m_proxy, nullptr);
    EXPECT_EQ(NotedLoop::deleted, 0);
    EXPECT_EQ(NotedMonitor::deleted, 0);
    EXPECT_EQ(ntohs(kept[0]->sin_port), 25);
    delete kept[0];
    delete loop;
    delete monitor;
}

// A host gets the vector for itself, and the addresses in it are the proxy's.
TEST_F(ProxyLife, BindingsAreACopyOfTheListAndNotOfTheAddresses) {
    sockaddr_in binding = velt_testing::Loopback(25);
    m_proxy->AddSvcBinding(binding);
    auto copy = Proxy::GetSvcBindings();
    EXPECT_EQ(copy[0], m_proxy->m_svcBindings[0]);
    copy.clear();
    EXPECT_EQ(Proxy::GetSvcBindings().size(), 1u);
}

// --- the end of a process ---

bool s_armedByPreparation = false;

// The alarm is taken away between the two, so that each shows what it did.
void BetweenTheTwo() { s_armedByPreparation = ::alarm(0) != 0; }
void AfterBoth() { ::_exit(::alarm(0) != 0 && s_armedByPreparation ? 0 : 1); }

// What a host runs at exit between the loop's making and its preparation has time of its own.
TEST_F(ProxyLife, ExitIsTimedFromTheMakingOfTheLoopAndFromItsPreparation) {
    int const status = velt_testing::StatusOfChild([] {
        std::atexit(AfterBoth);
        static NotedLoop& loop = *new NotedLoop;
        std::atexit(BetweenTheTwo);
        loop.PreForkInit();
        VELT::SetShutDownTimeout(600);
        return 1;
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
