// Settings and identities with the store and the rule engine that a proxy runs with.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <testing/EventCapture.h>
#include <testing/TempRoot.h>
#include <velt/Config.h>
#include <velt/config_details/settings/connection.h>
#include <velt/config_details/settings/network.h>
#include <velt/config_details/settings/process.h>
#include <velt/logging/Events.h>
#include <velt/scanning/ScanContext.h>

using namespace VELT;

namespace {

constexpr char const* kRules = R"(<rules version="1">
  <policy name="base">
    <settings section="network"><set name="Timeout">5000</set><set name="NetMem">much</set>
      <list name="BindPorts"><item>25</item><item>70000</item><item>smtp</item></list>
      <list name="BindAddress"><item>127.0.0.1</item></list></settings>
    <settings section="process"><set name="IdleTimeout">-3</set><set name="MonitorHealth">off</set>
      <set name="UserId">mail</set></settings>
  </policy>
  <policy name="content" base="base">
    <actions><action>LOG</action><action>REPLACE</action><action>DENY</action></actions>
    <settings section="network"><set name="ConnectTimeout">11</set></settings>
  </policy>
  <policy name="content_in" base="content">
    <identity name="board"><settings section="network"><set name="ConnectTimeout">33</set></settings></identity>
    <identity name="ghost"/>
    <identity name="staff"><settings section="network"><set name="ConnectTimeout">22</set></settings></identity>
  </policy>
  <policy name="protocol_in" base="base">
    <settings section="connection"><set name="MaxHosts">7</set></settings>
  </policy>
</rules>)";

constexpr char const* kIdentities = R"(<identities version="1">
  <identity name="staff">eto IS "*@staff.test"</identity>
  <identity name="board">eto IS "boss@*" and not efrom IS "*@spam.test"</identity>
</identities>)";

class RealStoreTest : public testing::Test {
protected:
    RealStoreTest() {
        events.Allow(events::IDENTITY_SELECTED);
        root.Write("/config/qxxmlconf/rules.xml", kRules);
        root.Write("/config/qxxmlconf/identities.xml", kIdentities);
        eFabric::eConfig files;
        std::string const rules = root / "/config/qxxmlconf/rules.xml";
        files.rules.assign(rules.begin(), rules.end());
        KORPropertyBag bag;
        eFabric::IPolicyLoader* const store = CreatePolicyLoader(3, 1);
        EXPECT_TRUE(store->initialise(files, 0, &bag));
        Config::initialise(store);
        config.set(true, nullptr, &parent);
    }
    ~RealStoreTest() override { Config::initialise(nullptr); }

    unsigned ConnectTimeoutFor(char const* recipient) {
        config.set_recipient_mail_address(recipient);
        return ReadSetting<VELTCFG::network::ConnectTimeout>(config, Config::POLICY_CONTENT);
    }

    velt_testing::TempRoot root;
    velt_testing::EventCapture events;
    Config parent;
    Config config;
};

}  // namespace

TEST_F(RealStoreTest, ValuesAreClampedConvertedOrDefaulted) {
    EXPECT_EQ(ReadSetting<VELTCFG::network::Timeout>(config), 3600u);
    EXPECT_EQ(ReadSetting<VELTCFG::network::NetMem>(config), 4u);
    EXPECT_EQ(ReadSetting<VELTCFG::process::IdleTimeout>(config), 1);
    EXPECT_FALSE(ReadSetting<VELTCFG::process::MonitorHealth>(config));
    EXPECT_EQ(ReadSetting<VELTCFG::process::UserId>(config).str(), "mail");
    EXPECT_EQ(ReadSetting<VELTCFG::process::GroupId>(config).str(), "uucp");
    EXPECT_EQ(ReadSetting<VELTCFG::connection::MaxHosts>(config), 7u);
}

TEST_F(RealStoreTest, ListsAreReadElementByElement) {
    auto const ports = ReadSetting<VELTCFG::network::BindPorts>(config);
    ASSERT_EQ(ports.size(), 3u);
    EXPECT_EQ(ports.at(0), 25);
    EXPECT_EQ(ports.at(1), 65535);
    EXPECT_EQ(ports.at(2), 0);
    EXPECT_EQ(ReadSetting<VELTCFG::network::BindAddress>(config).at(0).str(), "127.0.0.1");
}

TEST_F(RealStoreTest, RecipientChoosesTheValue) {
    EXPECT_EQ(ConnectTimeoutFor("boss@staff.test"), 33u);  // both hold; the store names "board" first
    EXPECT_EQ(ConnectTimeoutFor("ann@staff.test"), 22u);
    EXPECT_EQ(ConnectTimeoutFor("ann@else.test"), 11u);
    config.set_source_mail_address("x@spam.test");
    EXPECT_EQ(ConnectTimeoutFor("boss@staff.test"), 22u);
}

TEST_F(RealStoreTest, ScanTakesTheHighestIdentityOfItsRecipients) {
    ScanContext context;
    int priority = 0;
    InternedString identity;
    for (char const* recipient : {"ann@staff.test", "boss@else.test"}) {
        config.set_recipient_mail_address(recipient);
        config.set_scan_identity(&context, priority, identity);
    }
    ASSERT_EQ(context.identities.size(), 2u);
    config.set_scan_highest_identity(&context, priority, identity);
    EXPECT_EQ(priority, 0);
    EXPECT_STREQ(identity.c_str(), "board");
    EXPECT_EQ(Config::s_Identities[1][Config::POLICY_CONTENT].size(), 2u);  // "ghost" has no rule
    EXPECT_TRUE(config.compare_master_actions(&context, "DENY", "LOG"));
    EXPECT_FALSE(config.compare_master_actions(&context, "LOG", "DENY"));
    EXPECT_FALSE(config.compare_master_actions(&context, "LOG", "LOG"));
}

TEST_F(RealStoreTest, SavedLineCarriesTheIdentityToAnotherConfig) {
    EXPECT_EQ(ConnectTimeoutFor("ann@staff.test"), 22u);
    Config other;
    other.restore_state(config.save_state());
    EXPECT_EQ(ReadSetting<VELTCFG::network::ConnectTimeout>(other, Config::POLICY_CONTENT), 22u);
}
