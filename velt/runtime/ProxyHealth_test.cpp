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
    static std::string Start() { return std::to_string(ProxyHealth::m_starttime.load()); }
};

// Reads one request from a socket and tells what was made of it.
class RequestTest : public ::testing::Test {
protected:
    RequestTest() { velt_testing::Checked(::socketpair(AF_UNIX, SOCK_STREAM, 0, m_ends), "socketpair"); }
    ~RequestTest() override {
        ::close(m_ends[0]);
        ::close(m_ends[1]);
    }
    void Send(std::string const& text) {
        ASSERT_EQ(::write(m_ends[0], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::string Path(unsigned size = 128) {
        std::string dest(size, '#');
        VELT::read_request_info(m_ends[1], dest.data(), size);
        return dest.c_str();
    }
    std::string Failure() {
        char dest[128] = "#";
        try {
            VELT::read_request_info(m_ends[1], dest, sizeof dest);
        } catch (VELT::ProxyHealthIOError const& failure) {
            EXPECT_EQ(dest[0], 0);
            return failure.what();
        }
        return "none";
    }
    int m_ends[2];
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

TEST_F(RequestTest, SurvivesEveryCut) {
    std::string const request = "GET / HTTP/1.0\r\nHost: x\r\n\r\n";
    for (std::size_t cut = 1; cut < request.size(); ++cut) {
        std::thread client([&] {
            Send(request.substr(0, cut));
            Send(request.substr(cut));
        });
        EXPECT_EQ(Path(), "/") << cut;
        client.join();
    }
}

TEST_F(RequestTest, LongPathIsCutToTheRoomLessOne) {
    std::string const path = "/" + std::string(200, 'p');
    Send("GET " + path + " HTTP/1.0\r\n\r\n");
    EXPECT_EQ(Path(), path.substr(0, 127));
}

TEST_F(RequestTest, EndOfFileIsAReadError) {
    Send("GET / HTTP/1.0\r\n");
    ::shutdown(m_ends[0], SHUT_WR);
    EXPECT_EQ(Failure(), "Error reading from client");
}

TEST_F(RequestTest, SilenceIsAnErrorOfTheWait) { EXPECT_EQ(Failure(), "Error waiting for client"); }

TEST_F(RequestTest, LineWithoutAnEndIsInvalid) {
    Send(std::string(2000, 'x'));
    EXPECT_EQ(Failure(), "Invalid request");
}

TEST_F(RequestTest, LongHeadCountsWhenItsFirstLineIsThere) {
    Send("GET / HTTP/1.0\r\n" + std::string(2000, 'x'));
    EXPECT_EQ(Path(), "/");
}

TEST_F(RequestTest, OtherVerbsAreInvalid) {
    for (char const* request : {"GET\n\n", "GETS / \n\n", "HEAD / \n\n", "\n\n"}) {
        Send(request);
        EXPECT_EQ(Failure(), "Invalid verb") << request;
    }
}

}  // namespace
