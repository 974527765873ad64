#include <velt/runtime/HealthRequest.h>

#include <sys/ioctl.h>

#include <velt/runtime/RuntimeTest.h>

namespace {

constexpr std::size_t kMostBytes = 1023;

// Reads one request from a socket and tells what was made of it.
class RequestTest : public ::testing::Test {
protected:
    RequestTest() { Connect(); }
    ~RequestTest() override { Disconnect(); }
    void Connect() { velt_testing::Checked(::socketpair(AF_UNIX, SOCK_STREAM, 0, m_ends), "socketpair"); }
    void Disconnect() {
        ::close(m_ends[0]);
        ::close(m_ends[1]);
    }
    void Reconnect() {
        Disconnect();
        Connect();
    }
    void Send(std::string const& text) {
        ASSERT_EQ(::send(m_ends[0], text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }
    void EndOfClient() { ::shutdown(m_ends[0], SHUT_WR); }
    std::string Path(unsigned size = 128) {
        std::string dest(size + 1, '#');
        VELT::read_request_info(m_ends[1], dest.data(), size);
        EXPECT_EQ(dest[size], '#') << "written behind the room";
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
    // Of a client that sends this and leaves.
    std::string FailureOf(std::string const& request) {
        Reconnect();
        Send(request);
        EndOfClient();
        return Failure();
    }
    std::string PathOf(std::string const& request) {
        Reconnect();
        Send(request);
        EndOfClient();
        return Path();
    }
    int Unread() const {
        int count = -1;
        ::ioctl(m_ends[1], FIONREAD, &count);
        return count;
    }
    int m_ends[2];
};

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

TEST_F(RequestTest, PathIsCutToTheRoomLessOne) {
    for (unsigned length : {1u, 126u, 127u, 128u, 129u, 500u}) {
        std::string const path(length, 'p');
        EXPECT_EQ(PathOf("GET " + path + " HTTP/1.0\r\n\r\n"), path.substr(0, 127)) << length;
    }
    for (unsigned size = 1; size < 10; ++size) {
        Reconnect();
        Send("GET /12345 \n\n");
        EXPECT_EQ(Path(size), std::string("/12345").substr(0, size - 1)) << size;
    }
}

TEST_F(RequestTest, EndOfFileIsAReadErrorWhereverTheRequestStops) {
    std::string const request = "GET / HTTP/1.0\r\nHost: x\r\n\r\n";
    for (std::size_t sent = 0; sent < request.size(); ++sent) {
        EXPECT_EQ(FailureOf(request.substr(0, sent)), "Error reading from client") << sent;
    }
    EXPECT_EQ(PathOf(request), "/");
}

TEST_F(RequestTest, BrokenConnectionIsAReadError) {
    auto const [client, server] = velt_testing::ConnectedPair();
    linger const hard{1, 0};
    ::setsockopt(client, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    ::close(client);
    Disconnect();
    m_ends[0] = ::dup(server);
    m_ends[1] = server;
    EXPECT_EQ(Failure(), "Error reading from client");
}

TEST_F(RequestTest, SilenceIsAnErrorOfTheWait) { EXPECT_EQ(Failure(), "Error waiting for client"); }

TEST_F(RequestTest, FirstLineAloneIsWaitedForAndThenAnErrorOfTheWait) {
    Send("GET / HTTP/1.0\r\n");
    EXPECT_EQ(Failure(), "Error waiting for client");
}

// The client closes at once, and whoever reads on finds its end.
TEST_F(RequestTest, BlankLineIsTwoLineEndsOfOneKind) {
    for (char const* const end : {"\n\n", "\r\n\r\n", "\r\n\n", "\nHost: x\n\n", "\r\nHost: x\r\n\r\n"}) {
        EXPECT_EQ(PathOf(std::string("GET / HTTP/1.0") + end), "/") << end;
    }
    for (char const* const end : {"\n", "\r\n", "\n\r\n", "\r\r", "\r\r\n", "\r\n\r", "\n \n", "\r\n \r\n"}) {
        EXPECT_EQ(FailureOf(std::string("GET / HTTP/1.0") + end), "Error reading from client") << end;
    }
}

TEST_F(RequestTest, LineEndIsLookedForInTheFirst1023Bytes) {
    for (std::size_t at = kMostBytes - 3; at <= kMostBytes + 2; ++at) {  // where the first line's end stands
        Reconnect();
        Send("GET / " + std::string(at - 6, 'x') + "\n" + std::string(20, 'y'));
        if (at < kMostBytes) {
            EXPECT_EQ(Path(), "/") << at;
        } else {
            EXPECT_EQ(Failure(), "Invalid request") << at;
        }
    }
}

TEST_F(RequestTest, NoMoreThan1023BytesAreRead) {
    for (std::size_t sent = kMostBytes - 1; sent <= kMostBytes + 2; ++sent) {
        bool const whole = sent >= kMostBytes;
        EXPECT_EQ(FailureOf(std::string(sent, 'x')), whole ? "Invalid request" : "Error reading from client") << sent;
        EXPECT_EQ(Unread(), whole ? static_cast<int>(sent - kMostBytes) : 0) << sent;
    }
}

TEST_F(RequestTest, LongHeadCountsWhenItsFirstLineIsThere) {
    Send("GET / HTTP/1.0\r\n" + std::string(2000, 'x'));
    EXPECT_EQ(Path(), "/");
}

TEST_F(RequestTest, OtherVerbsAreInvalid) {
    for (char const* const line : {"GET", "GET\t/", "GETS / ", "HEAD / ", "get / ", " GET / ", "POST / HTTP/1.0", ""}) {
        EXPECT_EQ(FailureOf(std::string(line) + "\n\n"), "Invalid verb") << line;
    }
    EXPECT_EQ(FailureOf("GET\r /\r\n\r\n"), "Invalid verb") << "cut at the carriage return";
}

TEST_F(RequestTest, PathEndsAtTheFirstBlankAndTheLineAtTheFirstCarriageReturn) {
    EXPECT_EQ(PathOf("GET / x HTTP/1.0\r\n\r\n"), "/");
    EXPECT_EQ(PathOf("GET /\rx HTTP/1.0\r\n\r\n"), "/");
    EXPECT_EQ(PathOf("GET /\n\n"), "/");
    EXPECT_EQ(PathOf("GET  / HTTP/1.0\r\n\r\n"), "");
    EXPECT_EQ(PathOf("GET \r\n\r\n"), "");
    EXPECT_EQ(PathOf("GET /a\tb HTTP/1.0\r\n\r\n"), "/a\tb");
}

TEST_F(RequestTest, ZeroByteEndsTheText) {
    using namespace std::string_literals;
    EXPECT_EQ(FailureOf("GET /\0 HTTP/1.0\r\n\r\n"s), "Invalid request");
    EXPECT_EQ(FailureOf("\0GET / HTTP/1.0\r\n\r\n"s), "Invalid request");
    EXPECT_EQ(PathOf("GET / HTTP/1.0\r\n\0\r\n\r\n"s), "/");
}

}  // namespace
