// Judging unwanted mail: by rules, and by scripted servers with every fault of theirs.
#include <mutex>

#include <poll.h>

#include <policyloader/engines/ScriptedServer.h>
#include <policyloader/engines/SpamFixture.h>

using namespace policyloader;

namespace {

std::string const kMail =
    "From: a@example.test\r\nDate: Thu, 1 Jan 2026 00:00:00 +0000\r\nSubject: a\r\nMessage-ID: "
    "<1@example.test>\r\n\r\n";

std::string Answer(std::string const& spam, std::string const& body = "") {
    return "SPAMD/1.1 0 EX_OK\r\nContent-length: " + std::to_string(body.size()) + "\r\nSpam: " + spam + "\r\n\r\n" +
           body;
}

class SpamScans : public SpamFixture {
protected:
    void Ask(std::string const& more = "", std::string const& names = "one") { SpamFixture::Ask("spamd", more, names); }
};

// Reads a question to its end, and answers.
class FakeSpamd {
public:
    FakeSpamd(std::string path, std::string answer, bool leaves = true)
        : m_server(std::move(path), [this, answer, leaves](int fd, int) {
              std::string text;
              char room[4096];
              for (ssize_t got = 0; (got = ::recv(fd, room, sizeof room, 0)) > 0;)
                  text.append(room, static_cast<std::size_t>(got));
              {
                  std::lock_guard<std::mutex> const guard(m_mutex);
                  m_question = text;
              }
              Say(fd, answer);
              pollfd entry = {fd, 0, 0};
              if (!leaves) ::poll(&entry, 1, -1);
          }) {}
    std::string question() const {
        std::lock_guard<std::mutex> const guard(m_mutex);
        return m_question;
    }
    int connections() const { return m_server.connections(); }

private:
    mutable std::mutex m_mutex;
    std::string m_question;
    ScriptedServer m_server;
};

}  // namespace

TEST_F(SpamScans, DoNothingUnlessThePolicySaysSo) {
    Policy("");
    EXPECT_FALSE(HasResult(Scan("no mail")));
    Spam("<set name='Threshold'>1</set>");
    EXPECT_FALSE(HasResult(Scan("no mail")));
    Spam("<set name='Enabled'>no</set><set name='Source'>rules</set>");
    EXPECT_FALSE(HasResult(Scan("no mail")));
}

TEST_F(SpamScans, SumTheWeightsOfTheRules) {
    Spam(
        "<rule name='CHEAP' where='subject' match='cheap' weight='2.5'/>"
        "<rule name='PILLS' where='body' match='pills' weight='3'/>"
        "<rule name='FRIEND' where='body' match='regex:dear\\s+friend' weight='-1'/>");
    auto const verdict = Scan("Subject: CHEAP\r\nFrom: a\r\nDate: b\r\nMessage-ID: c\r\n\r\npills, Dear  friend");
    EXPECT_EQ(Score(verdict), 4.5);
    EXPECT_EQ(Number(verdict, "E_SR_AS_THRESHOLD"), 5);
    EXPECT_EQ(Number(verdict, "E_SR_AS_ACTION_THRESHOLD"), -999);
    EXPECT_EQ(Tests(verdict), "CHEAP=2.5 PILLS=3 FRIEND=-1");
    EXPECT_EQ(verdict.text("SpamScanner", "E_SR_TYPE"), "5");
    EXPECT_EQ(verdict.action(), "");
    EXPECT_TRUE(verdict.isClean());
    EXPECT_EQ(verdict.out->bytes, verdict.in->bytes);
}

TEST_F(SpamScans, ActFromTheThresholdOn) {
    std::string const rule = "<set name='Action'>DENY</set><rule name='X' where='body' match='x' weight='4.5'/>";
    for (auto const& [threshold, action] : {std::pair("4.4", "DENY"), std::pair("4.5", "DENY"), std::pair("4.6", "")}) {
        Spam(rule + "<set name='Threshold'>" + threshold + "</set>");
        EXPECT_EQ(Scan(kMail + "x").action(), action) << threshold;
    }
    Spam(rule + "<set name='Threshold'>3</set><set name='ActionThreshold'>8</set>");
    auto const verdict = Scan(kMail + "x");
    EXPECT_EQ(verdict.action(), "");
    EXPECT_EQ(Number(verdict, "E_SR_AS_THRESHOLD"), 3);
    EXPECT_EQ(Number(verdict, "E_SR_AS_ACTION_THRESHOLD"), 8);
    Spam(rule + "<set name='Threshold'>8</set><set name='ActionThreshold'>4</set>");
    EXPECT_EQ(Scan(kMail + "x").action(), "DENY");
}

TEST_F(SpamScans, KnowTheTestMessageAndWhatIsMissing) {
    Spam("<set name='Source'>rules</set>");
    EXPECT_EQ(Tests(Scan(kMail + "fine")), "");
    EXPECT_EQ(Score(Scan(kMail + "fine")), 0);
    EXPECT_EQ(Tests(Scan("To: a\r\n\r\nfine")),
              "MISSING_FROM=1.5 MISSING_DATE=1 MISSING_SUBJECT=0.5 MISSING_MESSAGE_ID=0.5");
    std::string const test = std::string("XJS*C4JDBQADN1.NSBN3*2IDNEN*GTUBE-STANDARD") + "-ANTI-UBE-TEST-EMAIL*C.34X";
    auto const verdict = Scan(kMail + test);
    EXPECT_EQ(Tests(verdict), "TEST_MESSAGE=1000");
    EXPECT_EQ(verdict.action(), "LOG");
    EXPECT_EQ(Tests(Scan("no mail at all")), "");
}

TEST_F(SpamScans, LookForMissingFieldsInTheOutermostMessageOnly) {
    Spam("<set name='Source'>rules</set><rule name='MISSING_DATE' missing='X-Date' weight='0'/>");
    EXPECT_EQ(Tests(Scan("From: a\r\nSubject: b\r\nMessage-ID: c\r\nX-DATE: d\r\nContent-Type: message/rfc822\r\n\r\n"
                         "To: x\r\n\r\nfine")),
              "");
}

TEST_F(SpamScans, WithRulesOrSettingsThatCannotBeUsedAreErrors) {
    for (std::string const inside :
         {"<rule name='X'/>", "<rule name='X' missing=''/>", "<rule name='X' missing='Date' match='x'/>",
          "<set name='Source'>oracle</set>", "<set name='Source'>spamd</set>",
          "<set name='Source'>spamd</set><set name='Servers'>somewhere</set>"}) {
        Spam(inside);
        ExpectError(Scan(kMail), "105");
    }
}

TEST_F(SpamScans, AreOutWhenTheirEngineIsNotSelected) {
    Spam("<set name='Source'>rules</set>");
    Thread().SelectEngines(false, nullptr);
    EXPECT_FALSE(HasResult(Scan(kMail)));
    EXPECT_TRUE(Thread().SelectEngines(true, "SpamScanner"));
    EXPECT_TRUE(HasResult(Scan(kMail)));
}

TEST_F(SpamScans, TakeTheServersScore) {
    Ask("<set name='Action'>DENY</set>");
    FakeSpamd const spamd(Path("one"), Answer("True ; 7.5 / 6.0", "x\n---- ----\n 7.5 BAD_ONE  x\n 0.0 OTHER x\n"));
    auto const verdict = Scan(kMail + "text");
    EXPECT_EQ(Score(verdict), 7.5);
    EXPECT_EQ(Number(verdict, "E_SR_AS_THRESHOLD"), 6);
    EXPECT_EQ(Tests(verdict), "BAD_ONE=7.5 OTHER=0");
    EXPECT_EQ(verdict.action(), "DENY");
    EXPECT_EQ(spamd.question(),
              "REPORT SPAMC/1.5\r\nContent-length: " + std::to_string(kMail.size() + 4) + "\r\n\r\n" + kMail + "text");
    Ask("<set name='Action'>DENY</set><set name='Threshold'>7.6</set>");
    EXPECT_EQ(Number(Scan(kMail), "E_SR_AS_THRESHOLD"), 7.6);
    EXPECT_EQ(Scan(kMail).action(), "");
}

TEST_F(SpamScans, TellTheServerTheEnvelopeInFrontOfTheMessage) {
    Ask();
    FakeSpamd const spamd(Path("one"), Answer("True ; 7.5 / 6.0"));
    auto const verdict = Scan(Enveloped(kMail, "sender@example.test", {"one@example.test", "two@example.test"}));
    EXPECT_EQ(Score(verdict), 7.5);
    std::string const told =
        "X-Envelope-From: <sender@example.test>\r\nX-Envelope-To: one@example.test,\r\n\ttwo@example.test\r\n" + kMail;
    EXPECT_EQ(spamd.question(),
              "REPORT SPAMC/1.5\r\nContent-length: " + std::to_string(told.size()) + "\r\n\r\n" + told);
    EXPECT_EQ(verdict.out->bytes, kMail);
    Scan(Enveloped(kMail, "", {}));
    EXPECT_TRUE(spamd.question().ends_with("\r\n\r\nX-Envelope-From: <>\r\n" + kMail));
    Scan(Enveloped(kMail, "a\r\nX-Forged: yes\r \n", {"\xc3\xa9@b\n"}));
    EXPECT_TRUE(spamd.question().ends_with(
        "\r\n\r\nX-Envelope-From: <a??X-Forged: yes? ?>\r\nX-Envelope-To: ??@b?\r\n" + kMail));
}

TEST_F(SpamScans, LargerThanIsAskedAboutAreJudgedByTheRules) {
    Ask("<set name='MaxSize'>1000</set>");
    FakeSpamd const spamd(Path("one"), Answer("True ; 7.5 / 6.0"));
    EXPECT_EQ(Score(Scan(kMail + std::string(1000 - kMail.size(), 'x'))), 7.5);
    EXPECT_EQ(Score(Scan(kMail + std::string(1001 - kMail.size(), 'x'))), 0);
    EXPECT_EQ(spamd.connections(), 1);
}

TEST_F(SpamScans, WithoutAServersJudgementAreErrors) {
    Ask();
    ExpectError(Scan(kMail), "120");
    struct Case {
        std::string answer;
        char const* number;
    };
    auto const good = Answer("True ; 7.5 / 6.0", "body");
    Case const cases[] = {{"", "120"},
                          {good.substr(0, 30), "122"},
                          {good.substr(0, good.size() - 1), "122"},
                          {good + "x", "122"},
                          {"HTTP/1.1 200 OK\r\n\r\n", "122"},
                          {std::string(2u << 20, 'x'), "122"},
                          {"SPAMD/1.0 75 EX_TEMPFAIL\r\n\r\n", "123"}};
    for (auto const& one : cases) {
        FakeSpamd const spamd(Path("one"), one.answer);
        ExpectError(Scan(kMail), one.number);
    }
}

TEST_F(SpamScans, OfASlowServerAreErrorsAfterTheTimeLimit) {
    Ask("<set name='Timeout'>0.2</set>");
    FakeSpamd const spamd(Path("one"), Answer("True ; 7.5 / 6.0"), false);
    ExpectError(Scan(kMail), "121");
}

TEST_F(SpamScans, GoToTheNextServerWhenOneFails) {
    Ask("", "away one two");
    FakeSpamd const bad(Path("one"), "SPAMD/1.0 75 EX_TEMPFAIL\r\n\r\n"), good(Path("two"), Answer("False ; 1 / 6"));
    for (int i = 0; i < 6; ++i) EXPECT_EQ(Score(Scan(kMail)), 1);
}
