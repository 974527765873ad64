#include <velt/runtime/ProxyHealth.h>

#include <velt/runtime/HealthRequest.h>
#include <velt/runtime/RuntimeTest.h>

namespace {

using VELT::ProxyHealth;

class HealthTest : public velt_testing::ProxyFixture {
protected:
    HealthTest() {
        ProxyHealth::disable();
        ProxyHealth::m_portlist.clear();
        ProxyHealth::init("mail");
    }
    // What a client gets that sends this and then, if it closes, closes its side.
    std::string Ask(std::string const& request, bool closes = false) {
        auto const [client, server] = velt_testing::ConnectedPair();
        VELT::TCPStream stream(server);
        EXPECT_EQ(::write(client, request.data(), request.size()), static_cast<ssize_t>(request.size()));
        if (closes) ::shutdown(client, SHUT_WR);
        ProxyHealth::handle_request(&stream);
        ::shutdown(server, SHUT_RDWR);
        std::string const answer = velt_testing::ReadToEnd(client);
        ::close(client);
        return answer;
    }
    velt_testing::EventCapture m_events;
    static std::string Start() { return std::to_string(ProxyHealth::m_starttime.load()); }
};

TEST_F(HealthTest, RootIsAnsweredWithTheStatusLines) {
    EXPECT_EQ(Ask("GET / HTTP/1.0\r\n\r\n"),
              "HTTP/1.0 200 OK\r\n\r\nHealth: OK\r\nName: mail\r\nStart: " + Start() + "\r\n");
}

TEST_F(HealthTest, AnswerMayTakeASecondForEachWait) {
    auto const [client, server] = velt_testing::ConnectedPair();
    VELT::TCPStream stream(server);
    ::shutdown(client, SHUT_WR);
    ProxyHealth::handle_request(&stream);
    EXPECT_EQ(stream.set_timeout(1), 1000u);
    ::close(client);
}

TEST_F(HealthTest, AnyOtherPathOrVerbGetsNothing) {
    for (char const* request : {"GET /status HTTP/1.0\r\n\r\n", "POST / HTTP/1.0\r\n\r\n", "GET  / HTTP/1.0\r\n\r\n",
                                "get / HTTP/1.0\r\n\r\n", "GET /\tHTTP/1.0\r\n\r\n", "\r\n\r\n"}) {
        EXPECT_EQ(Ask(request), "") << request;
    }
}

TEST_F(HealthTest, OtherPathIsAnUnknownCommand) {
    for (char const* const path : {"/status", "//", "", "/ /", "/\t"}) {
        auto const [client, server] = velt_testing::ConnectedPair();
        VELT::TCPStream stream(server);
        std::string const request = std::string("GET ") + path + "\r\n\r\n";
        EXPECT_EQ(::write(client, request.data(), request.size()), static_cast<ssize_t>(request.size()));
        try {
            VELT::answer_request(stream);
            EXPECT_STREQ(path, "/ /");  // cut at the blank
        } catch (VELT::ProxyHealthIOError const& failure) {
            EXPECT_STREQ(failure.what(), "Unknown command") << path;
        }
        ::close(client);
    }
}

TEST_F(HealthTest, PathMayStandAloneAndLinesMayEndBare) {
    EXPECT_NE(Ask("GET /\n\n"), "");
    EXPECT_NE(Ask("GET /\r\n\r\n"), "");
}

TEST_F(HealthTest, RequestWithoutABlankLineGetsNothing) {
    EXPECT_EQ(Ask("GET / HTTP/1.0\r\n"), "");
    EXPECT_EQ(Ask("GET / HTTP/1.0\r\n", true), "");
}

TEST_F(HealthTest, FailedPortMakesTheProxyUnwellAndIsNamed) {
    ProxyHealth::listener(25)->set_ok();
    ProxyHealth::listener(65535)->set_notok();
    EXPECT_EQ(Ask("GET / HTTP/1.0\r\n\r\n"), "HTTP/1.0 200 OK\r\n\r\nHealth: NOTOK\r\nName: mail\r\nStart: " + Start() +
                                                 "\r\nListening: 25\r\nFailedPort: 65535\r\n");
}

TEST_F(HealthTest, PortIsRegisteredOnceAndNotOkAtFirst) {
    auto const port = ProxyHealth::listener(110);
    EXPECT_FALSE(port->ok);
    EXPECT_EQ(ProxyHealth::listener(110), port);
    EXPECT_EQ(ProxyHealth::m_portlist.size(), 1u);
}

TEST_F(HealthTest, ProxyWithoutANameIsAQuestionMark) {
    ProxyHealth::m_proxyname.clear();
    EXPECT_NE(Ask("GET / HTTP/1.0\r\n\r\n").find("\r\nName: ?\r\n"), std::string::npos);
}

TEST_F(HealthTest, SecondInitChangesNothing) {
    auto const started = ProxyHealth::m_starttime.load();
    ProxyHealth::init("other");
    EXPECT_EQ(ProxyHealth::m_starttime, started);
    EXPECT_EQ(ProxyHealth::m_proxyname, "mail");
}

TEST_F(HealthTest, DisabledMonitoringAnswersNothing) {
    ProxyHealth::disable();
    EXPECT_FALSE(ProxyHealth::is_active());
    EXPECT_EQ(Ask("GET / HTTP/1.0\r\n\r\n"), "");
}

TEST_F(HealthTest, ClientThatHasGoneMakesNoDifference) {
    auto const [client, server] = velt_testing::ConnectedPair();
    std::string const request = "GET / HTTP/1.0\r\n\r\n";
    ASSERT_EQ(::write(client, request.data(), request.size()), static_cast<ssize_t>(request.size()));
    ::close(client);
    for (unsigned short port = 1; port <= 500; ++port) ProxyHealth::listener(port);
    VELT::TCPStream stream(server);
    ProxyHealth::handle_request(&stream);
    EXPECT_TRUE(m_events.Names().empty());
}

TEST_F(HealthTest, NoRefusedRequestIsReported) {
    for (char const* const request : {"GET / HTTP/1.0\r\n", "POST / HTTP/1.0\r\n\r\n", "GET /x HTTP/1.0\r\n\r\n"}) {
        EXPECT_EQ(Ask(request, true), "") << request;
    }
    EXPECT_EQ(Ask(std::string(1023, 'x')), "");
    EXPECT_TRUE(m_events.Names().empty());
}

// Cut to its first 127 bytes a path is still not "/", however it goes on.
TEST_F(HealthTest, LongPathGetsNothing) {
    for (unsigned length : {2u, 126u, 127u, 128u, 129u, 255u, 256u, 257u, 900u}) {
        EXPECT_EQ(Ask("GET " + std::string(length, '/') + " HTTP/1.0\r\n\r\n"), "") << length;
    }
}

TEST_F(HealthTest, PortsAreNamedInTheOrderOfTheirFirstRegistration) {
    for (unsigned short const port : {587, 25, 465, 25, 587}) ProxyHealth::listener(port)->set_ok();
    std::string const answer = Ask("GET /\n\n");
    EXPECT_EQ(answer.substr(answer.find("Listening")), "Listening: 587\r\nListening: 25\r\nListening: 465\r\n");
}

}  // namespace
