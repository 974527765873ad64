// What an accepted socket becomes by what the interception answers for it.
#include <sys/syscall.h>
#include <velt/runtime/TCPServiceLoop.h>

#include <cstdlib>

#include "testing/DeviceModel.h"
#include "testing/RefusedCalls.h"
#include "velt/runtime/RuntimeTest.h"

namespace {

using VELT::Interception;
using VELT::TCPServiceLoop;
using velt_testing::DeviceModel;

// A table of its own keeps the network's addresses from counting as this machine's.
constexpr char const* kRouteHere =
    "ip route replace local 203.0.113.0/24 dev lo table 100 && ip rule add to 203.0.113.0/24 lookup 100";
constexpr char const* kRouteAway =
    "ip rule del to 203.0.113.0/24 lookup 100 && ip route del local 203.0.113.0/24 dev lo table 100";
constexpr std::uint32_t k203_0_113_9 = 0xCB007109;

// What the one session of a test found; the factory has no other way to its test.
struct Found {
    int sessions = 0;
    bool transparent = false;
    bool factoryTransparent = false;
    bool handle = false;
    in_addr server{};
};
Found s_found;
DeviceModel* s_device = nullptr;

class FindingSession : public VELT::Connection {
public:
    void Run() override {
        ++s_found.sessions;
        s_found.transparent = m_transparent;
        s_found.server = m_server.m_address.sin_addr;
        s_found.handle = s_device->IsHandle(m_source.m_stream->GetNATInfo());
    }
};

VELT::Connection* MakeFinding(bool transparent) {
    s_found.factoryTransparent = transparent;
    return new FindingSession;
}

class AcceptIntercepted : public velt_testing::ProxyFixture {
protected:
    AcceptIntercepted() {
        m_events.AllowAll();
        TCPServiceLoop::RegisterConnectionFactory(&MakeFinding);
        m_device.WriteInterfaces("7f000001 0\n");
        s_device = &m_device;
        Begin(Interception::Device);
    }
    ~AcceptIntercepted() override {
        TCPServiceLoop::s_CreateConnection = nullptr;
        s_device = nullptr;
        Begin(Interception::Off);
        VELT::qxtrans_select(Interception::Device);
    }
    static void Begin(Interception chosen) {
        VELT::qxtrans_initialised = VELT::qxtrans_active = 0;
        VELT::qxtrans_select(chosen);
        VELT::qxtrans_init();
    }

    // In a process that waits for its children, as this one does not.
    static bool Run(char const* command) {
        return velt_testing::InChild([command] { return std::system(command) == 0; });
    }

    // What the client sees of it: that it is closed, as the sessions of these tests end at once.
    std::string Accepted() {
        auto const [client, server] = velt_testing::ConnectedPair("127.0.0.3");
        return Accepted(client, server);
    }
    std::string Accepted(int client, int server) {
        s_found = {};
        m_loop.NewConnection(server, TCPServiceLoop::RUN_INLINE);
        std::string const seen = velt_testing::ReadToEnd(client);
        ::close(client);
        return seen;
    }

    velt_testing::EventCapture m_events;
    DeviceModel m_device;
    TCPServiceLoop m_loop{&m_proxy->m_config};
};

}  // namespace

TEST_F(AcceptIntercepted, AnAnswerThatIsAFailureClosesTheClientWithoutAWordAndWithoutASession) {
    for (int answer : {-EINVAL, -ENOTCONN, 3, 4, 5, 255}) {
        m_device.Answer(answer);
        std::size_t const opens = m_device.opens();
        EXPECT_EQ(Accepted(), "") << answer;
        EXPECT_EQ(s_found.sessions, 0) << answer;
        EXPECT_EQ(m_device.opens(), opens + 1) << answer;
        EXPECT_EQ(m_device.held(), 0u) << answer;
    }
    EXPECT_TRUE(m_events.Names().empty());
}

TEST_F(AcceptIntercepted, TheAnswerTwoMakesASessionThatHasItsServerAndKeepsTheHandleUntilItsEnd) {
    m_device.Answer(2);
    Accepted();
    EXPECT_EQ(s_found.sessions, 1);
    EXPECT_TRUE(s_found.factoryTransparent && s_found.transparent);
    EXPECT_STREQ(::inet_ntoa(s_found.server), "127.0.0.3");
    EXPECT_TRUE(s_found.handle);
    EXPECT_EQ(m_device.held(), 0u);
}

TEST_F(AcceptIntercepted, TheAnswerOneMakesASessionOfTheProxyThatKeepsTheHandleUntilItsEnd) {
    m_device.Answer(1);
    Accepted();
    EXPECT_EQ(s_found.sessions, 1);
    EXPECT_FALSE(s_found.factoryTransparent || s_found.transparent);
    EXPECT_EQ(s_found.server.s_addr, 0u) << "it has no server yet";
    EXPECT_TRUE(s_found.handle);
    EXPECT_EQ(m_device.held(), 0u);
}

TEST_F(AcceptIntercepted, ADeviceThatCannotBeOpenedLeavesASessionOfTheProxyWithoutAHandle) {
    m_device.Answer(2);
    for (int error : {EACCES, EMFILE, ENXIO}) {
        m_device.RefuseOpens(error);
        Accepted();
        EXPECT_EQ(s_found.sessions, 1) << error;
        EXPECT_FALSE(s_found.transparent || s_found.handle) << error;
    }
}

// By netfilter it is known that the connection was meant for somebody else.
TEST_F(AcceptIntercepted, WithoutAHandleAConnectionThatNetfilterBroughtIsClosedWithoutAWord) {
    Begin(Interception::Netfilter);
    int const listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (VELT::qxtrans_prepare_listener(listener) != 0) GTEST_SKIP() << "no right to addresses of others";
    if (!Run(kRouteHere)) GTEST_SKIP() << "no right to routes";
    ASSERT_EQ(::listen(listener, 4), 0);
    auto const accepted = [&](bool refused) {
        int const client = velt_testing::ConnectTo(velt_testing::PortOf(listener), "203.0.113.9", "127.0.0.1");
        int const server = velt_testing::Checked(::accept(listener, nullptr, nullptr), "accept");
        if (refused) velt_testing::RefuseCall(SYS_eventfd2, EMFILE);
        return Accepted(client, server);
    };
    accepted(false);
    EXPECT_EQ(s_found.sessions, 1);
    EXPECT_TRUE(s_found.transparent);
    EXPECT_EQ(s_found.server.s_addr, htonl(k203_0_113_9));
    EXPECT_TRUE(!velt_testing::CanRefuse() || velt_testing::InChild([&] {
        return accepted(true).empty() && s_found.sessions == 0 &&
               m_device.syslog() ==
                   std::vector<std::string>{"6 Interception: no handle for a connection: Too many open files"};
    }));
    ::close(listener);
    EXPECT_TRUE(Run(kRouteAway));
}
