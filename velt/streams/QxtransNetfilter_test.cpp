// By netfilter, as far as it takes no rules: those are tested between three namespaces. The route of one network leads
// to this machine, so that it may answer to a client of it.
#include <sys/syscall.h>
#include <velt/errors/Failures.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "testing/RefusedCalls.h"
#include "velt/streams/InterceptionTest.h"

using namespace VELT;
using namespace velt_testing;

namespace {

constexpr int wait_ms = 10000;

class Netfilter : public InterceptionTest {
protected:
    Netfilter() {
        Begin(Interception::Netfilter);
        qxtrans_init();
    }
    static bool Option(int socket, int option) {
        int value = 0;
        socklen_t length = sizeof value;
        EXPECT_EQ(::getsockopt(socket, SOL_IP, option, &value, &length), 0);
        return value != 0;
    }
};

// Where the test may not use other addresses than the machine's there is nothing to see.
class NetfilterWithRights : public Netfilter {
protected:
    void SetUp() override {
        Fd const probe(::socket(AF_INET, SOCK_STREAM, 0));
        if (qxtrans_prepare_listener(probe.get()) != 0) GTEST_SKIP() << "no right to addresses of others";
        if (!Run("ip route replace local 203.0.113.0/24 dev lo table main")) GTEST_SKIP() << "no right to routes";
    }
    void TearDown() override { Run("ip route del local 203.0.113.0/24 dev lo table main 2>/dev/null"); }
    static bool Run(char const* command) { return std::system(command) == 0; }
};

}  // namespace

TEST_F(Netfilter, IsThereWithoutADevice) {
    EXPECT_EQ(qxtrans_initialised, 1);
    Handle handle;
    EXPECT_EQ(Ask(handle.fd).answer, 0);
    EXPECT_EQ(qxtrans_active, 1);
    EXPECT_EQ(device.opens() + device.statusTests() + device.interfaceReads(), 0u);
}

TEST_F(Netfilter, ServesWhoCameToTheGatewayItselfAsItsOwn) {
    Handle handle;
    Info const info = Ask(handle.fd);
    EXPECT_EQ(info.answer, 0);
    EXPECT_EQ(handle.fd, -1);
    EXPECT_EQ(TextOf(info.local), TextOf(connection.listener.address()));
    EXPECT_EQ(TextOf(info.destination), TextOf(info.peer));
}

TEST_F(Netfilter, ClosesAHandleThatIsOpen) {
    int handle = ::dup(0);
    EXPECT_EQ(Ask(handle).answer, 0);
    EXPECT_EQ(handle, -1);
}

TEST_F(Netfilter, KnowsNothingOfRoutesAndTransfers) {
    Handle handle;
    handle.fd = ::dup(0);
    EXPECT_FALSE(qxtrans_asymmetric_route(handle.fd));
    sockaddr_in address = Loopback(1);
    EXPECT_EQ(qxtrans_set_ftp_rule(connection.server.get(), &handle.fd, &address, &address, true), -1);
    EXPECT_EQ(device.calls().size(), 0u);
}

TEST_F(Netfilter, DoesNotTouchListenersThatOthersIntercept) {
    for (Interception const chosen : {Interception::Device, Interception::Off}) {
        Begin(chosen);
        Fd const socket(::socket(AF_INET, SOCK_STREAM, 0));
        EXPECT_EQ(qxtrans_prepare_listener(socket.get()), 0);
        EXPECT_FALSE(Option(socket.get(), IP_TRANSPARENT));
    }
}

TEST_F(NetfilterWithRights, MakesListenersTransparent) {
    Fd const socket(::socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(qxtrans_prepare_listener(socket.get()), 0);
    EXPECT_TRUE(Option(socket.get(), IP_TRANSPARENT));
}

TEST_F(NetfilterWithRights, ConnectsInTheClientsName) {
    sockaddr_in client = Loopback(4321, "203.0.113.77");
    TCPStream const stream(&connection.listener.address(), &client, nullptr, wait_ms, false);
    Fd const server = connection.listener.Accept();
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    ASSERT_EQ(::getpeername(server.get(), Generic(peer), &length), 0);
    EXPECT_EQ(peer.sin_addr.s_addr, client.sin_addr.s_addr);
    EXPECT_NE(peer.sin_port, client.sin_port) << "which the client itself may be using";
    EXPECT_GE(stream.GetNATInfo(), 0);
}

TEST_F(NetfilterWithRights, TakesThePortAsLateAsTheConnect) {
    Fd const socket(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in client = Loopback(4321, "203.0.113.77");
    Handle handle;
    EXPECT_EQ(qxtrans_set_source_address(&handle.fd, socket.get(), nullptr, &connection.listener.address(), &client),
              0);
    EXPECT_EQ(TextOf(NameOf(socket.get())), "203.0.113.77:0");
    EXPECT_TRUE(Option(socket.get(), IP_BIND_ADDRESS_NO_PORT));
}

TEST_F(NetfilterWithRights, NeverConnectsTheGatewayToItself) {
    sockaddr_in client = Loopback(4321, "203.0.113.77");
    EXPECT_THROW(TCPStream(&connection.listener.address(), &client, nullptr, wait_ms, true), LoopbackConnection);
    EXPECT_FALSE(connection.listener.IsPending());
}

TEST_F(Netfilter, SaysWhatItMayNotDo) {
    if (!CanRefuse()) GTEST_SKIP() << "calls cannot be refused here";
    EXPECT_TRUE(InChild([&] {
        RefuseCallWith(SYS_setsockopt, 2, IP_TRANSPARENT, EPERM);
        Fd const socket(::socket(AF_INET, SOCK_STREAM, 0));
        bool const unprepared = qxtrans_prepare_listener(socket.get()) == -1 && errno == EPERM;
        Handle handle;
        sockaddr_in client = Loopback(4321, "203.0.113.77");
        int const result = qxtrans_set_source_address(&handle.fd, socket.get(), nullptr, &client, &client);
        return unprepared && result == -1 && TextOf(NameOf(socket.get())) == "0.0.0.0:0" &&
               device.syslog() == std::vector<std::string>{
                                      "6 Interception: cannot take the client's address: "
                                      "Operation not permitted"};
    }));
}
