// The monitor's own process: what stops it, what it never does for a message, and the order in which it sets up.
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>

#include <testing/FakePolicyStore.h>
#include <testing/RefusedCalls.h>
#include <velt/errors/Failures.h>
#include <velt/logging/Events.h>
#include <velt/runtime/ProxyMonitor.h>
#include <velt/runtime/RuntimeTest.h>
#include <velt/runtime/ServiceLoop.h>
#include <velt/runtime/Shutdown.h>

namespace {

std::atomic<unsigned> s_arrays{0};

}  // namespace

#ifndef VELT_SANITIZED  // a sanitizer keeps the two kinds of memory apart itself
void* operator new[](std::size_t size) {
    ++s_arrays;
    return ::operator new(size);
}
#endif

namespace {

using VELT::ServiceLoop;
using Value = velt_testing::FakeValue;

class NotedLoop : public ServiceLoop {
public:
    void StopServices() override {}
    int PreForkInit() override { return Note("prepare"); }
    int PostForkInit() override {
        if (inChild) inChild();
        return Note("fork");
    }
    void SetArguments(int, char**) override { Note("arguments"); }
    void Process(int, char**) override { Note("process"); }
    int Note(char const* step) {
        steps.push_back(step);
        if (events) identityChanges.push_back(events->Count(VELT::events::USER_UNKNOWN));
        return 0;
    }
    std::function<void()> inChild;
    velt_testing::EventCapture* events = nullptr;
    std::vector<std::string> steps;
    std::vector<std::size_t> identityChanges;  // made before each step
};

class OpenMonitor : public VELT::ProxyMonitor {
public:
    using ProxyMonitor::m_children;
    using ProxyMonitor::m_service;
    using ProxyMonitor::m_wantedChildren;
};

class MonitorChildrenTest : public velt_testing::ProxyFixture {
protected:
    MonitorChildrenTest() {
        m_events.AllowAll();
        m_loop->events = &m_events;
        m_monitor.m_service = m_loop;
    }
    ~MonitorChildrenTest() override {
        ServiceLoop::shutdown = false;
        VELT::Config::initialise(nullptr);
    }
    void NameAnUnknownUser() {
        VELT::Config::initialise(&m_store);
        m_store.Put("base", "process", "UserId", Value::Text("no such user"));
    }
    // The monitor ends soon: the signal comes again and again until one falls into its wait.
    static void StopSoon() {
        VELT::HandleSignal(SIGALRM, VELT::sigfinish_handler);
        itimerval const often{{0, 20000}, {0, 20000}};
        ::setitimer(ITIMER_REAL, &often, nullptr);
    }

    velt_testing::FakePolicyStore m_store;
    velt_testing::EventCapture m_events;
    OpenMonitor m_monitor;
    NotedLoop* m_loop = new NotedLoop;  // the monitor's
};

TEST_F(MonitorChildrenTest, ChangeOfIdentityComesAfterThePreparationAndBeforeTheArguments) {
    NameAnUnknownUser();
    ServiceLoop::shutdown = true;
    m_monitor.Service(0, nullptr, m_loop, &m_proxy->m_config, 1);
    EXPECT_EQ(m_loop->steps, (std::vector<std::string>{"prepare", "arguments"}));
    EXPECT_EQ(m_loop->identityChanges, (std::vector<std::size_t>{0, 1}));
}

// In single-process mode there is no child to be told that it is one.
TEST_F(MonitorChildrenTest, SingleProcessIsPreparedChangesItsIdentityAndRuns) {
    NameAnUnknownUser();
    EXPECT_TRUE(velt_testing::InChild([this] {
        m_monitor.Process(m_loop, 0, nullptr);
        return m_loop->steps == std::vector<std::string>{"prepare", "process"} &&
               m_loop->identityChanges == std::vector<std::size_t>{0, 1} && m_monitor.m_children.empty();
    }));
}

TEST_F(MonitorChildrenTest, PipesThatCannotBeMadeEndIt) {
#ifdef VELT_SANITIZED
    GTEST_SKIP() << "a sanitizer needs descriptors of its own";
#endif
    EXPECT_TRUE(velt_testing::InChild([this] {
        rlimit const none{3, 3};
        ::setrlimit(RLIMIT_NOFILE, &none);
        try {
            m_monitor.Service(0, nullptr, m_loop, &m_proxy->m_config, 1);
        } catch (VELT::FWException<VELT::fw_exception_tag::resource> const& failure) {
            return failure.error == EMFILE;
        }
        return false;
    }));
}

// A pause of a second would show: so many children would take half a minute.
TEST_F(MonitorChildrenTest, ChildThatDiesAtOnceIsReplacedAtOnce) {
    constexpr int kChildren = 30;
    void* const room =
        ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto& forked = *new (room) std::atomic<int>(0);
    m_loop->inChild = [&forked] {
        if (++forked == kChildren) ::kill(::getppid(), SIGHUP);
        ::_exit(1);
    };
    m_monitor.m_wantedChildren = 1;
    EXPECT_TRUE(velt_testing::InChild([this] {
        VELT::HandleSignal(SIGHUP, VELT::sigfinish_handler);
        ::alarm(20);
        m_monitor.MonitorChildren();
        return true;
    }));
    EXPECT_GE(forked, kChildren);
    ::munmap(room, sizeof forked);
}

// The record stays, and the monitor holds both ends of its pipe: no end of file ever gives the place back.
TEST_F(MonitorChildrenTest, PlaceOfAChildThatCouldNotBeForkedIsLost) {
    if (!velt_testing::CanRefuse()) GTEST_SKIP() << "no call can be refused here";
    EXPECT_TRUE(velt_testing::InChild([this] {
        velt_testing::RefuseForks();
        int created = 7;
        bool well = m_monitor.CreateChildProcesses(3, created) == -1 && created == 0;
        well = well && m_events.Count(VELT::events::CHILD_FORK_FAILED) == 1;
        KORlog::InfoBag const bag = m_events.Bag(VELT::events::CHILD_FORK_FAILED);
        well = well && velt_testing::NumberAt(bag, "velt_error.velt_os_error") == EAGAIN;
        m_monitor.m_wantedChildren = 1;
        StopSoon();
        m_monitor.MonitorChildren();
        return well && m_monitor.m_children.size() == 1 && m_events.Count(VELT::events::CHILD_FORK_FAILED) == 1 &&
               !velt_testing::Readable(m_monitor.m_children.front()->m_fromChild[0], 0);
    }));
}

TEST_F(MonitorChildrenTest, MessageWithoutPayloadTakesNoMemory) {
#ifdef VELT_SANITIZED
    GTEST_SKIP() << "memory is the sanitizer's";
#endif
    m_monitor.CreatePipes();
    auto child = m_monitor.m_children.begin();
    for (char const type : {'\3', '\4', '\5', '\x7f'}) {
        char const message[3] = {0, 0, type};
        ASSERT_EQ(::write((*child)->m_fromChild[1], message, 3), 3);
        unsigned const before = s_arrays;
        m_monitor.HandleMessage(child);
        EXPECT_EQ(s_arrays, before) << static_cast<int>(type);
    }
    ASSERT_EQ(::write((*child)->m_fromChild[1], "\0\1\x7fx", 4), 4);
    unsigned const before = s_arrays;
    m_monitor.HandleMessage(child);
    EXPECT_EQ(s_arrays, before + 1);
}

}  // namespace
