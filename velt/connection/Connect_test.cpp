#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "testing/EventCapture.h"
#include "testing/FakeNameServer.h"
#include "testing/FakePolicyStore.h"
#include "testing/SessionWorld.h"
#include "velt/config_details/settings/connection.h"
#include "velt/connection/Connection.h"
#include "velt/connection/FixedTime.h"
#include "velt/connection/ScriptedNames.h"
#include "velt/errors/Failures.h"
#include "velt/logging/Events.h"
#include "velt/lookup/Resolver.h"
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

    bool Connect(std::vector<IPAddr> addresses, unsigned short port, bool checkLoopback = true) {
        return session.Connect(addresses, port, kTimeoutMs, checkLoopback);
    }
    TCPConnection& server() { return session.getServerConnection(); }

    // Each report of a session takes as long as the test says.
    class Reporting : public Connection {
    public:
        void LogConnectionAttributes(KORlog::InfoBag& bag) const override {
            if (time) time->Pass(seconds);
            Connection::LogConnectionAttributes(bag);
        }
        FixedTime* time = nullptr;
        long seconds = 1;
    };

    EventCapture events;
    SessionWorld world;
    Listener upstream;
    Listener refused;
    Reporting session;
};

// Its queue of connections is full, so it answers nobody.
class SilentServer {
public:
    SilentServer() {
        for (int i = 0; i < 4; ++i) {
            m_waiting.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
            (void)::connect(m_waiting.back().get(), Generic(m_listener.address()), sizeof(sockaddr_in));
        }
    }
    unsigned short port() const { return m_listener.port(); }

private:
    Listener m_listener{0};
    std::vector<Fd> m_waiting;
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

TEST_F(ConnectList, EachFailureIsReportedWithItsTextAndTheSession) {
    events.AllowAll();
    EXPECT_THROW(Connect({Ourselves(), Good()}, refused.port()), ConnectionFailure);
    auto const told = [&](QXlog::Event const& event) {
        for (auto const& one : events.Events())
            if (one.event == &event)
                return one.text + "|" + TextAt(one.bag, "connection.destination_ip").value_or("none");
        return std::string("nothing");
    };
    EXPECT_EQ(told(VELT::events::CONNECT_LOOPBACK), "Loop Back|127.0.0.2");
    EXPECT_EQ(told(VELT::events::CONNECT_REFUSED), "Connection refused|127.0.0.1");
}

TEST_F(ConnectList, WithoutTheTestForLoopsTheProxyItselfIsAServerLikeAny) {
    events.AllowAll();
    Listener self(4, 0, "127.0.0.2");
    EXPECT_TRUE(Connect({Ourselves()}, self.port(), false));
    unsigned next = 0;
    delete std::exchange(server().m_stream, nullptr);
    EXPECT_TRUE(session.Connect({{Ourselves(), self.port()}}, next, kTimeoutMs, false, 0));
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
    for (unsigned const beyond : {0u, 1u, 2u, 0xFFFFFFFFu}) {
        EXPECT_FALSE(session.Connect(std::vector<TCPAddr>{}, next = beyond, kTimeoutMs, true, 0));
        EXPECT_EQ(next, beyond);
        if (beyond == 0) continue;
        EXPECT_FALSE(session.Connect({{Good(), upstream.port()}}, next, kTimeoutMs, true, 1000));
        EXPECT_EQ(next, beyond);
    }
    EXPECT_EQ(server().m_addressText, "unchanged");
    EXPECT_EQ(server().m_port, 0);
    EXPECT_FALSE(upstream.IsPending());
}

TEST_F(ConnectWalk, ResumedBehindASkippedAddressALoopIsAFailureOfTheWholeList) {
    events.AllowAll();
    unsigned next = 1;
    EXPECT_THROW(session.Connect({{Good(), upstream.port()}, {Ourselves(), 25}}, next, kTimeoutMs, true, 0),
                 ConnectionFailure);
}

TEST_F(ConnectWalk, EachAttemptMarksThePolicySlots) {
    class Watching : public Reporting {
    public:
        void LogConnectionAttributes(KORlog::InfoBag& bag) const override {
            Reporting::LogConnectionAttributes(bag);
            seen.push_back(m_config.policies[4].m_changed);
            const_cast<Config&>(m_config).policies[4].m_changed = false;
        }
        mutable std::vector<bool> seen;
    };
    events.AllowAll();
    unsigned next = 0;
    Watching watching;
    ASSERT_TRUE(watching.Connect({{Ourselves(), 1}, {Good(), refused.port()}, {Good(), upstream.port()}}, next,
                                 kTimeoutMs, true, 0));
    EXPECT_EQ(watching.seen, (std::vector<bool>{true, false, true, false, true, false})) << "an attempt, its outcome";
    next = 0;
    session.GetConfig().policies[4].m_changed = false;
    ASSERT_TRUE(session.Connect({{Good(), upstream.port()}}, next, kTimeoutMs, true, 0));
    EXPECT_TRUE(session.GetConfig().policies[4].m_changed);
    EXPECT_FALSE(session.GetConfig().policies[0].m_changed);
}

TEST_F(ConnectWalk, NamesTheAddressBehindTheOneItReports) {
    struct Report {
        unsigned next;
        std::string address;
        unsigned short port;
        bool operator==(Report const&) const = default;
    };
    class Watching : public Connection {
    public:
        void LogConnectionAttributes(KORlog::InfoBag&) const override {
            reports.push_back({next, m_server.m_addressText, m_server.m_port});
        }
        unsigned next = 0;
        mutable std::vector<Report> reports;
    };
    events.AllowAll();
    Watching walk;
    std::vector<TCPAddr> const list{{Ourselves(), 1}, {Good(), refused.port()}, {Good(), upstream.port()}};
    EXPECT_TRUE(walk.Connect(list, walk.next, kTimeoutMs, true, 0));
    std::vector<Report> expected;  // of each the attempt and its outcome
    for (unsigned i = 0; i < 6; ++i) expected.push_back({i / 2 + 1, list[i / 2].str(), list[i / 2].port()});
    EXPECT_TRUE(walk.reports == expected);
}

TEST_F(ConnectWalk, ABudgetThatIsSpentAlreadyTriesNothingButMovesOn) {
    FixedTime time;
    session.time = &time;
    std::vector<TCPAddr> const list{{Good(), upstream.port()}, {Good(), upstream.port()}};
    for (unsigned const budget : {1u, 500u, 999u, 1000u}) {
        events.Clear();
        events.Expect(VELT::events::UPSTREAM_TRYING);
        unsigned next = 0;
        EXPECT_FALSE(session.Connect(list, next, kTimeoutMs, true, budget));
        EXPECT_EQ(next, 1u);
        EXPECT_FALSE(upstream.IsPending());
    }
}

TEST_F(ConnectWalk, ABudgetCountsWholeSecondsBetweenAttempts) {
    FixedTime time;
    session.time = &time;
    std::vector<TCPAddr> const list(9, TCPAddr(Good(), refused.port()));
    // A refused attempt takes two seconds, of which one has passed when the budget is looked at.
    for (unsigned budget = 1000; budget <= 8000; budget += 500) {
        events.Clear();
        events.AllowAll();
        unsigned next = 0;
        EXPECT_FALSE(session.Connect(list, next, kTimeoutMs, true, budget));
        unsigned tried = 0;
        while ((2 * tried + 1) * 1000 < budget) ++tried;
        EXPECT_EQ(next, tried + 1) << budget;
        EXPECT_EQ(events.Count(VELT::events::CONNECT_REFUSED), tried) << budget;
    }
}

TEST_F(ConnectWalk, ABudgetLetsNoAttemptTakeLongerThanItMay) {
    SilentServer const silent;
    events.AllowAll();
    unsigned next = 0;
    EXPECT_THROW(session.Connect({{Good(), silent.port()}}, next, 50, true, 3600000), ConnectionFailure);
    EXPECT_EQ(events.Count(VELT::events::CONNECT_TIMED_OUT), 1u);
}

TEST_F(ConnectWalk, WithoutABudgetTimeIsNoLimit) {
    FixedTime time;
    session.time = &time;
    session.seconds = 100000;
    events.AllowAll();
    unsigned next = 0;
    EXPECT_TRUE(session.Connect({{Good(), refused.port()}, {Good(), upstream.port()}}, next, kTimeoutMs, true, 0));
    EXPECT_EQ(next, 2u);
}

// A server whose queue of connections is full answers nothing, so the first attempt costs the whole budget.
TEST_F(ConnectWalk, ASpentBudgetEndsItBehindTheAddressItWouldHaveTried) {
    SilentServer const silent;
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

TEST_F(ConnectByName, TriesAllItsAddressesInTheirOrder) {
    ScriptedNames names;
    names.addresses["mail.example.test"] = {"127.0.0.2", "127.0.0.3", "127.0.0.1"};
    names.names["127.0.0.1"] = "reverse.example.test";
    events.Expect(VELT::events::UPSTREAM_TRYING, 3);
    events.Expect(VELT::events::CONNECT_LOOPBACK, 2);
    events.Expect(VELT::events::UPSTREAM_CONNECTED);
    ASSERT_TRUE(session.Connect("mail.example.test", upstream.port(), kTimeoutMs, true));
    EXPECT_EQ(TextAt(events.Bag(VELT::events::UPSTREAM_TRYING), "connection.destination_hostname"),
              "mail.example.test");
    EXPECT_EQ(TextAt(events.Bag(VELT::events::UPSTREAM_CONNECTED), "connection.destination_hostname"),
              "reverse.example.test")
        << "a connection empties the name";
    EXPECT_EQ(server().m_port, upstream.port());
}

TEST_F(ConnectByName, TriesMoreAddressesThanTheSettingSays) {
    ScriptedNames names;
    names.addresses["mail.example.test"] = {"127.0.0.2", "127.0.0.3", "127.0.0.1"};
    FakePolicyStore store;
    store.Put("protocol_out", "connection", "MaxHosts", FakeValue::Unsigned(1));
    Config::initialise(&store);
    unsigned const limit = ReadSetting<VELTCFG::connection::MaxHosts>(session.GetConfig());
    events.AllowAll();
    EXPECT_TRUE(session.Connect("mail.example.test", upstream.port(), kTimeoutMs, true));
    Config::initialise(nullptr);
    EXPECT_EQ(limit, 1u);
    EXPECT_EQ(server().m_addressText, "127.0.0.1");
}

TEST_F(ConnectByName, WithoutAnAddressIsFalseAndShowsNoDestination) {
    ScriptedNames names;
    names.addresses["empty.example.test"] = {};
    for (int const code : {0, ERANGE, EAGAIN}) {
        names.code = code;
        for (char const* const name : {"unknown.example.test", "empty.example.test", ""}) {
            bool const emptyList = code == 0 || names.addresses.count(name);
            server().m_addressText = "10.0.0.9";
            EXPECT_FALSE(session.Connect(name, upstream.port(), kTimeoutMs, true));
            KORlog::InfoBag bag;
            session.LogConnectionAttributes(bag);
            for (char const* const key : {"destination_ip", "destination_port", "destination_hostname"}) {
                EXPECT_EQ(bag.find(key), nullptr) << key;
            }
            EXPECT_EQ(server().m_host, emptyList ? "" : name) << "an empty list forgets the name";
        }
    }
    EXPECT_FALSE(upstream.IsPending());
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

TEST_F(ConnectByName, ExchangersAreLookedUpUpToTheirLimits) {
    FakeNameServer const names([](auto const&, DnsBytes& answer) {
        answer.Mx(20, DnsName("second.test")).Mx(10, DnsName("first.test"));
        answer.Address(DnsName("first.test"), 0x0A000001).Address(DnsName("second.test"), 0x0A000002);
        answer.Address(DnsName("second.test"), 0x0A000003);
        return true;
    });
    Resolver::start();
    names.Use();
    auto const found = [&](unsigned exchangers, unsigned addresses) {
        std::vector<IPAddr> list;
        EXPECT_EQ(session.Resolve("example.test", Connection::RESOLVE_MX, list, exchangers, addresses), 0);
        return list;
    };
    EXPECT_EQ(found(1, 9).size(), 2u) << "all of the one that is told first";
    EXPECT_EQ(found(9, 1).size(), 1u);
    ASSERT_EQ(found(9, 9).size(), 3u);
    EXPECT_EQ(found(9, 9)[0].str(), "10.0.0.1") << "the best come first";
}

TEST(TCPConnection, LooksItsNameUpUntilItHasOne) {
    ScriptedNames names;
    TCPConnection end;
    end.m_address = Address("10.1.2.3", 25);
    for (int look = 1; look <= 3; ++look) {
        EXPECT_STREQ(end.get_host(), "");
        EXPECT_EQ(names.asked.size(), static_cast<std::size_t>(look));
    }
    names.names["10.1.2.3"] = "known.example.test";
    for (int look = 0; look < 3; ++look) {
        EXPECT_STREQ(end.get_host(), "known.example.test");
        EXPECT_EQ(names.asked.size(), 4u);
    }
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
