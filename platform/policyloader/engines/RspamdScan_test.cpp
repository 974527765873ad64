// Scans that ask a scripted rspamd, with every fault of its.
#include <mutex>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <policyloader/engines/ScriptedServer.h>
#include <policyloader/engines/SpamFixture.h>

using namespace policyloader;

namespace {

std::string const kPlainMail = "From: a@example.test\r\nSubject: a\r\n\r\ntext\r\n";
std::string const kSpam = R"({"score":7.5,"required_score":6,"action":"reject","symbols":{"BAD":{"score":7.5}}})";

std::string Http(std::string const& body, std::string const& status = "200 OK") {
    return "HTTP/1.1 " + status +
           "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// Reads a request, or its beginning, and answers.
class FakeRspamd {
public:
    FakeRspamd(std::string path, std::string answer, std::size_t enough = std::string::npos)
        : m_server(std::move(path), [this, answer, enough](int fd, int) {
              std::string text;
              char room[4096];
              while (text.size() < enough && !isWhole(text)) {
                  ssize_t const got = ::recv(fd, room, sizeof room, 0);
                  if (got <= 0) return;
                  text.append(room, static_cast<std::size_t>(got));
              }
              {
                  std::lock_guard<std::mutex> const guard(m_mutex);
                  m_question = text;
              }
              if (answer == "silence") return WaitForTheOtherSideToLeave(fd);
              Say(fd, answer);
          }) {}
    std::string question() const {
        std::lock_guard<std::mutex> const guard(m_mutex);
        return m_question;
    }
    bool wasTold(std::string const& field) const {
        return question().find("\r\n" + field + "\r\n") < question().find("\r\n\r\n");
    }
    int connections() const { return m_server.connections(); }

private:
    static bool isWhole(std::string const& text) {
        std::size_t const end = text.find("\r\n\r\n"), length = text.find("Content-Length: ");
        return end != std::string::npos && length < end &&
               text.size() >= end + 4 + std::stoul(text.substr(length + 16));
    }

    mutable std::mutex m_mutex;
    std::string m_question;
    ScriptedServer m_server;
};

class RspamdScans : public SpamFixture {
protected:
    void Ask(std::string const& more = "", std::string const& names = "one") {
        SpamFixture::Ask("rspamd", more, names);
    }
};

}  // namespace

TEST_F(RspamdScans, TakeTheServersScore) {
    Ask("<set name='Action'>DENY</set>");
    FakeRspamd const rspamd(Path("one"), Http(kSpam));
    auto const verdict = Scan(kPlainMail);
    EXPECT_EQ(Score(verdict), 7.5) << verdict.text("SpamScanner", "E_SR_DESCRIPTION_P");
    EXPECT_EQ(Number(verdict, "E_SR_AS_THRESHOLD"), 6);
    EXPECT_EQ(Tests(verdict), "BAD=7.5");
    EXPECT_EQ(verdict.action(), "DENY");
    EXPECT_EQ(verdict.out->bytes, kPlainMail);
    EXPECT_TRUE(rspamd.question().starts_with("POST /checkv2 HTTP/1.1\r\n")) << rspamd.question();
    EXPECT_TRUE(rspamd.question().ends_with("\r\n\r\n" + kPlainMail)) << rspamd.question();
    EXPECT_FALSE(rspamd.wasTold("Expect: 100-continue"));
    EXPECT_EQ(rspamd.question().find("From: <"), std::string::npos) << "nobody told of an envelope";
    Ask("<set name='Action'>DENY</set><set name='Threshold'>7.6</set>");
    EXPECT_EQ(Scan(kPlainMail).action(), "");
}

TEST_F(RspamdScans, TellTheServerTheEnvelope) {
    Ask();
    FakeRspamd const rspamd(Path("one"), Http(kSpam));
    Scan(Enveloped(kPlainMail, "sender@example.test", {"one@example.test", "two@example.test"}));
    for (char const* const field : {"From: <sender@example.test>", "Rcpt: one@example.test", "Rcpt: two@example.test",
                                    "IP: 192.0.2.7", "Helo: client.example.test"})
        EXPECT_TRUE(rspamd.wasTold(field)) << field << rspamd.question();
    EXPECT_EQ(Score(Scan(Enveloped(kPlainMail, "", {"\r\nX-Forged: yes"}))), 7.5);
    EXPECT_TRUE(rspamd.wasTold("From: <>"));
    EXPECT_TRUE(rspamd.wasTold("Rcpt: ??X-Forged: yes")) << rspamd.question();
}

TEST_F(RspamdScans, TellTheServerAHundredRecipientsAtMost) {
    Ask();
    FakeRspamd const rspamd(Path("one"), Http(kSpam));
    Scan(Enveloped(kPlainMail, "a@b.test", std::vector<char const*>(1000, "to@example.test")));
    auto const question = rspamd.question();
    int count = 0;
    for (auto at = question.find("\r\nRcpt: "); at != std::string::npos; at = question.find("\r\nRcpt: ", at + 1))
        ++count;
    EXPECT_EQ(count, 100);
}

TEST_F(RspamdScans, ReachItOverTheNetToo) {
    velt_testing::Fd const listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(::listen(listener.get(), 1), 0);
    ASSERT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    std::string const server = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    Spam("<set name='Source'>rspamd</set><set name='Servers'>" + server + "</set>");
    std::string head;
    std::thread thread([&] {
        velt_testing::Fd const fd(::accept(listener.get(), nullptr, nullptr));
        char room[4096];
        while (!head.ends_with(kPlainMail)) {
            ssize_t const got = ::recv(fd.get(), room, sizeof room, 0);
            if (got <= 0) return;
            head.append(room, static_cast<std::size_t>(got));
        }
        Say(fd.get(), Http(kSpam));
    });
    ::setenv("http_proxy", "http://127.0.0.1:1", 1);
    EXPECT_EQ(Score(Scan(kPlainMail)), 7.5);
    ::unsetenv("http_proxy");
    ::shutdown(listener.get(), SHUT_RDWR);
    thread.join();
    EXPECT_NE(head.find("Host: " + server), std::string::npos);
}

TEST_F(RspamdScans, WithoutAServersJudgementAreErrors) {
    Ask();
    ExpectError(Scan(kPlainMail), "120");
    struct Case {
        std::string answer;
        char const* number;
    };
    auto const good = Http(kSpam);
    Case const cases[] = {{"", "120"},
                          {good.substr(0, 20), "122"},
                          {good.substr(0, good.size() - 1), "122"},
                          {"HTTP/1.1 200 OK\r\n\r\n" + kSpam.substr(1), "122"},
                          {"SPAMD/1.1 0 EX_OK\r\n\r\n", "122"},
                          {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n", "120"},
                          {"HTTP/1.1 200 OK\r\n\r\n" + std::string(2u << 20, ' '), "122"},
                          {Http("{}"), "122"},
                          {Http(R"({"error":"broken"})"), "123"},
                          {Http(R"({"score":1,"required_score":5,"action":"soft reject"})"), "123"},
                          {Http(kSpam, "500 Broken"), "123"},
                          {Http(kSpam, "302 Found\r\nLocation: http://192.0.2.1/"), "123"}};
    for (auto const& one : cases) {
        SCOPED_TRACE(one.answer.substr(0, 100));
        FakeRspamd const rspamd(Path("one"), one.answer);
        ExpectError(Scan(kPlainMail), one.number);
    }
}

TEST_F(RspamdScans, JudgedBeforeTheMessageHadEndedAreErrors) {
    Ask("<set name='MaxSize'>100000000</set>");
    FakeRspamd const rspamd(Path("one"), Http(kSpam), 1);
    auto const verdict = Scan(kPlainMail + std::string(20u << 20, 'x'));
    EXPECT_TRUE(verdict.hasError());
    EXPECT_EQ(Score(verdict), -999);
}

TEST_F(RspamdScans, OfASlowServerAreErrorsAfterTheTimeLimit) {
    Ask("<set name='Timeout'>0.2</set>");
    FakeRspamd const rspamd(Path("one"), "silence");
    ExpectError(Scan(kPlainMail), "121");
}

TEST_F(RspamdScans, GoToTheNextServerWhenOneFails) {
    Ask("", "away one two");
    FakeRspamd const bad(Path("one"), Http("busy", "503 Busy")), good(Path("two"), Http(kSpam));
    for (int i = 0; i < 6; ++i) EXPECT_EQ(Score(Scan(kPlainMail)), 7.5);
}
