// Scans that ask the real spam scan server of the system, with a rule of their own.
#include <filesystem>
#include <optional>

#include <sys/stat.h>

#include <policyloader/engines/RealServer.h>
#include <policyloader/engines/SpamFixture.h>

using namespace policyloader;

namespace {

constexpr char kSpamd[] = "/usr/sbin/spamd";

constexpr char kConfiguration[] =
    "loadplugin Mail::SpamAssassin::Plugin::Check\n"
    "required_score 6\n"
    "header PLANTED_SUBJECT Subject =~ /planted/\n"
    "score PLANTED_SUBJECT 7.5\n"
    "describe PLANTED_SUBJECT Planted for the scan server\n"
    "header KNOWN_SENDER From =~ /friend/\n"
    "score KNOWN_SENDER -1\n"
    "header PLANTED_ENVELOPE EnvelopeFrom =~ /^sender@example.test$/\n"
    "score PLANTED_ENVELOPE 2\n"
    "clear_report_template\n"
    "report Content analysis details:   (_SCORE_ points, _REQD_ required)\n"
    "report\n"
    "report \" pts rule name              description\"\n"
    "report  ---- ---------------------- --------------------------------------------------\n"
    "report _SUMMARY_\n";

class RealSpamServerScans : public SpamFixture {
protected:
    void SetUp() override {
        if (!RealServer::isInstalled(kSpamd)) GTEST_SKIP() << kSpamd << " is not installed";
        ::chmod(m_folder.c_str(), 0755);
        std::string const rules = m_folder + "/rules", socket = m_folder + "/socket";
        ::mkdir(rules.c_str(), 0755);
        std::ofstream(rules + "/own.cf") << kConfiguration;
        Policy(
            "<settings section='SpamScanner'><set name='Source'>spamd</set><set name='Action'>DENY</set>"
            "<set name='Servers'>" +
            socket + "</set></settings>");
        m_server.emplace(std::vector<std::string>{kSpamd, "-L", "-x", "-m", "1", "-C", rules,
                                                  "--siteconfigpath=" + rules, "-s", "null", "--socketpath=" + socket},
                         socket);
        m_server->start();
    }
    void TearDown() override {
        m_server.reset();
        std::filesystem::remove_all(m_folder);
    }

    std::optional<RealServer> m_server;
};

}  // namespace

TEST_F(RealSpamServerScans, HaveTheServersScoreAndTests) {
    auto const verdict = Scan("From: friend@example.test\r\nSubject: planted\r\n\r\ntext\r\n");
    EXPECT_FALSE(verdict.hasError()) << verdict.text("SpamScanner", "E_SR_DESCRIPTION_P");
    EXPECT_EQ(Score(verdict), 6.5);
    EXPECT_EQ(verdict.action(), "DENY");
    auto const found = verdict.found("SpamScanner");
    EXPECT_NE(found.find("PLANTED_SUBJECT"), std::string::npos) << found;
    EXPECT_NE(found.find("KNOWN_SENDER"), std::string::npos) << found;
    auto const fine = Scan("From: a@example.test\r\nSubject: a\r\n\r\ntext\r\n");
    EXPECT_EQ(Score(fine), 0);
    EXPECT_EQ(fine.action(), "");
}

TEST_F(RealSpamServerScans, LetItSeeTheEnvelope) {
    std::string const mail = "Received: from a by b\r\nFrom: a@example.test\r\nReturn-Path: <x@y.test>\r\n\r\ntext\r\n";
    EXPECT_EQ(Score(Scan(mail)), 0);
    EXPECT_EQ(Score(Scan(Enveloped(mail, "sender@example.test", {"to@example.test"}))), 2);
}

TEST_F(RealSpamServerScans, AreErrorsWhenItIsKilledAndGoOnWhenItIsBack) {
    std::string const mail = "From: a@example.test\r\nSubject: planted\r\n\r\ntext\r\n";
    EXPECT_EQ(Score(Scan(mail)), 7.5);
    m_server->stop(SIGKILL);
    EXPECT_TRUE(Scan(mail).hasError());
    m_server->start();
    EXPECT_EQ(Score(Scan(mail)), 7.5);
}
