#include "velt/connection/Connection.h"

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
#include "velt/logging/Events.h"
#include "velt/runtime/ProxyHealth.h"
#include "velt/streams/ScannerStream.h"
#include "velt/streams/TCPStream.h"

using namespace VELT;
using namespace velt_testing;

namespace {

class Session : public Connection {
public:
    void Start() override {
        ++starts;
        if (body) body(*this);
    }
    bool MailStreamCallback(long) override { return keepSending; }
    using Connection::m_conversationId;
    using Connection::m_deviceAddress;
    using Connection::m_hostObject;
    using Connection::m_hostObject2;
    using Connection::m_startTime;

    int starts = 0;
    bool keepSending = true;
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

TEST_F(SessionReports, TheServerOfATransparentSessionIsTheSocketsOwnName) {
    events.AllowAll();
    Session session;
    sockaddr_in peer = Address("10.0.0.1", 1111), destination = Address("10.0.0.2", 2222),
                local = Address("10.0.0.3", 3333);
    session.SetConnection(&world.proxy().m_config, nullptr, true, peer, destination, local);
    EXPECT_EQ(session.getSourceConnection().m_addressText, "10.0.0.1");
    EXPECT_EQ(session.getSourceConnection().m_port, 1111);
    EXPECT_EQ(session.getServerConnection().m_addressText, "10.0.0.3");
    EXPECT_EQ(session.getServerConnection().m_port, 3333);
    EXPECT_EQ(session.m_deviceAddress.sin_addr.s_addr, destination.sin_addr.s_addr);
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

TEST_F(SendMail, StopsInSilenceWhenTheCallbackSaysSo) {
    // Each write waits for the next second, so the callback is asked before the second line.
    class NextSecond : public TCPStream {
    public:
        using TCPStream::TCPStream;
        int writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) override {
            for (std::time_t const now = ::time(nullptr); ::time(nullptr) == now;) continue;
            return TCPStream::writev(count, lengths, buffers, sent);
        }
    };
    session.keepSending = false;
    ScannerStream mail("mail", false);
    mail.write("one\ntwo\n", 8u);
    NextSecond out(::dup(session.getSourceConnection().m_stream->GetSocket()));
    EXPECT_EQ(session.SendMailStream(&mail, &out), 0);
    ::shutdown(out.GetSocket(), SHUT_WR);
    std::string const got = world.ReadClientToEnd();
    EXPECT_TRUE(got.empty() || got == "one\r\n") << got;  // empty when the second turned before the first line
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
