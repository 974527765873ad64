// Scans that ask a real rspamd, with rules of their own.
#include <filesystem>
#include <optional>

#include <sys/stat.h>

#include <policyloader/engines/RealServer.h>
#include <policyloader/engines/SpamFixture.h>

using namespace policyloader;

namespace {

// Among the programs of the system, or where scripts/install-dependencies has put it.
constexpr char const* kRoots[] = {"", RSPAMD_ROOT};

constexpr char kRules[] = R"(
local function rule(name, score, holds)
  rspamd_config:register_symbol({name = name, score = score, callback = holds})
end
rule('PLANTED_SUBJECT', 7.5, function(task) return task:get_header('Subject') == 'planted' end)
rule('KNOWN_SENDER', -1, function(task)
  local from = task:get_from('smtp')
  return from and from[1] and from[1].addr == 'friend@example.test'
end)
rule('KNOWN_CLIENT', 0.5, function(task)
  local ip, recipients = task:get_ip(), task:get_recipients('smtp')
  return ip and tostring(ip) == '192.0.2.7' and task:get_helo() == 'client.example.test'
    and recipients and #recipients == 2
end)
)";

class RealRspamdScans : public SpamFixture {
protected:
    void SetUp() override {
        auto const root = std::find_if(std::begin(kRoots), std::end(kRoots), [](std::string const& one) {
            return RealServer::isInstalled((one + "/usr/bin/rspamd").c_str());
        });
        if (root == std::end(kRoots)) GTEST_SKIP() << "rspamd is not installed";
        Configure();
        SpamFixture::Ask("rspamd", "<set name='Action'>DENY</set>", "socket");
        m_server.emplace(Command(*root), Path("socket"));
        m_server->start();
    }
    void TearDown() override {
        m_server.reset();
        std::filesystem::remove_all(m_folder);
    }
    void Configure() const {
        std::ofstream(Path("own.lua")) << kRules;
        std::ofstream(Path("domains")) << "test\n";
        std::ofstream(Path("rspamd.conf"))
            << "lua = \"" << Path("own.lua") << "\";\nactions { reject = 6; }\noptions {\nfilters = \"\";\n"
            << "check_all_filters = true;\nurl_tld = \"" << Path("domains") << "\";\ntempdir = \"" << m_folder
            << "\";\nhs_cache_dir = \"" << m_folder << "\";\ncontrol_socket = \"" << Path("control")
            << "\";\ndns { nameserver = [\"127.0.0.1:9\"]; }\n}\nworker \"normal\" { bind_socket = \"" << Path("socket")
            << "\"; count = 1; }\n";
    }
    std::vector<std::string> Command(std::string const& root) const {
        std::string const lua = root + "/usr/share/rspamd/lualib";
        return {"/usr/bin/env",
                "LUA_PATH=" + lua + "/?.lua;" + lua + "/?/init.lua",
                "LD_LIBRARY_PATH=" + root + "/usr/lib/rspamd",
                root + "/usr/bin/rspamd",
                "-f",
                "-i",
                "-c",
                Path("rspamd.conf"),
                "--var=LUALIBDIR=" + lua,
                "--var=DBDIR=" + m_folder,
                "--var=RUNDIR=" + m_folder};
    }

    std::optional<RealServer> m_server;
};

std::string const kPlanted = "From: a@example.test\r\nSubject: planted\r\n\r\ntext\r\n";

}  // namespace

TEST_F(RealRspamdScans, HaveTheServersScoreAndTests) {
    auto const verdict = Scan(Enveloped(kPlanted, "friend@example.test", {"one@example.test", "two@example.test"}));
    EXPECT_FALSE(verdict.hasError()) << verdict.text("SpamScanner", "E_SR_DESCRIPTION_P");
    EXPECT_EQ(Score(verdict), 7);
    EXPECT_EQ(verdict.action(), "DENY");
    auto const found = verdict.found("SpamScanner");
    for (char const* const name : {"PLANTED_SUBJECT", "KNOWN_SENDER", "KNOWN_CLIENT"})
        EXPECT_NE(found.find(name), std::string::npos) << found;
    auto const fine = Scan("From: a@example.test\r\nSubject: a\r\n\r\ntext\r\n");
    EXPECT_EQ(Score(fine), 0);
    EXPECT_EQ(fine.action(), "");
}

TEST_F(RealRspamdScans, AreErrorsWhenItIsKilledAndGoOnWhenItIsBack) {
    EXPECT_EQ(Score(Scan(kPlanted)), 7.5);
    m_server->stop(SIGKILL);
    EXPECT_TRUE(Scan(kPlanted).hasError());
    m_server->start();
    EXPECT_EQ(Score(Scan(kPlanted)), 7.5);
}
