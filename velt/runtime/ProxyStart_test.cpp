// The start of a proxy up to where it would serve, with a framework whose answers are written down.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <optional>

#include <QXlog/QXlog.h>
#include <eFabric/Report.h>
#include <testing/ScriptedFramework.h>
#include <velt/logging/Events.h>
#include <velt/runtime/RuntimeTest.h>
#include <velt/runtime/ServiceLoop.h>

namespace {

using VELT::Proxy;
using velt_testing::ScriptedFramework;

// Ends its own start when the host is asked.
class RefusingProxy : public Proxy {
public:
    int ProxyInit() override {
        healthBefore = VELT::ProxyHealth::is_active();
        ++inits;
        return 1;
    }
    bool healthBefore = true;
    int inits = 0;
};

class StartTest : public velt_testing::ProxyFixture {
protected:
    StartTest() {
        m_events.AllowAll();
        ScriptedFramework::get().bag.clear();
        delete m_proxy;
        m_proxy = m_refusing = new RefusingProxy;
    }
    ~StartTest() override {
        delete m_proxy->m_serviceLoop;
        QXlog::detail::allowLogging(true);
    }

    int Start(std::vector<std::string> texts) {
        std::vector<char*> argv;
        for (std::string& text : texts) argv.push_back(text.data());
        argv.push_back(nullptr);
        m_proxy->ProcessArgs(static_cast<int>(texts.size()), argv.data());
        return m_proxy->ProxyMain();
    }
    static std::optional<std::string> Given(std::string const& name) {
        for (auto const& [known, value] : ScriptedFramework::get().bag) {
            if (known == name) return value;
        }
        return std::nullopt;
    }

    velt_testing::EventCapture m_events;
    RefusingProxy* m_refusing;
};

TEST_F(StartTest, AntiSpamOptionGivesTheFrameworkItsPath) {
    EXPECT_EQ(Start({"echo", "-n", "-p", "-a", "mail", "product"}), -1);
    EXPECT_EQ(Given("ASSDKInstallPath"), "/usr/lib/");
}

TEST_F(StartTest, WithoutTheOptionTheFrameworkHasNoAntiSpamPath) {
    EXPECT_EQ(Start({"echo", "-n", "-p", "mail", "product"}), -1);
    EXPECT_EQ(Given("ASSDKInstallPath"), std::nullopt);
    EXPECT_NE(Given("EngineXMLFilePath"), std::nullopt);
}

TEST_F(StartTest, ProxyNamedLsNeverGetsTheAntiSpamPathAndKeepsItsField) {
    EXPECT_EQ(Start({"ls", "-n", "-p", "-a", "ls", "product"}), -1);
    EXPECT_EQ(Given("ASSDKInstallPath"), std::nullopt);
    EXPECT_NE(Given("EngineXMLFilePath"), std::nullopt);
    EXPECT_TRUE(m_proxy->m_antiSpamSdk);
}

TEST_F(StartTest, EnginesHaveAFileOfTheProxysNameInAFolderThatIsMade) {
    m_root.Write("config/qxxmlconf/here", "");
    Start({"echo", "-n", "-p", "mail", "product"});
    EXPECT_EQ(Given("EngineXMLFilePath"), m_root / "config/qxxmlconf/efabric/mail.xml");
    struct stat folder {};
    ASSERT_EQ(::stat((m_root / "config/qxxmlconf/efabric").c_str(), &folder), 0);
    EXPECT_TRUE(S_ISDIR(folder.st_mode));
    EXPECT_EQ(folder.st_mode & 07777u, 0755u);
}

TEST_F(StartTest, FrameworkThatDoesNotStartEndsItBeforeAnythingIsRead) {
    ScriptedFramework::get().initialises = false;
    EXPECT_EQ(Start({"echo", "-n", "-p", "mail", "product"}), -1);
    EXPECT_EQ(m_proxy->m_serviceLoop, nullptr);
    EXPECT_EQ(m_proxy->m_timeoutSeconds, 0u);
    EXPECT_EQ(m_refusing->inits, 0);
    ScriptedFramework::get().initialises = true;
}

TEST_F(StartTest, FrameworkWithoutALoaderEndsIt) {
    ScriptedFramework::get().giveLoader = false;
    EXPECT_EQ(Start({"echo", "-n", "-p", "mail", "product"}), -1);
    EXPECT_EQ(m_refusing->inits, 0);
    ScriptedFramework::get().giveLoader = true;
}

TEST_F(StartTest, IdentitiesThatCannotBeReadEndItWithOneReport) {
    static std::vector<std::string> reports;
    reports.clear();
    auto* const before = eFabric::ExchangeReportSink([](std::string const& line) { reports.push_back(line); });
    m_root.Write("config/qxxmlconf/identities.xml", "<identities>\n<identity name='staff'>eto IS</identity>");
    EXPECT_EQ(Start({"echo", "-n", "-p", "mail", "product"}), -1);
    eFabric::ExchangeReportSink(before);
    EXPECT_EQ(m_proxy->m_serviceLoop, nullptr);
    EXPECT_EQ(m_refusing->inits, 0);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].find(m_root / "config/qxxmlconf/identities.xml:2:"), 0u) << reports[0];
}

TEST_F(StartTest, HostIsAskedWhenThePortsAreOpenAndHealthIsNotYetWatched) {
    EXPECT_EQ(Start({"echo", "-p", "mail", "product"}), -1);
    EXPECT_EQ(m_refusing->inits, 1);
    EXPECT_FALSE(m_refusing->healthBefore);
    EXPECT_NE(m_proxy->m_serviceLoop, nullptr);
    EXPECT_EQ(m_events.Count(VELT::events::PROXY_STARTS), 1u);
    EXPECT_FALSE(VELT::ProxyHealth::is_active());
    EXPECT_EQ(m_proxy->m_monitor, nullptr);
}

}  // namespace
