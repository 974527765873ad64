#include <velt/runtime/ProxyMonitor.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cstring>

#include <velt/errors/Failures.h>
#include <velt/logging/Events.h>
#include <velt/runtime/RuntimeTest.h>
#include <velt/runtime/ServiceLoop.h>

namespace {

using VELT::ChildData;
using VELT::ServiceLoop;
using Resource = VELT::FWException<VELT::fw_exception_tag::resource>;

class NotedLoop : public ServiceLoop {
public:
    using ServiceLoop::m_parentReadFd;
    using ServiceLoop::m_parentWriteFd;
    void StopServices() override { ++stops; }
    int PreForkInit() override {
        ++preForks;
        return ServiceLoop::PreForkInit();
    }
    void SetArguments(int argc, char**) override { arguments = argc; }
    int stops = 0, preForks = 0, arguments = -1;
};

class OpenMonitor : public VELT::ProxyMonitor {
public:
    using ProxyMonitor::m_children;
    using ProxyMonitor::m_priority;
    using ProxyMonitor::m_service;
    using ProxyMonitor::m_wantedChildren;
};

class MonitorTest : public velt_testing::ProxyFixture {
protected:
    MonitorTest() {
        m_events.AllowAll();
        m_monitor.m_service = m_loop;
        ::signal(SIGCHLD, SIG_DFL);
    }
    ~MonitorTest() override { ServiceLoop::shutdown = false; }

    OpenMonitor::iterator AddChild() {
        m_monitor.CreatePipes();
        return std::prev(m_monitor.m_children.end());
    }
    void ChildWrites(OpenMonitor::iterator child, std::string const& bytes) {
        ASSERT_EQ(::write((*child)->m_fromChild[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    void ChildEnds(OpenMonitor::iterator child) { ::close((*child)->m_fromChild[1]); }
    std::string ChildReads(OpenMonitor::iterator child) {
        int const fd = (*child)->m_toChild[0];
        ::fcntl(fd, F_SETFL, O_NONBLOCK);
        char bytes[16];
        ssize_t const got = ::read(fd, bytes, sizeof bytes);
        return std::string(bytes, got < 0 ? 0 : static_cast<std::size_t>(got));
    }
    static std::vector<int> EveryDescriptor() {  // that is still to be had
        std::vector<int> taken;
        for (int fd; (fd = ::dup(0)) != -1;) taken.push_back(fd);
        return taken;
    }
    void Handle(OpenMonitor::iterator child) { m_monitor.HandleMessage(child); }

    static inline std::string const kReleaseMe{"\0\0\3", 3};
    static inline std::string const kStopping{"\0\0\4", 3};
    static inline std::string const kLeave{"\0\0\5", 3};

    velt_testing::EventCapture m_events;
    OpenMonitor m_monitor;
    NotedLoop* m_loop = new NotedLoop;  // the monitor's
};

TEST_F(MonitorTest, PipesGiveTheServiceTheChildsEnds) {
    auto const child = AddChild();
    EXPECT_EQ(m_loop->m_parentReadFd, (*child)->m_toChild[0]);
    EXPECT_EQ(m_loop->m_parentWriteFd, (*child)->m_fromChild[1]);
    EXPECT_FALSE((*child)->m_pinned);
    EXPECT_FALSE((*child)->m_leaving);
    for (int const fd : {(*child)->m_fromChild[0], (*child)->m_toChild[1]}) {
        EXPECT_EQ(::fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
}

TEST_F(MonitorTest, RecordClosesTheParentsEndsAndNoOthers) {
    int fds[4];
    {
        ChildData child;
        velt_testing::Checked(::pipe(child.m_fromChild), "pipe");
        velt_testing::Checked(::pipe(child.m_toChild), "pipe");
        std::memcpy(fds, child.m_fromChild, sizeof child.m_fromChild);
        std::memcpy(fds + 2, child.m_toChild, sizeof child.m_toChild);
    }
    EXPECT_EQ(::fcntl(fds[0], F_GETFD), -1);
    EXPECT_NE(::fcntl(fds[1], F_GETFD), -1);
    EXPECT_NE(::fcntl(fds[2], F_GETFD), -1);
    EXPECT_EQ(::fcntl(fds[3], F_GETFD), -1);
    ::close(fds[1]);
    ::close(fds[2]);
}

TEST_F(MonitorTest, RecordWithoutPipesClosesNothing) {
    { ChildData const child; }
    EXPECT_NE(::fcntl(0, F_GETFD), -1);
}

TEST_F(MonitorTest, LastDescriptorThatFitsTheSetIsTakenAndTheNextRefused) {
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    if (files.rlim_max < 1100) GTEST_SKIP() << "not enough descriptors to be had";
    rlimit const before = files;
    files.rlim_cur = 1100;
    ::setrlimit(RLIMIT_NOFILE, &files);
    std::vector<int> filling;
    while (filling.empty() || filling.back() < 1022) filling.push_back(velt_testing::Checked(::dup(0), "dup"));
    auto const last = AddChild();
    EXPECT_EQ((*last)->m_fromChild[0], 1023);
    for (int const fd : {(*last)->m_fromChild[1], (*last)->m_toChild[0]}) ::close(fd);
    try {
        m_monitor.CreatePipes();
        ADD_FAILURE() << "a descriptor above 1023 was taken";
    } catch (Resource const& failure) {
        EXPECT_EQ(std::string(failure.what()).find("Maximum number of children created - FD_SETSIZE reached."), 0u);
    }
    EXPECT_EQ(m_monitor.m_children.size(), 1u);
    int const next = ::dup(0);
    EXPECT_EQ(next, 1024);
    ::close(next);
    for (int const fd : filling) ::close(fd);
    ::setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(MonitorTest, PipesThatCannotBeMadeSayWhichAndLeakNothing) {
#ifdef VELT_SANITIZED
    GTEST_SKIP() << "a sanitizer needs descriptors of its own";
#endif
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    rlimit const few{256, before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &few);
    std::vector<int> filling = EveryDescriptor();
    for (std::size_t const room : {1, 2, 3}) {
        for (std::size_t i = 0; i < room; ++i) {
            ::close(filling.back());
            filling.pop_back();
        }
        try {
            m_monitor.CreatePipes();
            ADD_FAILURE() << "pipes in " << room << " descriptors";
        } catch (Resource const& failure) {
            EXPECT_EQ(failure.error, EMFILE);
            char const* const end = room < 2 ? "read" : "write";
            EXPECT_EQ(std::string(failure.what()).find("Unable to create child " + std::string(end) + " pipe."), 0u);
        }
        std::vector<int> const left = EveryDescriptor();
        EXPECT_EQ(left.size(), room);
        filling.insert(filling.end(), left.begin(), left.end());
    }
    for (int const fd : filling) ::close(fd);
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(m_monitor.m_children.empty());
}

TEST_F(MonitorTest, MessageWithoutPayloadIsThreeBytesAndNoMore) {
    auto const child = AddChild();
    ChildWrites(child, kStopping + kStopping.substr(0, 2));
    Handle(child);
    EXPECT_TRUE(velt_testing::Readable((*child)->m_fromChild[0], 0));
    EXPECT_EQ(m_loop->stops, 0);
}

TEST_F(MonitorTest, UnknownMessageIsReadWithItsPayloadAndDropped) {
    auto const child = AddChild();
    ServiceLoop::shutdown = true;
    std::string const payload(0x102, 'p');
    ChildWrites(child, std::string("\x01\x02\x63", 3) + payload + kStopping);
    Handle(child);
    EXPECT_EQ(m_loop->stops, 0);
    Handle(child);
    EXPECT_EQ(m_loop->stops, 1);
    EXPECT_FALSE(velt_testing::Readable((*child)->m_fromChild[0], 0));
}

TEST_F(MonitorTest, StoppingChildMattersOnlyWhenTheMonitorStopsToo) {
    auto const child = AddChild();
    ChildWrites(child, kStopping + kStopping);
    Handle(child);
    EXPECT_EQ(m_loop->stops, 0);
    ServiceLoop::shutdown = true;
    Handle(child);
    EXPECT_EQ(m_loop->stops, 1);
}

TEST_F(MonitorTest, ChildThatClosesItsPipeIsForgottenAtOnce) {
    auto const first = AddChild();
    auto const second = AddChild();
    int const read = (*first)->m_fromChild[0], write = (*first)->m_toChild[1];
    ChildEnds(first);
    Handle(first);
    ASSERT_EQ(m_monitor.m_children.size(), 1u);
    EXPECT_EQ(m_monitor.m_children.front(), *second);
    EXPECT_EQ(::fcntl(read, F_GETFD), -1);
    EXPECT_EQ(::fcntl(write, F_GETFD), -1);
}

TEST_F(MonitorTest, ChildThatEndsInMidPayloadIsForgotten) {
    auto const child = AddChild();
    ChildWrites(child, std::string("\0\x05\x03", 3) + "ab");
    ChildEnds(child);
    Handle(child);
    EXPECT_TRUE(m_monitor.m_children.empty());
}

TEST_F(MonitorTest, ReadErrorLeavesTheEntry) {
    auto child = AddChild();
    int const fd = (*child)->m_fromChild[0];
    (*child)->m_fromChild[0] = -1;
    char byte;
    EXPECT_FALSE(m_monitor.ReadChildData(child, &byte, 1));
    EXPECT_EQ(m_monitor.m_children.size(), 1u);
    ::close(fd);
}

TEST_F(MonitorTest, OnlyChildMayNotLeave) {
    auto const child = AddChild();
    m_monitor.m_wantedChildren = 1;
    ChildWrites(child, kReleaseMe);
    Handle(child);
    EXPECT_FALSE((*child)->m_leaving);
    EXPECT_EQ(ChildReads(child), "");
}

TEST_F(MonitorTest, ChildMayLeaveWhileEnoughOthersRemain) {
    auto const first = AddChild();
    auto const second = AddChild();
    m_monitor.m_wantedChildren = 1;
    ChildWrites(first, kReleaseMe);
    Handle(first);
    EXPECT_TRUE((*first)->m_leaving);
    EXPECT_EQ(ChildReads(first), kLeave);
    ChildWrites(second, kReleaseMe);
    Handle(second);
    EXPECT_FALSE((*second)->m_leaving);
    EXPECT_EQ(ChildReads(second), "");
}

TEST_F(MonitorTest, PinnedChildKeepsEverybody) {
    auto const first = AddChild();
    auto const second = AddChild();
    m_monitor.m_wantedChildren = 1;
    (*second)->m_pinned = true;
    auto asked = first;
    m_monitor.HandleIdleTimeout(asked);
    EXPECT_FALSE((*first)->m_leaving);
}

TEST_F(MonitorTest, MessageThatDoesNotGoOutDoesNotCount) {
    auto const first = AddChild();
    AddChild();
    m_monitor.m_wantedChildren = 1;
    int const fd = (*first)->m_toChild[1];
    (*first)->m_toChild[1] = -1;
    auto asked = first;
    m_monitor.ShutdownChild(asked);
    EXPECT_FALSE((*first)->m_leaving);
    EXPECT_FALSE(m_monitor.WriteMsgToChild(-1, VELT::MSG_LEAVE));
    ::close(fd);
}

TEST_F(MonitorTest, NoChildrenAreMadeWhenNoneAreWanted) {
    for (int const count : {0, -3}) {
        int created = 7;
        EXPECT_EQ(m_monitor.CreateChildProcesses(count, created), -1);
        EXPECT_EQ(created, 0);
    }
}

TEST_F(MonitorTest, ChildKeepsItsOwnEndsAndLosesThoseOfTheParent) {
    unsigned long const forks = velt_testing::CounterValue("forks");
    int created = 0;
    int const result = m_monitor.CreateChildProcesses(2, created);
    if (result == 0) {
        bool well =
            velt_testing::CounterValue("forks") == forks + 1 && m_events.Count(VELT::events::CHILD_STARTED) == 1;
        for (ChildData const* const child : m_monitor.m_children) {
            well = well && child->m_fromChild[0] == -1 && child->m_toChild[1] == -1;
        }
        well = well && ::fcntl(m_loop->m_parentReadFd, F_GETFD) != -1;
        well = well && m_monitor.m_children.size() == static_cast<std::size_t>(created) + 1;  // its own and its elders'
        m_loop->WriteMsgToParent(well ? VELT::MSG_STOPPING : VELT::MSG_LEAVE);
        ::_exit(0);
    }
    EXPECT_GT(result, 0);
    EXPECT_EQ(created, 2);
    for (ChildData const* const child : m_monitor.m_children) {
        EXPECT_EQ(velt_testing::ReadToEnd(child->m_fromChild[0]), kStopping);
        EXPECT_EQ(child->m_fromChild[1], -1);
        EXPECT_EQ(child->m_toChild[0], -1);
    }
    while (::waitpid(-1, nullptr, 0) > 0) {
    }
}

TEST_F(MonitorTest, ChildIsNicerByThePriority) {
    int const before = ::getpriority(PRIO_PROCESS, 0);
    if (before > 16) GTEST_SKIP() << "as nice as can be already";
    m_monitor.m_priority = 3;
    int created = 0;
    if (m_monitor.CreateChildProcesses(1, created) == 0) {
        bool const well = ::getpriority(PRIO_PROCESS, 0) == before + 3;
        m_loop->WriteMsgToParent(well ? VELT::MSG_STOPPING : VELT::MSG_LEAVE);
        ::_exit(0);
    }
    ASSERT_EQ(m_monitor.m_children.size(), 1u);
    EXPECT_EQ(velt_testing::ReadToEnd(m_monitor.m_children.front()->m_fromChild[0]), kStopping);
    while (::waitpid(-1, nullptr, 0) > 0) {
    }
}

TEST_F(MonitorTest, ServiceIsPreparedBeforeTheFirstForkAndEndsWithTheStopFlag) {
    ServiceLoop::shutdown = true;
    m_monitor.m_service = nullptr;
    m_monitor.Service(3, nullptr, m_loop, &m_proxy->m_config, 4);
    EXPECT_EQ(m_loop->preForks, 1);
    EXPECT_EQ(m_loop->arguments, 3);
    EXPECT_EQ(m_monitor.m_priority, 1);
    EXPECT_EQ(m_monitor.m_wantedChildren, 4u);
    EXPECT_TRUE(m_monitor.m_children.empty());
}

class SingleLoop : public NotedLoop {
public:
    void Process(int argc, char**) override {
        bool const well = preForks == 1 && arguments == -1 && argc == 3 && connthreads == nullptr;
        ::_exit(well && m_parentReadFd == -1 && m_parentWriteFd == -1 ? 0 : 1);
    }
};

TEST_F(MonitorTest, SingleProcessHasNoPipesAndNoPool) {
    SingleLoop* const loop = new SingleLoop;
    EXPECT_EXIT(m_monitor.Process(loop, 3, nullptr), ::testing::ExitedWithCode(0), "");
    delete loop;
}

TEST_F(MonitorTest, CreateServiceReturnsTheLoopPrepared) {
    EXPECT_EQ(m_monitor.CreateService(m_loop), m_loop);
    EXPECT_EQ(m_loop->preForks, 1);
}

}  // namespace
