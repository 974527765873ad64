#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "testing/EventCapture.h"
#include "testing/SessionWorld.h"
#include "velt/connection/Connection.h"
#include "velt/errors/Failures.h"
#include "velt/logging/Events.h"
#include "velt/streams/TCPStream.h"

using namespace VELT;
using namespace velt_testing;
using KORnet::IPAddr;
using KORnet::TCPAddr;

namespace {

constexpr unsigned kTimeoutMs = 5000;

// 127.0.0.1 is an ordinary server in these tests; 127.0.0.2 is the proxy itself.
class ConnectTest : public testing::Test {
protected:
    ConnectTest() {
        world.proxy().m_loopbackAllowed = true;
        refused.Close();
    }

    static IPAddr Good() { return IPAddr("127.0.0.1"); }
    static IPAddr Ourselves() { return IPAddr("127.0.0.2"); }

    bool Connect(std::vector<IPAddr> addresses, unsigned short port) {
        return session.Connect(addresses, port, kTimeoutMs, true);
    }
    TCPConnection& server() { return session.getServerConnection(); }

    EventCapture events;
    SessionWorld world;
    Listener upstream;
    Listener refused;
    Connection session;
};

using ConnectList = ConnectTest;
using ConnectWalk = ConnectTest;
using ConnectByName = ConnectTest;

TEST_F(ConnectList, AGoodFirstAddressFillsTheServerAndIsReportedTwice) {
    events.Expect(VELT::events::UPSTREAM_TRYING);
    events.Expect(VELT::events::UPSTREAM_CONNECTED);
    ASSERT_TRUE(Connect({Good()}, upstream.port()));
    ASSERT_NE(server().m_stream, nullptr);
    EXPECT_EQ(server().m_addressText, "127.0.0.1");
    EXPECT_EQ(server().m_port, upstream.port());
    EXPECT_EQ(server().m_address.sin_port, htons(upstream.port()));
    EXPECT_EQ(TextAt(events.Bag(VELT::events::UPSTREAM_CONNECTED), "connection.destination_ip"), "127.0.0.1");
}

TEST_F(ConnectList, AnEmptyListIsFalseWithNothingToReport) {
    EXPECT_FALSE(Connect({}, 25));
    EXPECT_EQ(server().m_port, 25);
}

TEST_F(ConnectList, OneAddressThatIsTheProxyItselfReachesTheCallerAsThat) {
    events.Expect(VELT::events::UPSTREAM_TRYING);
    events.Expect(VELT::events::CONNECT_LOOPBACK);
    EXPECT_THROW(Connect({Ourselves()}, upstream.port()), LoopbackConnection);
    EXPECT_EQ(server().m_stream, nullptr);
}

TEST_F(ConnectList, TwoAddressesThatAreTheProxyItselfReachTheCallerAsThat) {
    events.Expect(VELT::events::UPSTREAM_TRYING, 2);
    events.Expect(VELT::events::CONNECT_LOOPBACK, 2);
    EXPECT_THROW(Connect({Ourselves(), IPAddr("127.0.0.3")}, upstream.port()), LoopbackConnection);
}

TEST_F(ConnectList, RefusedAndThenOurselvesIsAFailureWithoutText) {
    events.Expect(VELT::events::UPSTREAM_TRYING, 2);
    events.Expect(VELT::events::CONNECT_REFUSED);
    events.Expect(VELT::events::CONNECT_LOOPBACK);
    try {
        Connect({Good(), Ourselves()}, refused.port());
        FAIL() << "connected";
    } catch (ConnectionFailure const& failure) {
        EXPECT_EQ(failure.event.asString(), "12000:12");
        EXPECT_EQ(failure.text(), "");
        EXPECT_EQ(failure.error, 0);
    }
}

TEST_F(ConnectList, OurselvesAndThenRefusedIsTheSecondsFailure) {
    events.Expect(VELT::events::UPSTREAM_TRYING, 2);
    events.Expect(VELT::events::CONNECT_REFUSED);
    events.Expect(VELT::events::CONNECT_LOOPBACK);
    try {
        Connect({Ourselves(), Good()}, refused.port());
        FAIL() << "connected";
    } catch (ConnectionFailure const& failure) {
        EXPECT_EQ(failure.event.asString(), "12000:7");
        EXPECT_EQ(failure.error, ECONNREFUSED);
    }
}

TEST_F(ConnectList, ALaterGoodAddressIsTakenAndTheEarlierFailureOnlyReported) {
    events.Expect(VELT::events::UPSTREAM_TRYING, 2);
    events.Expect(VELT::events::CONNECT_LOOPBACK);
    events.Expect(VELT::events::UPSTREAM_CONNECTED);
    EXPECT_TRUE(Connect({Ourselves(), Good()}, upstream.port()));
    EXPECT_EQ(server().m_addressText, "127.0.0.1");
}

TEST_F(ConnectWalk, AGoodFirstAddressLeavesNextBehindIt) {
    events.Expect(VELT::events::UPSTREAM_TRYING);
    events.Expect(VELT::events::UPSTREAM_CONNECTED);
    unsigned next = 0;
    std::vector<TCPAddr> const list{{Good(), upstream.port()}, {Good(), refused.port()}};
    EXPECT_TRUE(session.Connect(list, next, kTimeoutMs, true, 0));
    EXPECT_EQ(next, 1u);
    EXPECT_EQ(server().m_port, upstream.port());
}

TEST_F(ConnectWalk, GoesOnWhereTheCallerResumesIt) {
    events.AllowAll();
    Listener other;
    unsigned next = 0;
    std::vector<TCPAddr> const list{{Good(), upstream.port()}, {Good(), other.port()}};
    ASSERT_TRUE(session.Connect(list, next, kTimeoutMs, true, 0));
    delete server().m_stream;
    server().m_stream = nullptr;
    ASSERT_TRUE(session.Connect(list, next, kTimeoutMs, true, 0));
    EXPECT_EQ(next, 2u);
    EXPECT_EQ(server().m_port, other.port());
}

TEST_F(ConnectWalk, ResumedAtTheEndChangesNothing) {
    unsigned next = 1;
    server().m_addressText = "unchanged";
    EXPECT_FALSE(session.Connect({{Good(), upstream.port()}}, next, kTimeoutMs, true, 0));
    EXPECT_EQ(next, 1u);
    EXPECT_EQ(server().m_addressText, "unchanged");
    EXPECT_FALSE(session.Connect(std::vector<TCPAddr>{}, next = 0, kTimeoutMs, true, 0));
}

TEST_F(ConnectWalk, ResumedBehindASkippedAddressALoopIsAFailureOfTheWholeList) {
    events.AllowAll();
    unsigned next = 1;
    EXPECT_THROW(session.Connect({{Good(), upstream.port()}, {Ourselves(), 25}}, next, kTimeoutMs, true, 0),
                 ConnectionFailure);
}

TEST_F(ConnectWalk, EachAttemptMarksThePolicySlots) {
    events.AllowAll();
    unsigned next = 0;
    session.GetConfig().policies[4].m_changed = false;
    ASSERT_TRUE(session.Connect({{Good(), upstream.port()}}, next, kTimeoutMs, true, 0));
    EXPECT_TRUE(session.GetConfig().policies[4].m_changed);
    EXPECT_FALSE(session.GetConfig().policies[0].m_changed);
}

// A server whose queue of connections is full answers nothing, so the first attempt costs the whole budget.
TEST_F(ConnectWalk, ASpentBudgetEndsItBehindTheAddressItWouldHaveTried) {
    Listener silent("127.0.0.1", 0);
    std::vector<std::unique_ptr<TCPStream>> fillers;
    for (int i = 0; i < 3; ++i) {
        fillers.push_back(std::make_unique<TCPStream>());
        fillers.back()->CreateSocket(AF_INET);
        sockaddr_in address = Address("127.0.0.1", silent.port());
        try {
            fillers.back()->Connect(&address, 100, false);
        } catch (ConnectionFailure const&) {
            break;
        }
    }
    events.AllowAll();
    unsigned next = 0;
    TCPAddr const dead(Good(), silent.port());
    std::vector<TCPAddr> const list{dead, dead, dead, {Good(), upstream.port()}};
    EXPECT_FALSE(session.Connect(list, next, 60000, true, 1000));
    // The address that the budget no longer reached is reported as tried, and next stands behind it.
    EXPECT_GE(next, 2u);
    EXPECT_EQ(events.Count(VELT::events::UPSTREAM_TRYING), next);
    EXPECT_EQ(events.Count(VELT::events::CONNECT_TIMED_OUT), next - 1);
}

TEST_F(ConnectByName, ConnectsToTheNamedHost) {
    events.AllowAll();
    ASSERT_TRUE(session.Connect("127.0.0.1", upstream.port(), kTimeoutMs, true));
    EXPECT_EQ(server().m_addressText, "127.0.0.1");
    // The stream's record of the address empties the name, so that reports look it up in reverse.
    EXPECT_NE(server().m_stream, nullptr);
}

TEST_F(ConnectByName, ANameThatDoesNotResolveIsFalseAndShowsNoDestination) {
    server().m_addressText = "10.0.0.9";
    EXPECT_FALSE(session.Connect("", 25, kTimeoutMs, true));
    KORlog::InfoBag bag;
    session.LogConnectionAttributes(bag);
    EXPECT_EQ(bag.find("destination_ip"), nullptr);
}

TEST_F(ConnectByName, AFailureIsThrownAsFromTheList) {
    events.AllowAll();
    EXPECT_THROW(session.Connect("127.0.0.1", refused.port(), kTimeoutMs, true), ConnectionFailure);
    EXPECT_THROW(session.Connect("127.0.0.2", upstream.port(), kTimeoutMs, true), LoopbackConnection);
}

TEST_F(ConnectByName, AddressLookUpsAppendAndOtherTypesAreRefused) {
    std::vector<IPAddr> found{IPAddr("10.0.0.1")};
    EXPECT_EQ(session.Resolve("127.0.0.1", Connection::RESOLVE_ADDRESS, found, 0, 0), 0);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[1].str(), "127.0.0.1");
    EXPECT_EQ(session.Resolve("127.0.0.1", static_cast<Connection::RESOLVE_LOOKUP_T>(2), found, 0, 0), -1);
}

TEST(TCPConnection, StartsEmptyAndGivesTheNameItHas) {
    TCPConnection end;
    EXPECT_EQ(end.m_stream, nullptr);
    EXPECT_EQ(end.m_address.sin_addr.s_addr, 0u);
    EXPECT_EQ(end.get_address(), &end.m_address);
    end.m_host = "known.example.test";
    EXPECT_STREQ(end.get_host(), "known.example.test");
}

}  // namespace
