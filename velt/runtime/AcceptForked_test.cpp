// The forked model's accepting process: what it counts, what it says to its parent, and what it does without forks.
#include <velt/runtime/TCPServiceLoop.h>

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <testing/RefusedCalls.h>
#include <velt/logging/Events.h>
#include <velt/runtime/RuntimeTest.h>

namespace {

using VELT::ServiceLoop;
using VELT::TCPServiceLoop;

class OpenLoop : public TCPServiceLoop {
public:
    using TCPServiceLoop::m_childCount;
    using TCPServiceLoop::m_connectionCount;
    using TCPServiceLoop::m_listenCount;
    using TCPServiceLoop::m_listenSockets;
    using TCPServiceLoop::m_parentReadFd;
    using TCPServiceLoop::m_parentWriteFd;
    using TCPServiceLoop::TCPServiceLoop;
};

// Tells its client what its own process knows.
class TellingSession : public VELT::Connection {
public:
    void Run() override {
        auto const& loop = static_cast<OpenLoop const&>(*TCPServiceLoop::MyInstance);
        bool const own = m_workerId == ::getpid();
        bool const stopped = loop.m_listenSockets[0] == -1 && loop.m_parentReadFd == -1 && loop.m_parentWriteFd == -1;
        std::string const text =
            std::to_string(loop.m_connectionCount) + (own ? " own" : "") + (stopped ? " alone" : "");
        m_source.m_stream->write(text.data(), static_cast<unsigned>(text.size()));
        char byte;
        if (s_hold != -1 && ::read(s_hold, &byte, 1) != 1) ::abort();
    }
    static inline int s_hold = -1;  // where it waits for a byte before it ends; -1: it does not wait
};

class AcceptForked : public velt_testing::ProxyFixture {
protected:
    AcceptForked() {
        m_events.AllowAll();
        m_proxy->m_forkedModel = true;
        m_proxy->m_maxConnections = 2;
        sockaddr_in binding = velt_testing::Loopback(0);
        m_proxy->AddSvcBinding(binding);
        TCPServiceLoop::RegisterConnectionFactory([](bool) -> VELT::Connection* { return new TellingSession; });
    }
    ~AcceptForked() override {
        TCPServiceLoop::s_CreateConnection = nullptr;
        ServiceLoop::shutdown = false;
    }
    bool IsQuiet() const { return m_events.Count(VELT::events::NO_CONNECTION_OBJECT) == 0; }

    velt_testing::EventCapture m_events;
};

// The worker counts it when it has forked; the connection's own process counts it for itself.
TEST_F(AcceptForked, ConnectionIsCountedByTheWorkerAndByItsOwnProcess) {
    EXPECT_TRUE(velt_testing::InChild([this] {
        OpenLoop& loop = *new OpenLoop(&m_proxy->m_config);
        int pipes[2];
        velt_testing::Checked(::pipe(pipes), "pipe");
        loop.SetPipes(pipes[0], pipes[1]);
        int hold[2];
        velt_testing::Checked(::pipe(hold), "pipe");
        TellingSession::s_hold = hold[0];
        auto const [client, server] = velt_testing::ConnectedPair();
        loop.RunChildConnection(server);
        bool const counted = loop.m_connectionCount == 1 && loop.m_childCount == 1;
        velt_testing::Checked(static_cast<int>(::write(hold[1], "", 1)), "write");
        return counted && velt_testing::ReadToEnd(client) == "1 own alone";
    }));
}

TEST_F(AcceptForked, ClientThatNoProcessCanBeMadeForIsClosedWithoutAWordAndCountsNowhere) {
    if (!velt_testing::CanRefuse()) GTEST_SKIP() << "no call can be refused here";
    EXPECT_TRUE(velt_testing::InChild([this] {
        OpenLoop& loop = *new OpenLoop(&m_proxy->m_config);
        auto const [client, server] = velt_testing::ConnectedPair();
        velt_testing::RefuseForks();
        loop.RunChildConnection(server);
        bool const closed =
            velt_testing::Readable(client) && velt_testing::ReadToEnd(client).empty() && ::fcntl(server, F_GETFD) == -1;
        return closed && loop.m_connectionCount == 0 && loop.m_childCount == 0 && m_events.Names().empty();
    }));
}

// The watch over its scans is a thread. Without one there are no scans, and no session that could ask for them.
TEST_F(AcceptForked, ClientWhoseProcessGetsNoThreadIsReportedAndClosed) {
    if (!velt_testing::CanRefuse()) GTEST_SKIP() << "no call can be refused here";
    static int reports[2];
    velt_testing::Checked(::pipe(reports), "pipe");
    static auto const& events = m_events;
    static pid_t worker;
    EXPECT_TRUE(velt_testing::InChild([this] {
        OpenLoop& loop = *new OpenLoop(&m_proxy->m_config);
        worker = ::getpid();
        std::atexit([] {  // the session's process ends in order, and tells what it has reported
            std::string text;
            for (auto const& event : events.Events())
                text += event.event->asString() + " " + velt_testing::Describe(event.bag);
            if (::getpid() != worker && ::write(reports[1], text.data(), text.size()) < 0) ::abort();
        });
        auto const [client, server] = velt_testing::ConnectedPair();
        velt_testing::RefuseCall(SYS_clone3, EAGAIN);
        loop.RunChildConnection(server);
        return velt_testing::ReadToEnd(client).empty();
    }));
    ::close(reports[1]);
    EXPECT_EQ(velt_testing::ReadToEnd(reports[0]), "10002:64 velt_error={velt_os_error=11}");
    ::close(reports[0]);
}

// It neither says that it stops, nor closes its pipes, nor waits for the connections that it forked for.
TEST_F(AcceptForked, WorkerLeavesWithoutAWordAndWithoutWaiting) {
    int toChild[2], fromChild[2], hold[2];
    for (int* const ends : {toChild, fromChild, hold}) velt_testing::Checked(::pipe(ends), "pipe");
    ::close(toChild[1]);
    EXPECT_TRUE(velt_testing::InChild([&] {
        OpenLoop& loop = *new OpenLoop(&m_proxy->m_config);
        loop.SetPipes(toChild[0], fromChild[1]);
        if (::fork() == 0) {
            char byte;
            ::close(hold[1]);
            ::_exit(static_cast<int>(::read(hold[0], &byte, 1)));
        }
        loop.m_childCount = 1;
        loop.AcceptConnections_Forked();
        return ServiceLoop::shutdown && loop.m_childCount == 1 && loop.m_parentReadFd == toChild[0] &&
               loop.m_parentWriteFd == fromChild[1] && loop.m_listenSockets[0] == -1 && loop.m_listenCount == 1;
    }));
    ::close(hold[1]);
    ::close(fromChild[1]);
    EXPECT_EQ(velt_testing::ReadToEnd(fromChild[0]), "");
    for (int const fd : {toChild[0], fromChild[0], hold[0]}) ::close(fd);
}

// The hangup may have come while the last of them was forked, before there was a wait that it could interrupt.
TEST_F(AcceptForked, WorkerThatStopsWaitsForNoChildThoughAsManyRunAsAreAllowed) {
    OpenLoop loop(&m_proxy->m_config);
    ::signal(SIGCHLD, SIG_DFL);
    loop.m_childCount = m_proxy->m_maxConnections;
    int hold[2];
    velt_testing::Checked(::pipe(hold), "pipe");
    pid_t const child = ::fork();
    if (child == 0) {
        char byte;
        ::close(hold[1]);
        ::_exit(static_cast<int>(::read(hold[0], &byte, 1)));
    }
    ServiceLoop::shutdown = true;
    velt_testing::Door returned;
    std::thread accepting([&] {
        loop.CheckForChildExit(true);
        returned.Open();
    });
    EXPECT_TRUE(returned.WaitSome());
    EXPECT_EQ(loop.m_childCount, 2u);
    ::close(hold[1]);
    accepting.join();
    ::close(hold[0]);
    ::waitpid(child, nullptr, 0);
}

// Both are there at the first look: the client, whom the system does not give, and the end of the parent.
TEST_F(AcceptForked, ClientThatTheSystemDoesNotGiveIsNobodysConnectionAndNoReasonToStop) {
    if (!velt_testing::CanRefuse()) GTEST_SKIP() << "no call can be refused here";
    EXPECT_TRUE(velt_testing::InChild([this] {
        OpenLoop& loop = *new OpenLoop(&m_proxy->m_config);
        int toChild[2];
        velt_testing::Checked(::pipe(toChild), "pipe");
        ::close(toChild[1]);
        loop.SetPipes(toChild[0], -1);
        int const client = velt_testing::ConnectTo(velt_testing::PortOf(loop.m_listenSockets[0]));
        velt_testing::RefuseCall(SYS_accept4, ECONNABORTED);
        loop.AcceptConnections_Forked();
        ::close(client);
        return ServiceLoop::shutdown && loop.m_connectionCount == 0 && loop.m_childCount == 0 &&
               m_events.Names().empty();
    }));
}

// A torn message closes the pipe for good: what is polled from then on are the sockets alone.
TEST_F(AcceptForked, TornMessageClosesThePipeAndTheWorkerServesOn) {
    int toChild[2], port[2];
    velt_testing::Checked(::pipe(toChild), "pipe");
    velt_testing::Checked(::pipe(port), "pipe");
    ASSERT_EQ(::write(toChild[1], "\0", 1), 1);
    ::close(toChild[1]);
    pid_t const test = ::getpid();
    m_proxy->m_refreshRate = 1;
    EXPECT_TRUE(velt_testing::InChild([&] {
        OpenLoop& loop = *new OpenLoop(&m_proxy->m_config);
        unsigned short const number = velt_testing::PortOf(loop.m_listenSockets[0]);
        pid_t const clients = ::fork();
        if (clients == 0) {
            for (int i = 0; i < 2; ++i) velt_testing::ReadToEnd(velt_testing::ConnectTo(number));
            ::_exit(::getppid() == test ? 1 : 0);
        }
        loop.SetPipes(toChild[0], -1);
        loop.AcceptConnections_Forked();
        return loop.m_parentReadFd == -1 && loop.m_connectionCount == 2 && ServiceLoop::shutdown &&
               m_events.Count(VELT::events::RECYCLE_CONNECTIONS) == 1;
    }));
    for (int const fd : {toChild[0], port[0], port[1]}) ::close(fd);
}

TEST_F(AcceptForked, OneConnectionAtATimeForksNobodyThoughForksAreRefused) {
    if (!velt_testing::CanRefuse()) GTEST_SKIP() << "no call can be refused here";
    m_proxy->m_maxConnections = 1;
    EXPECT_TRUE(velt_testing::InChild([this] {
        OpenLoop& loop = *new OpenLoop(&m_proxy->m_config);
        loop.PostForkInit();
        auto const [client, server] = velt_testing::ConnectedPair();
        velt_testing::RefuseForks();
        loop.RunChildConnection(server);
        return velt_testing::ReadToEnd(client) == "1 own" && loop.m_childCount == 0 && IsQuiet();
    }));
}

// --- sockets that the system refuses ---

class RefusedSocket : public AcceptForked {
protected:
    // The operation that the report names, and what the call gave back.
    struct Outcome {
        std::string operation;
        int result = 0, fd = -1;
    };
    Outcome Open(long refused, int error) {
        OpenLoop& loop = *new OpenLoop(&m_proxy->m_config);
        velt_testing::RefuseCall(refused, error);
        sockaddr_in const address = velt_testing::Loopback(0);
        Outcome outcome;
        outcome.result = loop.ListenToPort(&address, outcome.fd);
        if (m_events.Count(VELT::events::LISTEN_FAILED) == 1) {
            KORlog::InfoBag const bag = m_events.Bag(VELT::events::LISTEN_FAILED);
            EXPECT_EQ(velt_testing::NumberAt(bag, "velt_error.velt_os_error"), error);
            outcome.operation = velt_testing::TextAt(bag, "velt_socket_operation").value_or("none");
        }
        return outcome;
    }
    void SetUp() override {
        if (!velt_testing::CanRefuse()) GTEST_SKIP() << "no call can be refused here";
    }
};

TEST_F(RefusedSocket, IsReportedAndTheErrorIsTheAnswer) {
    EXPECT_TRUE(velt_testing::InChild([this] {
        Outcome const outcome = Open(SYS_socket, EMFILE);
        return outcome.operation == "socket" && outcome.result == EMFILE && outcome.fd == -1;
    }));
}

TEST_F(RefusedSocket, OptionIsReportedAndTheSocketClosed) {
    EXPECT_TRUE(velt_testing::InChild([this] {
        int const next = ::dup(0);
        ::close(next);
        Outcome const outcome = Open(SYS_setsockopt, ENOBUFS);
        int const reused = ::dup(0);
        return outcome.operation == "setsockopt" && outcome.result == -1 && outcome.fd == -1 && reused == next + 1;
    }));
}

// Nobody looks at what listen says.
TEST_F(RefusedSocket, ListenIsNotLookedAt) {
    EXPECT_TRUE(velt_testing::InChild([this] {
        Outcome const outcome = Open(SYS_listen, EOPNOTSUPP);
        return outcome.operation.empty() && outcome.result == 0 && outcome.fd != -1;
    }));
}

}  // namespace
