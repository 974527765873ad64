#include "velt/connection/Connection.h"

#include <QXStats/QXCounter.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <functional>
#include <numeric>
#include <optional>
#include <string>

#include "testing/EventCapture.h"
#include "testing/SessionWorld.h"
#include "velt/connection/FixedTime.h"
#include "velt/connection/ScriptedNames.h"
#include "velt/logging/Events.h"
#include "velt/runtime/ProxyHealth.h"
#include "velt/streams/ScannerStream.h"
#include "velt/streams/TCPStream.h"

extern "C" {
std::time_t __real_time(std::time_t* out);
std::time_t __wrap_time(std::time_t* out);
}

std::time_t __wrap_time(std::time_t* out) {
    std::time_t const shown = velt_testing::FixedTime::Shown();
    if (shown == 0) return __real_time(out);
    if (out) *out = shown;
    return shown;
}

using namespace VELT;
using namespace velt_testing;

namespace {

class Session : public Connection {
public:
    void Start() override {
        ++starts;
        if (body) body(*this);
    }
    bool MailStreamCallback(long now) override {
        asked.push_back(now);
        return asked.size() < stopAt;
    }
    using Connection::m_conversationId;
    using Connection::m_deviceAddress;
    using Connection::m_hostObject;
    using Connection::m_hostObject2;
    using Connection::m_startTime;

    int starts = 0;
    std::vector<long> asked;  // the times that MailStreamCallback was given
    std::size_t stopAt = 1000;
    std::function<void(Session&)> body;
};

class ConnectionTest : public testing::Test {
protected:
    ~ConnectionTest() override { ProxyHealth::disable(); }

    static std::optional<std::string> Attribute(KORlog::InfoBag const& bag, char const* name) {
        return TextAt(bag, std::string("connection.") + name);
    }

    EventCapture events;
    SessionWorld world;
};

using SessionRun = ConnectionTest;
using SessionReports = ConnectionTest;
using HealthChecks = ConnectionTest;

TEST_F(SessionRun, GivesTwoDifferentIdsAndADirectionAndStartsTheProtocol) {
    events.Expect(VELT::events::SESSION_ACCEPTED);
    events.Expect(VELT::events::SESSION_BEGINS);
    Session session;
    world.Accept(session);
    session.Run();
    EXPECT_EQ(session.starts, 1);
    EXPECT_EQ(session.getId().size(), 36u);
    EXPECT_NE(session.getId(), session.m_conversationId);
    EXPECT_FALSE(session.IsInBound());
}

TEST_F(SessionRun, IsReportedWithItsDirectionBeforeTheProtocolStarts) {
    world.Outside("NETWORK 127.0.0.0/8\n");
    events.AllowAll();
    Session session;
    std::vector<std::string> before;
    session.body = [&](Session&) { before = events.Names(); };
    world.Accept(session);
    session.Run();
    EXPECT_EQ(before, (std::vector<std::string>{"10003:65", "10003:68"}));
    EXPECT_EQ(Attribute(events.Bag(VELT::events::SESSION_ACCEPTED), "conversation_policy"), "from_inside")
        << "nothing is known yet";
    EXPECT_EQ(Attribute(events.Bag(VELT::events::SESSION_BEGINS), "conversation_policy"), "from_outside");
}

// Messages are what a host says they are.
TEST_F(SessionRun, CountsNoMessage) {
    events.AllowAll();
    Connection::Initialise();
    Connection::Initialise();
    auto const counts = [] {
        return std::vector<unsigned long>{Connection::s_pNoMessages->value(),
                                          Connection::s_pPolicyMessages[0]->value(),
                                          Connection::s_pPolicyMessages[1]->value(),
                                          QXStats::QXCounter("messages").value(),
                                          QXStats::QXCounter("from_inside.messages").value(),
                                          QXStats::QXCounter("from_outside.messages").value()};
    };
    std::vector<unsigned long> const before = counts();
    for (char const* const outside : {"", "NETWORK 127.0.0.0/8\n"}) {
        world.Outside(outside);
        Session session;
        world.Accept(session);
        session.Run();
        ScannerStream mail("mail", false);
        mail.write("a\n", 2u);
        EXPECT_EQ(session.SendMailStream(&mail, session.getSourceConnection().m_stream), 0);
    }
    EXPECT_EQ(counts(), before);
    ++*Connection::s_pNoMessages;
    ++*Connection::s_pPolicyMessages[1];
    std::vector<unsigned long> const after{before[0] + 1, before[1], before[2] + 1,
                                           before[3] + 1, before[4], before[5] + 1};
    EXPECT_EQ(counts(), after);
}

TEST_F(SessionRun, ASourceThatNeitherListKnowsEndsWithoutAWord) {
    world.Inside("NETWORK 10.0.0.0/8\n");
    events.Expect(VELT::events::SESSION_ACCEPTED);
    Session session;
    world.Accept(session);
    session.Run();
    EXPECT_EQ(session.starts, 0);
}

TEST_F(SessionRun, ATieGoesToOutside) {
    world.Outside("NETWORK 127.0.0.0/8\n");
    events.AllowAll();
    Session session;
    world.Accept(session);
    session.Run();
    EXPECT_TRUE(session.IsInBound());
}

TEST_F(SessionRun, LeavesWhatStartThrowsToItsCaller) {
    events.AllowAll();
    Session session;
    session.body = [](Session&) { throw 42; };
    world.Accept(session);
    EXPECT_THROW(session.Run(), int);
}

TEST_F(SessionRun, DirectionIsWorkedOutAgainOnRequest) {
    events.AllowAll();
    Session session;
    world.Accept(session);
    EXPECT_TRUE(session.SetupInsideOutside());
    EXPECT_FALSE(session.IsInBound());
    world.Outside("NETWORK 127.0.0.1\n");
    EXPECT_TRUE(session.SetupInsideOutside());
    EXPECT_TRUE(session.IsInBound());
    for (bool const was : {true, false}) {
        session.GetConfig().inbound = was;
        world.Inside("");
        world.Outside("");
        EXPECT_FALSE(session.SetupInsideOutside());
        EXPECT_EQ(session.IsInBound(), was) << "where neither list knows it all stays";
    }
}

TEST_F(SessionRun, MessageIdsAreRenewedWithoutTouchingTheSessions) {
    Session session;
    session.initialIds();
    std::string const first = session.getId(), conversation = session.m_conversationId;
    session.generateId();
    EXPECT_NE(session.getId(), first);
    EXPECT_EQ(session.m_conversationId, conversation);
    std::string own = "own";
    session.setId(own);
    EXPECT_EQ(session.getId(), "own");
}

TEST_F(HealthChecks, WithMonitoringOffAClientOnLoopbackIsAnOrdinarySession) {
    events.AllowAll();
    Session session;
    world.Accept(session);
    EXPECT_FALSE(session.IsHealthCheck());
    session.Run();
    EXPECT_EQ(session.starts, 1);
    EXPECT_FALSE(session.getId().empty());
}

TEST_F(HealthChecks, AreAnsweredWithoutASession) {
    ProxyHealth::init("gateway");
    events.Expect(VELT::events::SESSION_ACCEPTED);
    events.Expect(VELT::events::SESSION_BEGINS);
    Session session;
    world.Accept(session);
    ASSERT_TRUE(session.IsHealthCheck());
    std::string const request = "GET / HTTP/1.0\r\n\r\n";
    ASSERT_EQ(::send(world.client(), request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    session.Run();
    EXPECT_EQ(session.starts, 0);
    EXPECT_TRUE(session.getId().empty());
    EXPECT_EQ(session.getSourceConnection().m_stream, nullptr);
    EXPECT_EQ(world.ReadClientToEnd().rfind("HTTP/1.0 200 OK\r\n\r\nHealth: OK\r\nName: gateway\r\n", 0), 0u);
    // The event comes after the stream has gone, so it shows no source.
    EXPECT_EQ(Attribute(events.Bag(VELT::events::SESSION_BEGINS), "source_ip"), std::nullopt);
}

TEST_F(HealthChecks, AClientAtAnotherLocalAddressIsNeverOne) {
    ProxyHealth::init("gateway");
    events.AllowAll();
    Session session;
    world.Accept(session, "127.0.0.2");
    EXPECT_FALSE(session.IsHealthCheck());
    session.Run();
    EXPECT_EQ(session.starts, 1);
}

TEST_F(HealthChecks, ComeFromOneAddressAloneWhateverThePort) {
    ProxyHealth::init("gateway");
    events.AllowAll();
    sockaddr_in any = Address("10.0.0.9", 1);
    for (unsigned short const port : {1, 1023, 1024, 49152, 65535}) {
        for (char const* const from :
             {"127.0.0.1", "127.0.0.0", "127.0.0.2", "127.0.1.1", "127.1.0.1", "127.255.255.255", "126.0.0.1",
              "128.0.0.1", "1.0.0.127", "10.0.0.1", "0.0.0.0"}) {
            Session session;
            sockaddr_in peer = Address(from, port);
            session.SetConnection(&world.proxy().m_config, nullptr, false, peer, any, any);
            EXPECT_EQ(session.IsHealthCheck(), std::string(from) == "127.0.0.1") << from << ':' << port;
        }
    }
}

TEST_F(SessionReports, AProxySessionShowsNoDestinationBeforeItConnects) {
    events.AllowAll();
    Session session;
    world.Accept(session);
    auto const bag = events.Bag(VELT::events::SESSION_ACCEPTED);
    EXPECT_EQ(Attribute(bag, "connection_type"), "Proxy");
    EXPECT_EQ(Attribute(bag, "source_ip"), "127.0.0.1");
    EXPECT_EQ(Attribute(bag, "destination_ip"), std::nullopt);
    EXPECT_EQ(Attribute(bag, "destination_hostname"), std::nullopt);
}

TEST_F(SessionReports, ATransparentSessionShowsItsDestinationFromTheFirstEvent) {
    events.AllowAll();
    Session session;
    world.Accept(session, "127.0.0.1", true);
    auto const bag = events.Bag(VELT::events::SESSION_ACCEPTED);
    EXPECT_EQ(Attribute(bag, "connection_type"), "Transparent");
    EXPECT_EQ(Attribute(bag, "destination_ip"), "127.0.0.1");
    EXPECT_TRUE(Attribute(bag, "destination_hostname").has_value());
    EXPECT_EQ(NumberAt(bag, "connection.destination_port"), session.getServerConnection().m_port);
}

TEST_F(SessionReports, HostNamesCostAReverseLookUpUntilThereIsOne) {
    events.AllowAll();
    ScriptedNames names;
    names.names["127.0.0.1"] = "server.example.test";
    Session session;
    world.Accept(session, "127.0.0.2", true);
    auto const accepted = events.Bag(VELT::events::SESSION_ACCEPTED);
    EXPECT_EQ(Attribute(accepted, "source_hostname"), "");
    EXPECT_EQ(Attribute(accepted, "destination_hostname"), "server.example.test");
    EXPECT_EQ(names.asked, (std::vector<std::string>{"127.0.0.2", "127.0.0.1"}));
    names.names["127.0.0.2"] = "client.example.test";
    for (int report = 0; report < 2; ++report) {
        KORlog::InfoBag bag;
        session.LogConnectionAttributes(bag);
        EXPECT_EQ(TextAt(bag, "source_hostname"), "client.example.test");
        EXPECT_EQ(TextAt(bag, "destination_hostname"), "server.example.test");
        EXPECT_EQ(names.asked.size(), 3u) << "only what had no name is asked for again, until it has one";
    }
}

TEST_F(SessionReports, AProxySessionAsksForNoDestination) {
    events.AllowAll();
    ScriptedNames names;
    Session session;
    world.Accept(session, "127.0.0.2");
    EXPECT_EQ(names.asked, std::vector<std::string>{"127.0.0.2"});
}

TEST_F(SessionRun, AnAddressIsResolvedIntoTheNameOfItsEnd) {
    ScriptedNames names;
    names.names["10.1.2.3"] = "known.example.test";
    Session session;
    TCPConnection& end = session.getServerConnection();
    end.m_address = Address("10.1.2.3", 25);
    EXPECT_TRUE(session.ResolveIPAddress(end));
    EXPECT_EQ(end.m_host, "known.example.test");
    end.m_address = Address("10.1.2.4", 25);
    EXPECT_FALSE(session.ResolveIPAddress(end));
}

TEST_F(SessionReports, TheServerOfATransparentSessionIsTheSocketsOwnName) {
    events.AllowAll();
    Session session;
    sockaddr_in peer = Address("10.0.0.1", 1111), destination = Address("10.0.0.2", 2222),
                local = Address("10.0.0.3", 3333);
    session.getSourceConnection().m_flag = session.getServerConnection().m_flag = true;
    session.SetConnection(&world.proxy().m_config, nullptr, true, peer, destination, local);
    EXPECT_EQ(session.getSourceConnection().m_addressText, "10.0.0.1");
    EXPECT_EQ(session.getSourceConnection().m_port, 1111);
    EXPECT_EQ(session.getServerConnection().m_addressText, "10.0.0.3");
    EXPECT_EQ(session.getServerConnection().m_port, 3333);
    EXPECT_EQ(session.m_deviceAddress.sin_addr.s_addr, destination.sin_addr.s_addr);
    EXPECT_EQ(session.m_deviceAddress.sin_port, destination.sin_port);
    EXPECT_FALSE(session.getSourceConnection().m_flag);
    EXPECT_FALSE(session.getServerConnection().m_flag);
}

TEST_F(SessionReports, TheServerOfAProxySessionStaysEmptyWhateverTheSocketsName) {
    events.AllowAll();
    Session session;
    sockaddr_in peer = Address("10.0.0.1", 1111), destination = Address("10.0.0.2", 2222),
                local = Address("10.0.0.3", 3333);
    session.SetConnection(&world.proxy().m_config, nullptr, false, peer, destination, local);
    EXPECT_EQ(session.getServerConnection().m_addressText, "");
    EXPECT_EQ(session.getServerConnection().m_port, 0);
    EXPECT_EQ(session.getServerConnection().m_address.sin_addr.s_addr, 0u);
}

TEST_F(SessionReports, StandInTheirOrder) {
    events.AllowAll();
    Session session;
    world.Accept(session);
    session.Run();
    auto const bag = events.Bag(VELT::events::SESSION_BEGINS);
    auto const* const nested = std::get_if<std::shared_ptr<KORlog::InfoBag const>>(bag.find("connection"));
    ASSERT_TRUE(nested);
    std::vector<std::string> keys;
    for (auto const& item : (*nested)->items()) keys.push_back(item.key);
    EXPECT_EQ(keys, (std::vector<std::string>{"connection_type", "source_ip", "source_port", "source_hostname",
                                              "conversation_policy", "audit_conv_id", "audit_id", "conversation_start",
                                              "conversation_delta"}));
    EXPECT_EQ(Attribute(bag, "conversation_policy"), "from_inside");
    EXPECT_EQ(Attribute(bag, "audit_id"), session.getId());
}

// The policy is given twice, so it is there without a source stream too; equal pairs are one in a bag.
TEST_F(SessionReports, CarryThePolicyEvenWithoutASourceAndBeforeADirection) {
    Session session;
    KORlog::InfoBag bag;
    session.LogConnectionAttributes(bag);
    EXPECT_EQ(TextAt(bag, "conversation_policy"), "from_inside");
    EXPECT_EQ(bag.find("source_ip"), nullptr);
}

TEST_F(SessionReports, TellHowLongTheSessionHasBeen) {
    FixedTime time;
    Session session;
    for (long const passed : {0L, 1L, 59L, 100000L}) {
        KORlog::InfoBag bag;
        session.LogConnectionAttributes(bag);
        EXPECT_EQ(NumberAt(bag, "conversation_start"), session.m_startTime);
        EXPECT_EQ(NumberAt(bag, "conversation_delta"), static_cast<long>(time.now() - session.m_startTime));
        time.Pass(passed);
    }
}

TEST_F(SessionReports, ASessionFromTheFutureHasADeltaOfZero) {
    Session session;
    session.m_startTime = ::time(nullptr) + 1000;
    KORlog::InfoBag bag;
    session.LogConnectionAttributes(bag);
    EXPECT_EQ(NumberAt(bag, "conversation_delta"), 0);
}

TEST_F(SessionReports, CostNothingWhenTheEventIsOff) {
    class Counting : public Connection {
    public:
        void LogConnectionAttributes(KORlog::InfoBag&) const override { ++asked; }
        mutable int asked = 0;
    };
    Counting session;
    VELT::events::SESSION_ACCEPTED.enable(false);
    world.Accept(session);
    EXPECT_EQ(session.asked, 0);
    VELT::events::SESSION_ACCEPTED.enable(true);
}

// A host writes those that it needs: the others say go on, and do nothing.
TEST(SessionHooks, OfTheBaseLetEverythingGoOn) {
    Connection session;
    Config config;
    session.Start();
    session.InitialiseConnectionClass(true, config);
    session.getConnectionAttributes(nullptr);
    EXPECT_TRUE(session.MailStreamCallback(1));
    EXPECT_TRUE(session.ScannerCallback());
    EXPECT_TRUE(session.Permitted());
    EXPECT_FALSE(session.Active("anything"));
}

TEST(SessionHooks, AnotherConfigurationIsTakenOverWhole) {
    Connection session;
    Config config;
    config.inbound = true;
    EXPECT_FALSE(session.IsInBound());
    session.SetConfig(config);
    EXPECT_TRUE(session.IsInBound());
    EXPECT_TRUE(session.GetConfig().inbound);
}

TEST(SessionHooks, CountersOfMessagesAreMadeOnce) {
    Connection::Initialise();
    QXStats::QXCounter* const all = Connection::s_pNoMessages;
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(all->name(), "messages");
    EXPECT_EQ(Connection::s_pPolicyMessages[0]->name(), "from_inside.messages");
    EXPECT_EQ(Connection::s_pPolicyMessages[1]->name(), "from_outside.messages");
    Connection::Initialise();
    EXPECT_EQ(Connection::s_pNoMessages, all);
}

TEST_F(SessionRun, TheHostsObjectsGoBeforeTheSessionsEnds) {
    struct Watched : HostObject {
        Watched(std::vector<int>& order, int number, Session& session)
            : m_order(order), m_number(number), m_session(session) {}
        ~Watched() override {
            m_order.push_back(m_number);
            m_order.push_back(m_session.getSourceConnection().m_stream ? 1 : 0);
        }
        std::vector<int>& m_order;
        int m_number;
        Session& m_session;
    };
    events.AllowAll();
    std::vector<int> order;
    {
        Session session;
        world.Accept(session);
        session.m_hostObject = std::make_unique<Watched>(order, 10, session);
        session.m_hostObject2 = std::make_unique<Watched>(order, 20, session);
    }
    EXPECT_EQ(order, (std::vector<int>{10, 1, 20, 1}));
}

TEST_F(SessionRun, TheServersEndGoesBeforeTheClients) {
    class Watched : public TCPStream {
    public:
        Watched(std::string& order, char name) : m_order(order), m_name(name) {}
        ~Watched() override { m_order += m_name; }

    private:
        std::string& m_order;
        char m_name;
    };
    std::string order;
    {
        Session session;
        session.getSourceConnection().m_stream = new Watched(order, 'c');
        session.getServerConnection().m_stream = new Watched(order, 's');
    }
    EXPECT_EQ(order, "sc");
}

// --- Splitting a command ---

TEST(TokenizeUsrCmd, DropsWhiteSpaceAroundAndBetween) {
    Session session;
    std::vector<std::string> tokens{"old"};
    EXPECT_EQ(session.TokenizeUsrCmd(" \tUSER  a,b\v\"c d\" ", tokens), 0);
    EXPECT_EQ(tokens, (std::vector<std::string>{"USER", "a,b", "\"c", "d\""}));
}

TEST(TokenizeUsrCmd, ABlankLineOrNoneGivesNoTokens) {
    Session session;
    for (char const* text : {static_cast<char const*>(nullptr), "", "  \t \r\n "}) {
        std::vector<std::string> tokens{"old"};
        EXPECT_EQ(session.TokenizeUsrCmd(text, tokens), 0);
        EXPECT_TRUE(tokens.empty());
    }
}

// --- Sending mail ---

class SendMail : public ConnectionTest {
protected:
    SendMail() {
        events.AllowAll();
        world.Accept(session);
    }

    // What the client gets when this content is sent to it.
    std::string Sent(std::string const& content) {
        ScannerStream mail("mail", false);
        EXPECT_EQ(mail.write(content.data(), static_cast<unsigned>(content.size())), static_cast<long>(content.size()));
        EXPECT_EQ(session.SendMailStream(&mail, session.getSourceConnection().m_stream), 0);
        ::shutdown(session.getSourceConnection().m_stream->GetSocket(), SHUT_WR);
        return world.ReadClientToEnd();
    }

    Session session;
};

TEST_F(SendMail, StuffsDotsAndEndsLinesWithCrLf) {
    EXPECT_EQ(Sent("Subject: a\r\n\n.\n..b\r\nc.d\n"), "Subject: a\r\n\r\n..\r\n...b\r\nc.d\r\n");
}

// A host that looks at the head of a mail first leaves nothing behind in it.
TEST_F(SendMail, AHeadThatWasReadBeforeGoesOutWhole) {
    ScannerStream mail("mail", false);
    std::string const content = "Subject: a\r\n\r\nbody\r\n";
    mail.write(content.data(), static_cast<unsigned>(content.size()));
    mail.seek(0, 0);
    char* line = nullptr;
    bool ioDone = false;
    LINE_STATE_T state = LINE_COMPLETE;
    ASSERT_EQ(mail.getline(line, true, ioDone, state, true), 10);
    EXPECT_STREQ(line, "Subject: a");
    EXPECT_EQ(session.SendMailStream(&mail, session.getSourceConnection().m_stream), 0);
    EXPECT_EQ(world.ReadClient(content.size()), content);
}

TEST_F(SendMail, ALineOfASingleDotGoesOutAsTwo) { EXPECT_EQ(Sent(".\r\n"), "..\r\n"); }

TEST_F(SendMail, ALastLineWithoutItsEndIsNotSent) { EXPECT_EQ(Sent("a\nb"), "a\r\n"); }

TEST_F(SendMail, OnlyTheFirstPieceOfAnOverlongLineIsStuffedAndOnlyTheLastEnded) {
    // On disk, pieces are 4095 bytes, the pool's size less one; every piece begins with a dot.
    std::string line(3 * 4095 - 1, 'x');
    line[0] = line[4095] = line[2 * 4095] = '.';
    EXPECT_EQ(Sent(line + "\nend\n"), "." + line + "\r\nend\r\n");
}

namespace {

// Takes all, and lets a second pass with each line that is in `slow`.
class SlowOutput : public TCPStream {
public:
    SlowOutput(FixedTime& time, std::vector<std::string> slow) : m_time(time), m_slow(std::move(slow)) {}
    int writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) override {
        std::string line;
        for (unsigned i = 0; i < count; ++i) line.append(buffers[i], lengths[i]);
        *sent = static_cast<unsigned>(line.size());
        lines.push_back(line);
        if (std::find(m_slow.begin(), m_slow.end(), line) != m_slow.end()) m_time.Pass(1);
        return 0;
    }
    std::vector<std::string> lines;

private:
    FixedTime& m_time;
    std::vector<std::string> m_slow;
};

}  // namespace

TEST_F(SendMail, AsksTheCallbackOnceForEachNewSecondBeforeTheNextLine) {
    FixedTime time;
    ScannerStream mail("mail", false);
    mail.write("a\nb\nc\nd\ne\nf\n", 12u);
    SlowOutput out(time, {"b\r\n", "d\r\n"});
    long const begin = static_cast<long>(time.now());
    EXPECT_EQ(session.SendMailStream(&mail, &out), 0);
    EXPECT_EQ(session.asked, (std::vector<long>{begin + 1, begin + 2}));
    EXPECT_EQ(out.lines, (std::vector<std::string>{"a\r\n", "b\r\n", "c\r\n", "d\r\n", "e\r\n", "f\r\n"}));
}

TEST_F(SendMail, SendsNothingWhenTheCallbackStopsItBeforeTheFirstLine) {
    class SlowMail : public ScannerStream {
    public:
        explicit SlowMail(FixedTime& time) : ScannerStream("mail", false), m_time(time) {}
        int read(char* data, unsigned length, unsigned* received) override {
            m_time.Pass(1);
            return ScannerStream::read(data, length, received);
        }

    private:
        FixedTime& m_time;
    };
    FixedTime time;
    session.stopAt = 1;
    SlowMail mail(time);
    std::string const content = "a\n" + std::string(5000, 'x') + "\n";  // more than is kept in memory
    mail.write(content.data(), static_cast<unsigned>(content.size()));
    SlowOutput out(time, {});
    EXPECT_EQ(session.SendMailStream(&mail, &out), 0);
    EXPECT_EQ(session.asked.size(), 1u);
    EXPECT_EQ(out.lines, std::vector<std::string>{});
}

// Every length round the size of the buffer, with a dot where each piece begins.
TEST_F(SendMail, OverlongLinesOfEveryLengthGoOutAsOne) {
    FixedTime time;
    for (unsigned length = 4090; length <= 4100; ++length) {
        for (unsigned pieces = 1; pieces <= 3; ++pieces) {
            std::string line(length + (pieces - 1) * 4095, '.');
            ScannerStream mail("mail", false);
            mail.write((line + "\n.end\n").data(), static_cast<unsigned>(line.size() + 6));
            SlowOutput out(time, {});
            ASSERT_EQ(session.SendMailStream(&mail, &out), 0);
            std::string all;
            for (std::string const& one : out.lines) all += one;
            ASSERT_EQ(all, "." + line + "\r\n..end\r\n") << line.size();
        }
    }
}

TEST_F(SendMail, StopsInSilenceBeforeTheLineWhenTheCallbackSaysSo) {
    std::vector<std::string> const lines{"a\r\n", "b\r\n", "c\r\n", "d\r\n"};
    for (std::size_t stopAt = 1; stopAt <= 4; ++stopAt) {
        FixedTime time;
        session.asked.clear();
        session.stopAt = stopAt;
        ScannerStream mail("mail", false);
        mail.write("a\nb\nc\nd\n", 8u);
        SlowOutput out(time, lines);
        EXPECT_EQ(session.SendMailStream(&mail, &out), 0);
        EXPECT_EQ(out.lines, std::vector<std::string>(lines.begin(), lines.begin() + static_cast<long>(stopAt)));
    }
}

// A vectored write that a signal interrupts is a success of what went until then.
TEST_F(SendMail, LosesNothingWhereASignalInterruptsIt) {
    class Interrupted : public TCPStream {
    public:
        using TCPStream::TCPStream;
        int writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) override {
            unsigned left = calls++ % 4;  // bytes that go before the signal comes
            for (unsigned i = 0; i < count; ++i) {
                unsigned const some = std::min(left, lengths[i]);
                text.append(buffers[i], some);
                *sent += some;
                left -= some;
            }
            if (*sent < std::accumulate(lengths, lengths + count, 0u)) errno = EINTR;
            return 0;
        }
        unsigned calls = 0;
        std::string text;
    };
    std::string content, expected;
    for (int i = 0; i < 50; ++i) {
        std::string const line(static_cast<std::size_t>(i % 9), i % 3 ? 'x' : '.');
        content += line + "\n";
        expected += (line.substr(0, 1) == "." ? "." : "") + line + "\r\n";
    }
    ScannerStream mail("mail", false);
    mail.write(content.data(), static_cast<unsigned>(content.size()));
    Interrupted out;
    EXPECT_EQ(session.SendMailStream(&mail, &out), 0);
    EXPECT_EQ(out.text, expected);
}

TEST_F(SendMail, GivesTheErrorOfAWaitThatFails) {
    class WithoutMemory : public TCPStream {
    public:
        int writev(unsigned, unsigned* lengths, char const**, unsigned* sent) override {
            *sent = ++calls < 2 ? lengths[0] + lengths[1] : 1;
            errno = ENOMEM;
            return 0;
        }
        int calls = 0;
    };
    ScannerStream mail("mail", false);
    mail.write("one\ntwo\nthree\n", 14u);
    WithoutMemory out;
    EXPECT_EQ(session.SendMailStream(&mail, &out), ENOMEM);
    EXPECT_EQ(out.calls, 2) << "the first line went whole, the third is not tried";
}

TEST_F(SendMail, TakesTheWordOfAnOutputThatCountsNothing) {
    class Silent : public TCPStream {
    public:
        int writev(unsigned, unsigned*, char const**, unsigned*) override { return ++calls, 0; }
        int calls = 0;
    };
    ScannerStream mail("mail", false);
    mail.write("one\ntwo\n", 8u);
    Silent out;
    errno = EINTR;  // of an earlier call
    EXPECT_EQ(session.SendMailStream(&mail, &out), 0);
    EXPECT_EQ(out.calls, 2);
}

TEST_F(SendMail, WithoutAnOutputTouchesNothing) {
    ScannerStream mail("mail", false);
    mail.write("one\n", 4u);
    mail.seek(2, 0);
    EXPECT_EQ(session.SendMailStream(&mail, nullptr), -1);
    EXPECT_EQ(mail.seek(0, 1), 2);
}

TEST_F(SendMail, GivesTheErrorOfTheWrite) {
    ScannerStream mail("mail", false);
    mail.write("one\n", 4u);
    TCPStream* const out = session.getSourceConnection().m_stream;
    ::shutdown(out->GetSocket(), SHUT_WR);
    EXPECT_EQ(session.SendMailStream(&mail, out), EPIPE);
}

}  // namespace
