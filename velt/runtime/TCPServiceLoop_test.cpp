#include <velt/runtime/TCPServiceLoop.h>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <mutex>

#include <testing/Exchanges.h>
#include <testing/RefusedCalls.h>
#include <velt/logging/Events.h>
#include <velt/runtime/ConnThreadPool.h>
#include <velt/runtime/RuntimeTest.h>

namespace {

using VELT::ProxyHealth;
using VELT::ServiceLoop;
using VELT::TCPServiceLoop;
using velt_testing::CounterValue;
using velt_testing::Eventually;

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

// What the sessions of these tests were told; the factory has no other way to its test. Every accepting thread tells.
struct Told {
    std::mutex mutex;  // guards the calls and the addresses while a worker runs
    std::vector<std::string> calls;
    sockaddr_in peer{}, destination{}, local{};
    bool transparent = true;
    std::atomic<int> workerId{0};
    std::atomic<int> started{0};
    std::atomic<bool> refuse{false};
};
Told* s_told = nullptr;

class EchoSession : public VELT::Connection {
public:
    void InitialiseConnectionClass(bool transparent, VELT::Config&) override {
        std::lock_guard const hold(s_told->mutex);
        s_told->calls.push_back(transparent ? "class transparent" : "class proxy");
    }
    void SetConnection(VELT::Config* config, VELT::TCPStream* stream, bool transparent, sockaddr_in& peer,
                       sockaddr_in& destination, sockaddr_in& local) override {
        {
            std::lock_guard const hold(s_told->mutex);
            s_told->peer = peer;
            s_told->destination = destination;
            s_told->local = local;
            s_told->transparent = transparent;
        }
        Connection::SetConnection(config, stream, transparent, peer, destination, local);
    }
    void Run() override {
        ++s_told->started;
        s_told->workerId = m_workerId;
        char block[64];
        unsigned got = 0;
        while (m_source.m_stream->RecvDataFlagged(block, sizeof block, 0, &got) == 0 && got != 0) {
            m_source.m_stream->write(block, got);
        }
    }
};

VELT::Connection* MakeEcho(bool transparent) {
    std::lock_guard const hold(s_told->mutex);
    s_told->calls.push_back(transparent ? "make transparent" : "make proxy");
    return new EchoSession;
}

VELT::Connection* MakeNothing(bool) { return nullptr; }

class AddingSession : public VELT::Connection {
public:
    void InitialiseConnectionClass(bool transparent, VELT::Config&) override {
        sockaddr_in binding = velt_testing::Loopback(0);
        if (!transparent) VELT::Proxy::s_pProxyInstance->AddSvcBinding(binding);
    }
};

class LoopTest : public velt_testing::ProxyFixture {
protected:
    LoopTest() {
        s_told = &m_told;
        m_events.AllowAll();
        m_proxy->m_permThreads = 1;
    }
    ~LoopTest() override {
        TCPServiceLoop::s_CreateConnection = nullptr;
        ServiceLoop::shutdown = false;
        s_told = nullptr;
    }
    void Bind(char const* dotted = "127.0.0.1", unsigned short port = 0) {
        sockaddr_in binding = velt_testing::Loopback(port, dotted);
        m_proxy->AddSvcBinding(binding);
    }

    velt_testing::EventCapture m_events;
    Told m_told;
};

TEST_F(LoopTest, FactoryIsAskedOncePerModeAndTheObjectsInitialiseTheClass) {
    TCPServiceLoop::RegisterConnectionFactory(&MakeEcho);
    OpenLoop loop(&m_proxy->m_config);
    EXPECT_EQ(m_told.calls,
              (std::vector<std::string>{"make proxy", "class proxy", "make transparent", "class transparent"}));
    EXPECT_EQ(TCPServiceLoop::MyInstance, &loop);
}

TEST_F(LoopTest, BindingAddedByTheClassIsListenedOn) {
    TCPServiceLoop::RegisterConnectionFactory([](bool) -> VELT::Connection* { return new AddingSession; });
    OpenLoop loop(&m_proxy->m_config);
    EXPECT_EQ(loop.m_listenCount, 1);
}

TEST_F(LoopTest, PortInUseIsReportedOnceAndTheOthersServe) {
    int const taken = velt_testing::Listening();
    Bind();
    Bind("127.0.0.1", velt_testing::PortOf(taken));
    Bind();
    OpenLoop loop(&m_proxy->m_config);
    EXPECT_EQ(loop.m_listenCount, 2);
    ASSERT_EQ(m_events.Count(VELT::events::LISTEN_FAILED), 1u);
    KORlog::InfoBag const bag = m_events.Bag(VELT::events::LISTEN_FAILED);
    EXPECT_EQ(velt_testing::NumberAt(bag, "velt_listen_port"), velt_testing::PortOf(taken));
    EXPECT_EQ(velt_testing::TextAt(bag, "velt_listen_address"), "127.0.0.1");
    EXPECT_EQ(velt_testing::TextAt(bag, "velt_socket_operation"), "bind");
    EXPECT_EQ(velt_testing::NumberAt(bag, "velt_error.velt_os_error"), EADDRINUSE);
    for (int i = 0; i < 2; ++i) ::close(velt_testing::ConnectTo(velt_testing::PortOf(loop.m_listenSockets[i])));
    ::close(taken);
}

TEST_F(LoopTest, ClientsOfEveryPortHaveTheirSmallWritesSentAtOnce) {
    Bind();
    OpenLoop loop(&m_proxy->m_config);
    int const client = velt_testing::ConnectTo(velt_testing::PortOf(loop.m_listenSockets[0]));
    int const accepted = velt_testing::Checked(::accept(loop.m_listenSockets[0], nullptr, nullptr), "accept");
    int noDelay = 0;
    socklen_t size = sizeof noDelay;
    velt_testing::Checked(::getsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &noDelay, &size), "getsockopt");
    EXPECT_EQ(noDelay, 1);
    ::close(accepted);
    ::close(client);
}

TEST_F(LoopTest, NoExchangeWithAnAcceptedClientWaitsForADelayedAcknowledgement) {
    Bind();
    OpenLoop loop(&m_proxy->m_config);
    velt_testing::Fd const client(velt_testing::ConnectTo(velt_testing::PortOf(loop.m_listenSockets[0])));
    VELT::TCPStream accepted(velt_testing::Checked(::accept(loop.m_listenSockets[0], nullptr, nullptr), "accept"));
    velt_testing::PlainEnd near(client.get());
    velt_testing::StreamEnd far(accepted);
    EXPECT_LT(velt_testing::ExchangeRatio(near, far), velt_testing::kNoWait);
}

TEST_F(LoopTest, RestartedServiceWaitsForThePortsOfItsPredecessor) {
    m_proxy->m_restarted = true;
    int const taken = velt_testing::Listening();
    Bind("127.0.0.1", velt_testing::PortOf(taken));
    std::thread predecessor([taken] {
        ::poll(nullptr, 0, 200);
        ::close(taken);
    });
    OpenLoop loop(&m_proxy->m_config);
    predecessor.join();
    EXPECT_EQ(loop.m_listenCount, 1);
    EXPECT_TRUE(m_events.Names().empty());
}

TEST_F(LoopTest, RestartedServiceReportsAPortThatStaysTaken) {
    m_proxy->m_restarted = true;
    int const taken = velt_testing::Listening();
    Bind("127.0.0.1", velt_testing::PortOf(taken));
    Bind();
    OpenLoop loop(&m_proxy->m_config);
    EXPECT_EQ(loop.m_listenCount, 1);
    EXPECT_EQ(m_events.Count(VELT::events::LISTEN_FAILED), 1u);
    ::close(taken);
}

TEST_F(LoopTest, NoBindingAtAllIsNoReasonNotToStart) {
    OpenLoop loop(&m_proxy->m_config);
    EXPECT_EQ(loop.m_listenCount, 0);
}

TEST_F(LoopTest, EveryPortInUseIsNoReasonNotToStart) {
    int const taken = velt_testing::Listening();
    for (int i = 0; i < 2; ++i) Bind("127.0.0.1", velt_testing::PortOf(taken));
    auto const begin = std::chrono::steady_clock::now();
    OpenLoop loop(&m_proxy->m_config);
    EXPECT_EQ(loop.m_listenCount, 0);
    EXPECT_EQ(m_events.Count(VELT::events::LISTEN_FAILED), 2u);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3)) << "a first start does not wait";
    ::close(taken);
}

TEST_F(LoopTest, TwentyClientsMayStandInLine) {
    Bind();
    OpenLoop loop(&m_proxy->m_config);
    tcp_info line{};
    socklen_t length = sizeof line;
    velt_testing::Checked(::getsockopt(loop.m_listenSockets[0], IPPROTO_TCP, TCP_INFO, &line, &length), "TCP_INFO");
    EXPECT_EQ(line.tcpi_sacked, 20u);  // of a listening socket: how many may
}

TEST_F(LoopTest, HealthKnowsThePortsThatOpenedAndThoseThatDidNot) {
    ProxyHealth::init("loop");
    int const taken = velt_testing::Listening();
    Bind("127.0.0.1", velt_testing::PortOf(taken));
    OpenLoop loop(&m_proxy->m_config);
    int fd = -1;
    sockaddr_in const open = velt_testing::Loopback(0);
    EXPECT_EQ(loop.ListenToPort(&open, fd), 0);
    ASSERT_EQ(ProxyHealth::m_portlist.size(), 2u);
    EXPECT_FALSE(ProxyHealth::m_portlist[0]->ok);
    EXPECT_TRUE(ProxyHealth::m_portlist[1]->ok);
    ::close(fd);
    ::close(taken);
}

TEST_F(LoopTest, PortThatFailsOnOneOfItsAddressesIsNotOk) {
    ProxyHealth::init("loop");
    int const taken = velt_testing::Listening("127.77.0.1");  // apart from where other tests' clients come from
    unsigned short const port = velt_testing::PortOf(taken);
    Bind("127.77.0.2", port);
    Bind("127.77.0.1", port);
    OpenLoop const loop(&m_proxy->m_config);
    EXPECT_EQ(loop.m_listenCount, 1);
    ASSERT_EQ(ProxyHealth::m_portlist.size(), 1u);
    EXPECT_FALSE(ProxyHealth::m_portlist[0]->ok);
    ::close(taken);
}

TEST_F(LoopTest, PortsAreNotNotedWhileHealthIsOff) {
    Bind();
    OpenLoop loop(&m_proxy->m_config);
    EXPECT_TRUE(ProxyHealth::m_portlist.empty());
}

TEST_F(LoopTest, WithoutAFactoryClientsAreClosedWithoutAWord) {
    OpenLoop loop(&m_proxy->m_config);
    auto const [client, server] = velt_testing::ConnectedPair();
    loop.NewConnection(server, TCPServiceLoop::RUN_INLINE);
    EXPECT_EQ(velt_testing::ReadToEnd(client), "");
    EXPECT_EQ(loop.m_connectionCount, 1u);
    EXPECT_TRUE(m_events.Names().empty());
    ::close(client);
}

TEST_F(LoopTest, FactoryThatGivesNothingIsReportedAndTheClientClosed) {
    TCPServiceLoop::RegisterConnectionFactory(&MakeNothing);
    OpenLoop loop(&m_proxy->m_config);
    auto const [client, server] = velt_testing::ConnectedPair();
    loop.NewConnection(server, TCPServiceLoop::RUN_INLINE);
    EXPECT_EQ(velt_testing::ReadToEnd(client), "");
    EXPECT_EQ(m_events.Count(VELT::events::NO_CONNECTION_OBJECT), 1u);
    ::close(client);
}

TEST_F(LoopTest, DescriptorThatIsNoSocketIsClosedWithoutAWord) {
    TCPServiceLoop::RegisterConnectionFactory(&MakeEcho);
    OpenLoop loop(&m_proxy->m_config);
    int const file = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    loop.NewConnection(file, TCPServiceLoop::RUN_INLINE);
    EXPECT_EQ(::fcntl(file, F_GETFD), -1);
    EXPECT_EQ(m_told.started, 0);
    EXPECT_TRUE(m_events.Names().empty());
}

TEST_F(LoopTest, SessionIsToldPeerLocalAndDestinationEachByItsName) {
    TCPServiceLoop::RegisterConnectionFactory(&MakeEcho);
    OpenLoop loop(&m_proxy->m_config);
    auto const [client, server] = velt_testing::ConnectedPair("127.0.0.3", "127.0.0.2");
    ::shutdown(client, SHUT_WR);
    loop.NewConnection(server, TCPServiceLoop::RUN_INLINE);
    EXPECT_STREQ(::inet_ntoa(m_told.peer.sin_addr), "127.0.0.2");
    EXPECT_STREQ(::inet_ntoa(m_told.local.sin_addr), "127.0.0.3");
    EXPECT_STREQ(::inet_ntoa(m_told.destination.sin_addr), "127.0.0.2");
    EXPECT_FALSE(m_told.transparent);
    ::close(client);
}

TEST_F(LoopTest, InlineSessionRunsOnTheCallerAndIsDeleted) {
    TCPServiceLoop::RegisterConnectionFactory(&MakeEcho);
    OpenLoop loop(&m_proxy->m_config);
    m_proxy->m_forkedModel = true;
    EXPECT_EQ(loop.PostForkInit(), 0);
    EXPECT_EQ(ServiceLoop::connthreads, nullptr);
    auto const [client, server] = velt_testing::ConnectedPair();
    ASSERT_EQ(::write(client, "hello", 5), 5);
    ::shutdown(client, SHUT_WR);
    loop.NewConnection(server, TCPServiceLoop::RUN_INLINE);
    EXPECT_EQ(velt_testing::ReadToEnd(client), "hello");
    EXPECT_EQ(m_told.workerId, ::getpid());
    ::close(client);
}

TEST_F(LoopTest, ForkedModelOfOneConnectionForksNobody) {
    TCPServiceLoop::RegisterConnectionFactory(&MakeEcho);
    OpenLoop loop(&m_proxy->m_config);
    m_proxy->m_forkedModel = true;
    m_proxy->m_maxConnections = 1;
    loop.PostForkInit();
    auto const [client, server] = velt_testing::ConnectedPair();
    ::shutdown(client, SHUT_WR);
    loop.RunChildConnection(server);
    EXPECT_EQ(m_told.workerId, ::getpid());
    EXPECT_EQ(loop.m_childCount, 0u);
    EXPECT_EQ(loop.m_connectionCount, 1u);
    ::close(client);
}

TEST_F(LoopTest, ChildExitIsWaitedForOnlyAtTheLimitAndOnlyOnce) {
    OpenLoop loop(&m_proxy->m_config);
    ::signal(SIGCHLD, SIG_DFL);
    m_proxy->m_maxConnections = 2;
    int hold[2];
    velt_testing::Checked(::pipe(hold), "pipe");
    for (int i = 0; i < 2; ++i) {
        if (::fork() == 0) {
            char byte;
            ::close(hold[1]);
            ::_exit(static_cast<int>(::read(hold[0], &byte, 1)) == 1 ? 0 : 1);
        }
        ++loop.m_childCount;
    }
    ::close(hold[0]);
    loop.CheckForChildExit(false);
    EXPECT_EQ(loop.m_childCount, 2u);
    ASSERT_EQ(::write(hold[1], "x", 1), 1);
    loop.CheckForChildExit(true);
    EXPECT_EQ(loop.m_childCount, 1u);
    loop.CheckForChildExit(true);
    EXPECT_EQ(loop.m_childCount, 1u);
    ::close(hold[1]);
    EXPECT_TRUE(Eventually([&] {
        loop.CheckForChildExit(false);
        return loop.m_childCount == 0;
    }));
}

TEST_F(LoopTest, WithoutProcessesOfItsOwnItWaitsForNobody) {
    OpenLoop loop(&m_proxy->m_config);
    ::signal(SIGCHLD, SIG_DFL);
    m_proxy->m_maxConnections = 1;
    pid_t const hostChild = ::fork();
    if (hostChild == 0) ::_exit(0);
    siginfo_t ended{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(hostChild), &ended, WEXITED | WNOWAIT), 0);
    loop.CheckForChildExit(true);
    EXPECT_EQ(::waitpid(hostChild, nullptr, 0), hostChild);
}

TEST_F(LoopTest, ChildrenOfTheHostDoNotTakeTheCountBelowNought) {
    OpenLoop loop(&m_proxy->m_config);
    ::signal(SIGCHLD, SIG_DFL);
    m_proxy->m_maxConnections = 2;
    pid_t const hostChild = ::fork();
    if (hostChild == 0) ::_exit(0);
    EXPECT_TRUE(Eventually([&] {
        loop.CheckForChildExit(false);
        return ::kill(hostChild, 0) == -1;
    }));
    EXPECT_EQ(loop.m_childCount, 0u);
}

TEST_F(LoopTest, RefreshRateOfFiveRetiresAfterTheSixthConnection) {
    m_proxy->m_refreshRate = 5;
    OpenLoop loop(&m_proxy->m_config);
    unsigned long const before = CounterValue("recycle.con");
    loop.m_connectionCount = 5;
    loop.CheckConnectionLimit();
    EXPECT_FALSE(ServiceLoop::shutdown);
    loop.m_connectionCount = 6;
    loop.CheckConnectionLimit();
    EXPECT_TRUE(ServiceLoop::shutdown);
    loop.CheckConnectionLimit();
    EXPECT_EQ(CounterValue("recycle.con") - before, 1u);
    ASSERT_EQ(m_events.Count(VELT::events::RECYCLE_CONNECTIONS), 1u);
    EXPECT_EQ(velt_testing::NumberAt(m_events.Bag(VELT::events::RECYCLE_CONNECTIONS), "velt_max_connections"), 6);
}

TEST_F(LoopTest, RefreshRateOfNoughtNeverRetires) {
    m_proxy->m_refreshRate = 0;
    OpenLoop loop(&m_proxy->m_config);
    unsigned long const before = CounterValue("recycle.con");
    loop.m_connectionCount = 1000000;
    loop.CheckConnectionLimit();
    EXPECT_FALSE(ServiceLoop::shutdown);
    EXPECT_EQ(CounterValue("recycle.con"), before);
}

TEST_F(LoopTest, StoppingClosesEachSocketOnceAndKeepsTheCount) {
    Bind();
    Bind();
    OpenLoop loop(&m_proxy->m_config);
    int const first = loop.m_listenSockets[0];
    loop.StopServices();
    EXPECT_EQ(loop.m_listenSockets[0], -1);
    EXPECT_EQ(loop.m_listenCount, 2);
    int const reused = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(reused, first);
    loop.StopServices();
    EXPECT_NE(::fcntl(reused, F_GETFD), -1);
    ::close(reused);
}

// A worker of the threaded model in this process; the test is its parent and its clients.
class ThreadedWorkerTest : public LoopTest {
protected:
    void StartWorker() {
        TCPServiceLoop::RegisterConnectionFactory(&MakeEcho);
        Bind();
        Bind();
        m_loop = std::make_unique<OpenLoop>(&m_proxy->m_config);
        velt_testing::Checked(::pipe(m_toChild), "pipe");
        velt_testing::Checked(::pipe(m_fromChild), "pipe");
        m_loop->SetPipes(m_toChild[0], m_fromChild[1]);
        for (int i = 0; i < 2; ++i) {
            m_shared[i] = ::dup(m_loop->m_listenSockets[i]);
            m_ports[i] = velt_testing::PortOf(m_shared[i]);
        }
        m_loop->PostForkInit();
        m_worker = std::thread([this] { m_loop->Run(); });
    }
    std::string Echo(unsigned short port, std::string const& text) {
        int const client = velt_testing::ConnectTo(port);
        EXPECT_EQ(::write(client, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        ::shutdown(client, SHUT_WR);
        std::string const answer = velt_testing::ReadToEnd(client);
        ::close(client);
        return answer;
    }
    void ParentGoes() {
        ::close(m_toChild[1]);
        m_toChild[1] = -1;
    }
    // Its threads run and have opened what they need: from here on the worker opens nothing of its own.
    void ServeOnEveryPort() {
        for (unsigned short const port : m_ports) EXPECT_EQ(Echo(port, "up"), "up");
    }
    void JoinWorker() {
        if (m_worker.joinable()) m_worker.join();
    }
    ~ThreadedWorkerTest() override {
        ServiceLoop::shutdown = true;
        JoinWorker();
        for (int const fd : {m_toChild[1], m_fromChild[0], m_shared[0], m_shared[1]}) {
            if (fd != -1) ::close(fd);
        }
    }

    std::unique_ptr<OpenLoop> m_loop;
    std::thread m_worker;
    int m_toChild[2] = {-1, -1}, m_fromChild[2] = {-1, -1}, m_shared[2] = {-1, -1};
    unsigned short m_ports[2] = {0, 0};
};

TEST_F(ThreadedWorkerTest, ServesEveryPortOnThePool) {
    unsigned long const queued = CounterValue("connections.queued"), ran = CounterValue("connections.ran");
    StartWorker();
    EXPECT_EQ(Echo(m_ports[0], "one"), "one");
    EXPECT_EQ(Echo(m_ports[1], "two"), "two");
    EXPECT_EQ(m_told.workerId, ::getpid());
    EXPECT_EQ(CounterValue("connections.queued") - queued, 2u);
    EXPECT_EQ(CounterValue("connections.ran") - ran, 2u);
}

// The accepting thread makes the sessions: from the first one on, the system lets it watch no further socket.
VELT::Connection* MakeEchoAndRefuseToWatch(bool transparent) {
    if (!transparent && s_told->refuse.exchange(false)) {
        velt_testing::RefuseCallWith(SYS_epoll_ctl, 1, EPOLL_CTL_ADD, ENOMEM);
    }
    return new EchoSession;
}

TEST_F(ThreadedWorkerTest, WorkerWithSiblingsServesOnThoughItsSocketCannotBeWatchedAnew) {
    if (!velt_testing::CanRefuse()) GTEST_SKIP() << "no call can be refused here";
    EXPECT_TRUE(velt_testing::InChild([this] {
        m_proxy->m_acceptCount = 2;
        StartWorker();
        TCPServiceLoop::RegisterConnectionFactory(&MakeEchoAndRefuseToWatch);
        m_told.refuse = true;
        if (Echo(m_ports[0], "first") != "first") return false;
        int const second = velt_testing::ConnectTo(m_ports[0]);
        bool const served = ::write(second, "x", 1) == 1 && velt_testing::Readable(second);
        ::close(second);
        ParentGoes();
        JoinWorker();
        return served;
    }));
}

// From the first session on, the thread that accepted it is given no further client of its port.
VELT::Connection* MakeEchoAndRefuseToAccept(bool transparent) {
    if (!transparent && s_told->refuse.exchange(false)) velt_testing::RefuseCall(SYS_accept4, ECONNABORTED);
    return new EchoSession;
}

TEST_F(ThreadedWorkerTest, ClientThatTheSystemDoesNotGiveIsNoReasonToStopOrToReport) {
    if (!velt_testing::CanRefuse()) GTEST_SKIP() << "no call can be refused here";
    EXPECT_TRUE(velt_testing::InChild([this] {
        StartWorker();
        TCPServiceLoop::RegisterConnectionFactory(&MakeEchoAndRefuseToAccept);
        m_told.refuse = true;
        bool well = Echo(m_ports[0], "first") == "first";
        int const waiting = velt_testing::ConnectTo(m_ports[0]);
        for (int i = 0; i < 20; ++i) well = well && Echo(m_ports[1], "other") == "other";
        well = well && !velt_testing::Readable(waiting, 0) && !ServiceLoop::shutdown;
        ParentGoes();
        JoinWorker();
        ::close(waiting);
        std::vector<std::string> const told = m_events.Names();
        return well && m_loop->m_connectionCount == 21 && std::all_of(told.begin(), told.end(), [](auto const& name) {
                   return name.starts_with("10003:");  // what sessions tell
               });
    }));
}

TEST_F(ThreadedWorkerTest, ParentThatGoesStopsTheWorkerWhichSaysSoAndClosesItsPipe) {
    StartWorker();
    ParentGoes();
    JoinWorker();
    EXPECT_EQ(velt_testing::ReadToEnd(m_fromChild[0]), std::string("\0\0\4", 3));
    EXPECT_TRUE(ServiceLoop::shutdown);
}

TEST_F(ThreadedWorkerTest, StoppingDrainsSessionsAndCutsNone) {
    StartWorker();
    int const client = velt_testing::ConnectTo(m_ports[0]);
    ASSERT_EQ(::write(client, "a", 1), 1);
    ASSERT_TRUE(velt_testing::Readable(client));
    ParentGoes();
    EXPECT_EQ(velt_testing::ReadToEnd(m_fromChild[0]), std::string("\0\0\4", 3));
    ASSERT_EQ(::write(client, "b", 1), 1);
    ::shutdown(client, SHUT_WR);
    EXPECT_EQ(velt_testing::ReadToEnd(client), "ab");
    JoinWorker();
    ::close(client);
}

TEST_F(ThreadedWorkerTest, StoppingLeavesTheSharedListenersOpenToOthers) {
    StartWorker();
    ParentGoes();
    JoinWorker();
    int const client = velt_testing::ConnectTo(m_ports[0]);
    EXPECT_TRUE(velt_testing::Readable(m_shared[0]));
    ::close(client);
}

TEST_F(ThreadedWorkerTest, MessageFiveIsNotedAndTheWorkerGoesOn) {
    StartWorker();
    ASSERT_EQ(::write(m_toChild[1], "\0\0\5", 3), 3);
    EXPECT_TRUE(Eventually([] { return ServiceLoop::bProxyShutdown.load(); }));
    EXPECT_EQ(Echo(m_ports[0], "still here"), "still here");
    EXPECT_FALSE(ServiceLoop::shutdown);
}

TEST_F(ThreadedWorkerTest, TornMessageClosesThePipeAndTheWorkerGoesOnWithoutAParent) {
    StartWorker();
    ServeOnEveryPort();
    ASSERT_EQ(::write(m_toChild[1], "\0", 1), 1);
    ParentGoes();
    EXPECT_TRUE(Eventually([this] { return ::fcntl(m_toChild[0], F_GETFD) == -1; }));
    EXPECT_EQ(Echo(m_ports[1], "alone"), "alone");
    EXPECT_FALSE(ServiceLoop::shutdown);
}

// Whatever file has the number next is taken for the parent's pipe.
TEST_F(ThreadedWorkerTest, NumberOfAClosedPipeIsStillWatched) {
    StartWorker();
    ServeOnEveryPort();
    int const number = m_toChild[0];
    ASSERT_EQ(::write(m_toChild[1], "\0", 1), 1);
    ParentGoes();
    ASSERT_TRUE(Eventually([number] { return ::fcntl(number, F_GETFD) == -1; }));
    int other[2];
    velt_testing::Checked(::pipe(other), "pipe");
    if (other[0] != number) {
        velt_testing::Checked(::dup2(other[0], number), "dup2");
        ::close(other[0]);
    }
    if (other[1] != number) ::close(other[1]);
    JoinWorker();
    EXPECT_TRUE(ServiceLoop::shutdown);
    ::close(number);
}

// A parent that never stops talking leaves no second in which nothing comes, and only then the count is looked at.
TEST_F(ThreadedWorkerTest, CountIsLookedAtWhenASecondWasQuietAndNotAtEachConnection) {
    m_proxy->m_refreshRate = 2;
    StartWorker();
    std::string talk;
    while (talk.size() < 60000) talk.append("\0\0\x7f", 3);
    std::atomic<bool> talking{true};
    std::thread parent([&] {
        while (talking) {
            EXPECT_EQ(::write(m_toChild[1], talk.data(), talk.size()), static_cast<ssize_t>(talk.size()));
        }
    });
    for (int i = 0; i < 6; ++i) EXPECT_EQ(Echo(m_ports[0], "x"), "x");
    EXPECT_FALSE(ServiceLoop::shutdown);
    talking = false;
    parent.join();
    JoinWorker();
    ASSERT_EQ(m_events.Count(VELT::events::RECYCLE_CONNECTIONS), 1u);
    EXPECT_EQ(velt_testing::NumberAt(m_events.Bag(VELT::events::RECYCLE_CONNECTIONS), "velt_max_connections"), 6);
}

TEST_F(ThreadedWorkerTest, RecyclingStopsAcceptingWithinASecondOrTwo) {
    m_proxy->m_refreshRate = 2;
    StartWorker();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(Echo(m_ports[0], "x"), "x");
    JoinWorker();
    EXPECT_EQ(m_events.Count(VELT::events::RECYCLE_CONNECTIONS), 1u);
}

TEST_F(ThreadedWorkerTest, SocketGivenBackBecomesANewSession) {
    StartWorker();
    auto const [client, server] = velt_testing::ConnectedPair();
    TCPServiceLoop::RecycleConnection(server);
    ASSERT_EQ(::write(client, "again", 5), 5);
    ::shutdown(client, SHUT_WR);
    EXPECT_EQ(velt_testing::ReadToEnd(client), "again");
    ::close(client);
}

TEST_F(ThreadedWorkerTest, SocketsGivenBackAreQueuedWithoutAWaitHoweverFullTheQueueIs) {
    m_proxy->m_maxQueuedConnections = 1;
    StartWorker();
    int const busy = velt_testing::ConnectTo(m_ports[0]);
    ASSERT_EQ(::write(busy, "a", 1), 1);
    ASSERT_TRUE(velt_testing::Readable(busy));
    std::array const given{velt_testing::ConnectedPair(), velt_testing::ConnectedPair(), velt_testing::ConnectedPair()};
    velt_testing::Door returned;
    std::thread host([&] {
        for (auto const& pair : given) TCPServiceLoop::RecycleConnection(pair[1]);
        returned.Open();
    });
    EXPECT_TRUE(returned.WaitSome());
    ::close(busy);
    for (auto const& pair : given) {
        ::shutdown(pair[0], SHUT_WR);
        EXPECT_EQ(velt_testing::ReadToEnd(pair[0]), "");
        ::close(pair[0]);
    }
    host.join();
    EXPECT_EQ(m_told.started, 4);
}

}  // namespace
