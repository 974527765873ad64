// Config: reads through slots, markings, and the choice of an identity.
#include <QXid/Rules.h>
#include <QXlog/Names.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <testing/EventCapture.h>
#include <testing/FakePolicyStore.h>
#include <testing/TempRoot.h>
#include <velt/Config.h>
#include <velt/config_details/settings/connection.h>
#include <velt/config_details/settings/network.h>
#include <velt/config_details/settings/process.h>
#include <velt/connection/Connection.h>
#include <velt/logging/Events.h>
#include <velt/scanning/EFabricScanAgent.h>

using velt_testing::EventCapture;
using velt_testing::FakePolicyStore;
using velt_testing::FakeValue;
using namespace VELT;

namespace {

// An identity whose rule is a function of the test's.
class RuleOf final : public Identity {
public:
    RuleOf(InternedString name, std::function<bool(Config::PolicyInfo&)> rule) : m_name(name), m_rule(rule) {}
    InternedString const& evaluate(RuleEvaluator, void* data) const override {
        ++evaluations;
        return m_rule(*static_cast<Config::PolicyInfo*>(data)) ? m_name : m_null;
    }
    bool hasExpression() const override { return true; }
    mutable unsigned evaluations = 0;

private:
    InternedString m_name;
    InternedString m_null;
    std::function<bool(Config::PolicyInfo&)> m_rule;
};

class NamedConnection : public Connection {
public:
    void LogConnectionAttributes(KORlog::InfoBag& bag) const override {
        ++logged;
        bag |= QXlog::names::QXPROP_AUDIT_ID("session");
    }
    mutable unsigned logged = 0;
};

bool Always(Config::PolicyInfo&) { return true; }
bool Never(Config::PolicyInfo&) { return false; }

class ConfigTest : public testing::Test {
protected:
    ConfigTest() { Config::initialise(&store); }
    ~ConfigTest() override {
        ClearRules();
        Config::initialise(nullptr);
    }

    static void ClearRules() {
        for (auto& row : Config::s_IdentityExpressions) {
            for (auto& slot : row) slot.clear();
        }
    }
    InternedString Name(char const* text) { return store.internAttribute(text); }
    eFabric::IProductValue const* Get(Config& config, unsigned slot) {
        return config.getProductValue(slot, Name("network"), Name("Timeout"));
    }
    unsigned Timeout(Config& config, unsigned slot = 0) { return ReadSetting<VELTCFG::network::Timeout>(config, slot); }
    static std::vector<bool> Marks(Config const& config) {
        std::vector<bool> marks;
        for (auto const& slot : config.policies) marks.push_back(slot.m_changed);
        return marks;
    }
    std::vector<bool> const allButBase{false, true, true, true, true, true, true, true, true};
    std::vector<bool> const none = std::vector<bool>(9, false);

    velt_testing::TempRoot root;
    FakePolicyStore store;
    EventCapture events;
    Config config;
};

}  // namespace

TEST_F(ConfigTest, StartsWithoutConnectionAndIdentities) {
    EXPECT_EQ(config.connection, nullptr);
    EXPECT_FALSE(config.inbound);
    EXPECT_FALSE(config.restored);
    EXPECT_EQ(config.policies.size(), 9u);
    for (unsigned slot = 0; slot < 9; ++slot) {
        EXPECT_EQ(config.policies[slot].index, slot);
        EXPECT_FALSE(config.policies[slot].identity);
    }
    EXPECT_EQ(Marks(config), none);
    EXPECT_EQ(config.source.getAddress(), "");
    EXPECT_FALSE(config.recipient.groupsKnown);
}

TEST_F(ConfigTest, ReadsUnderThePolicyIdOfItsDirection) {
    char const* const out[] = {"base",      "connection_out", "content_out", "transport_out", "protocol_out",
                               "const_out", "machine_out",    "network_out", "system_out"};
    char const* const in[] = {"base",     "connection_in", "content_in", "transport_in", "protocol_in",
                              "const_in", "machine_in",    "network_in", "system_in"};
    for (unsigned slot = 0; slot < 9; ++slot) {
        config.inbound = false;
        Get(config, slot);
        EXPECT_STREQ(store.lastPolicy.c_str(), out[slot]);
        config.inbound = true;
        Get(config, slot);
        EXPECT_STREQ(store.lastPolicy.c_str(), in[slot]);
        EXPECT_EQ(store.lastStatus, 0);
    }
    EXPECT_EQ(config.getProductValue(9, Name("network"), Name("Timeout")), nullptr);
}

TEST_F(ConfigTest, GivesTheDefaultForWhatIsAbsentOrUnusable) {
    EXPECT_EQ(Timeout(config), 60u);
    store.Put("base", "network", "Timeout", FakeValue::Unreadable());
    EXPECT_EQ(Timeout(config), 60u);
    EXPECT_EQ(ReadSetting<VELTCFG::process::UserId>(config).str(), "uucp");
    EXPECT_TRUE(ReadSetting<VELTCFG::process::MonitorHealth>(config));
    EXPECT_EQ(ReadSetting<VELTCFG::process::ProxyIdleTimeout>(config), 900);
    EXPECT_EQ(ReadSetting<VELTCFG::network::BindPorts>(config).size(), 0u);
}

TEST_F(ConfigTest, ClampsWhatItReads) {
    store.Put("base", "network", "Timeout", FakeValue::Unsigned(5000));
    store.Put("base", "process", "IdleTimeout", FakeValue::Int(-3));
    EXPECT_EQ(Timeout(config), 3600u);
    EXPECT_EQ(ReadSetting<VELTCFG::process::IdleTimeout>(config), 1);
}

TEST_F(ConfigTest, SeesAChangeOfTheStoreAtTheNextRead) {
    store.Put("base", "network", "Timeout", FakeValue::Unsigned(10));
    EXPECT_EQ(Timeout(config), 10u);
    store.Put("base", "network", "Timeout", FakeValue::Unsigned(20));
    EXPECT_EQ(Timeout(config), 20u);
    EXPECT_EQ(store.reads, 2u);
}

// A store that says "no answer" and gives one anyway has given one.
TEST_F(ConfigTest, NeverLooksAtTheStatusOfARead) {
    store.Put("base", "network", "Timeout", FakeValue::Unsigned(10));
    for (int answer : {0, 1, -1}) {
        store.statusAnswer = answer;
        EXPECT_EQ(Timeout(config), 10u);
        EXPECT_EQ(store.lastStatus, 0);
        EXPECT_EQ(ReadSetting<VELTCFG::network::ConnectTimeout>(config), 30u);
    }
}

TEST_F(ConfigTest, ReadsForTheTimeOfTheScanAgent) {
    auto const expectNow = [&](auto&& read) {
        std::time_t const before = EFabricScanAgent::get_time();
        store.lastTime = 0;
        read();
        EXPECT_GE(store.lastTime, before);
        EXPECT_LE(store.lastTime, EFabricScanAgent::get_time());
    };
    expectNow([&] { Get(config, 0); });
    expectNow([&] { config.policies[2].get(&config, 2, Name("network"), Name("Timeout")); });
}

TEST_F(ConfigTest, ReadsTheLimitOfHostsThroughTheProtocolSlot) {
    store.Put("base", "connection", "MaxHosts", FakeValue::Unsigned(1));
    store.Put("protocol_out", "connection", "MaxHosts", FakeValue::Unsigned(7));
    EXPECT_EQ(ReadSetting<VELTCFG::connection::MaxHosts>(config), 7u);
}

TEST_F(ConfigTest, GivesOnlyDefaultsWithoutAStore) {
    Config::initialise(nullptr);
    EXPECT_EQ(Config::getPolicyLoader(), nullptr);
    EXPECT_EQ(ReadSetting<VELTCFG::network::AcceptCount>(config), 1u);
    EXPECT_EQ(config.policies[2].get(&config, 0, {}, {}), nullptr);

    Config::initialise(&store);  // the names were not remembered as null
    store.Put("base", "network", "AcceptCount", FakeValue::Unsigned(3));
    EXPECT_EQ(ReadSetting<VELTCFG::network::AcceptCount>(config), 3u);
}

TEST_F(ConfigTest, EveryMarkingLeavesTheBaseSlotAlone) {
    auto const expectMarks = [&](auto&& mark) {
        for (auto& slot : config.policies) slot.m_changed = false;
        mark();
        EXPECT_EQ(Marks(config), allButBase);
    };
    std::string const key = "key";
    std::string const value = "value";
    Config parent;
    expectMarks([&] { config.allchange(); });
    expectMarks([&] { config.set(true, nullptr, &parent); });
    expectMarks([&] { config.set(key, value); });
    expectMarks([&] { config.set("key", value); });
    expectMarks([&] { config.remove(key); });
    expectMarks([&] { config.remove("key"); });
    expectMarks([&] { config.set_source_mail_address("a@example.test"); });
    expectMarks([&] { config.set_recipient_mail_address("b@example.test"); });
    EXPECT_EQ(config.source.getAddress(), "a@example.test");
    EXPECT_EQ(config.recipient.getAddress(), "b@example.test");
}

TEST_F(ConfigTest, NullKeyThrows) {
    char const* const key = nullptr;
    EXPECT_THROW(config.set(key, std::string("value")), std::logic_error);
    EXPECT_THROW(config.remove(key), std::logic_error);
    EXPECT_EQ(Marks(config), none);
}

TEST_F(ConfigTest, RemovalOfAnyKeyEvaluatesTheIdentitiesAgainAndChangesNoValue) {
    events.Allow(events::IDENTITY_SELECTED);
    store.Put("base", "network", "Timeout", FakeValue::Unsigned(10));
    for (unsigned slot = 1; slot < 9; ++slot) {
        RuleOf const rule(Name("staff"), Always);
        Config::s_IdentityExpressions[0][slot] = {&rule};
        config.policies[slot].m_changed = false;
        Get(config, slot);
        EXPECT_EQ(rule.evaluations, 0u);
        config.remove("network");
        EXPECT_EQ(rule.evaluations, 0u);  // nothing happens at the marking
        Get(config, slot);
        Get(config, slot);
        EXPECT_EQ(rule.evaluations, 1u);
        EXPECT_EQ(store.lastIdentity, Name("staff"));
        EXPECT_EQ(Timeout(config), 10u);
        Config::s_IdentityExpressions[0][slot].clear();
    }
}

TEST_F(ConfigTest, BeginsASessionWithTheIdentitiesOfItsParent) {
    Config parent;
    for (unsigned slot = 0; slot < 9; ++slot) parent.policies[slot].identity = Name("staff");
    NamedConnection session;
    config.set(true, &session, &parent);
    EXPECT_TRUE(config.inbound);
    EXPECT_EQ(config.connection, &session);
    EXPECT_FALSE(config.policies[0].identity);
    for (unsigned slot = 1; slot < 9; ++slot) EXPECT_EQ(config.policies[slot].identity, Name("staff"));
    EXPECT_EQ(Marks(config), allButBase);
}

TEST_F(ConfigTest, TakesAnIdentityOverAsWorkedOut) {
    Config::PolicyInfo from;
    from.identity = Name("staff");
    Config::PolicyInfo to;
    to.set(5u);
    to.changed();
    to.set(&from);
    EXPECT_EQ(to.identity, Name("staff"));
    EXPECT_FALSE(to.m_changed);
    EXPECT_EQ(to.index, 5u);
}

TEST_F(ConfigTest, CopyOwnsItsSlots) {
    events.Allow(events::IDENTITY_SELECTED);
    config.allchange();
    config.policies[2].policy(&config);
    config.set_source_mail_address("a@example.test");
    Config const constructed(config);
    Config assigned;
    assigned = config;
    assigned = *&assigned;
    for (Config const* copy : {&constructed, static_cast<Config const*>(&assigned)}) {
        EXPECT_EQ(copy->policies[2].config, copy);
        EXPECT_EQ(copy->policies[3].config, nullptr);
        EXPECT_EQ(copy->policies[3].index, 3u);
        EXPECT_EQ(copy->source.getAddress(), "a@example.test");
        EXPECT_EQ(Marks(*copy), allButBase);
    }
}

TEST_F(ConfigTest, NewAddressForgetsTheGroupsOfTheOld) {
    ConfigEmailAddress address;
    address.groups = {"board"};
    address.groupsKnown = true;
    std::string text = "b@example.test";
    address.Setup(text);
    EXPECT_FALSE(address.groupsKnown);
    EXPECT_TRUE(address.groups.empty());
    EXPECT_EQ(address.getAddress(), "b@example.test");
}

// ---- the choice of an identity

TEST_F(ConfigTest, SelectsTheFirstIdentityWhoseRuleHolds) {
    events.Expect(events::IDENTITY_SELECTED);
    RuleOf const never(Name("never"), Never);
    RuleOf const first(Name("first"), Always);
    RuleOf const second(Name("second"), Always);
    Config::s_IdentityExpressions[1][2] = {&never, &first, &second};
    config.inbound = true;
    config.allchange();
    EXPECT_EQ(config.policies[2].policy(&config), Name("first"));
    EXPECT_EQ(never.evaluations, 1u);
    EXPECT_EQ(second.evaluations, 0u);
    EXPECT_EQ(config.policies[2].config, &config);
}

TEST_F(ConfigTest, SelectsNoneWhenNoRuleHolds) {
    events.Expect(events::IDENTITY_SELECTED);
    RuleOf const never(Name("never"), Never);
    Config::s_IdentityExpressions[0][3] = {&never};
    config.policies[3].identity = Name("old");
    config.policies[3].changed();
    EXPECT_FALSE(config.policies[3].policy(&config));
}

TEST_F(ConfigTest, BaseSlotResolvesToNoIdentity) {
    events.Expect(events::IDENTITY_SELECTED);
    config.policies[0].identity = Name("staff");
    config.policies[0].resolve(&config);
    EXPECT_FALSE(config.policies[0].identity);
}

TEST_F(ConfigTest, KeepsAnIdentityUntilTheNextMarking) {
    events.Expect(events::IDENTITY_SELECTED, 2);
    bool holds = true;
    RuleOf const rule(Name("staff"), [&](Config::PolicyInfo&) { return holds; });
    Config::s_IdentityExpressions[0][2] = {&rule};
    config.allchange();
    EXPECT_TRUE(config.policies[2].policy(&config));
    holds = false;
    EXPECT_TRUE(config.policies[2].policy(&config));
    config.set_recipient_mail_address("x@example.test");
    EXPECT_FALSE(config.policies[2].policy(&config));
}

TEST_F(ConfigTest, ReadsWithTheIdentityOfASlotUnderAnotherPolicy) {
    events.Expect(events::IDENTITY_SELECTED);
    RuleOf const rule(Name("staff"), Always);
    Config::s_IdentityExpressions[0][2] = {&rule};
    store.Put("transport_out", "network", "Timeout", FakeValue::Unsigned(9), "staff");
    config.allchange();
    auto const* const value = config.policies[2].get(&config, 3, Name("network"), Name("Timeout"));
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(store.lastPolicy.c_str(), "transport_out");
    EXPECT_EQ(store.lastIdentity, Name("staff"));
    EXPECT_EQ(config.policies[2].get(&config, 9, Name("network"), Name("Timeout")), nullptr);
}

TEST_F(ConfigTest, RestoredSlotClearsItsMarkAndEvaluatesNothing) {
    RuleOf const rule(Name("staff"), Always);
    Config::s_IdentityExpressions[0][2] = {&rule};
    config.restore_state("0         ");
    config.allchange();
    EXPECT_FALSE(config.policies[2].policy(&config));
    EXPECT_EQ(rule.evaluations, 0u);
    EXPECT_FALSE(config.policies[2].m_changed);
    EXPECT_TRUE(events.Events().empty());
    Config parent;
    config.set(false, nullptr, &parent);  // does not end it
    EXPECT_FALSE(config.policies[2].policy(&config));
    EXPECT_EQ(rule.evaluations, 0u);
}

TEST_F(ConfigTest, ReportsASelectionOfTheProcessByPolicyAndIdentity) {
    events.Expect(events::IDENTITY_SELECTED);
    RuleOf const rule(Name("staff"), Always);
    Config::s_IdentityExpressions[0][8] = {&rule};
    config.policies[8].resolve(&config);
    EXPECT_EQ(velt_testing::Describe(events.Bag(events::IDENTITY_SELECTED)),
              "application_configuration_items=system_out audit_id=initialization selected_identity=staff");
}

TEST_F(ConfigTest, ReportsASelectionOfASessionByItsAttributes) {
    events.Expect(events::IDENTITY_SELECTED);
    NamedConnection session;
    config.connection = &session;
    config.policies[2].resolve(&config);
    EXPECT_EQ(velt_testing::Describe(events.Bag(events::IDENTITY_SELECTED)), "connection={audit_id=session}");
}

// A session that names itself by a setting of the slot under evaluation.
class SelfReadingConnection : public Connection {
public:
    void LogConnectionAttributes(KORlog::InfoBag& bag) const override {
        ++logged;
        bag |= QXlog::names::QXPROP_AUDIT_ID(
            std::to_string(ReadSetting<VELTCFG::network::Timeout>(*config, Config::POLICY_CONTENT)));
    }
    Config* config = nullptr;
    mutable unsigned logged = 0;
};

TEST_F(ConfigTest, SessionMayReadThroughTheSlotThatIsReported) {
    events.Expect(events::IDENTITY_SELECTED);
    RuleOf const rule(Name("staff"), Always);
    Config::s_IdentityExpressions[0][2] = {&rule};
    store.Put("content_out", "network", "Timeout", FakeValue::Unsigned(7), "staff");
    SelfReadingConnection session;
    session.config = &config;
    config.set(false, &session, &config);
    EXPECT_EQ(Timeout(config, 2), 7u);
    EXPECT_EQ(velt_testing::Describe(events.Bag(events::IDENTITY_SELECTED)), "connection={audit_id=7}");
    EXPECT_EQ(session.logged, 1u);
    EXPECT_EQ(rule.evaluations, 1u);
}

TEST_F(ConfigTest, RuleThatThrowsLeavesTheMark) {
    RuleOf const rule(Name("staff"), [](Config::PolicyInfo&) -> bool { throw std::runtime_error("rule"); });
    Config::s_IdentityExpressions[0][2] = {&rule};
    config.allchange();
    EXPECT_THROW(config.policies[2].policy(&config), std::runtime_error);
    EXPECT_TRUE(config.policies[2].m_changed);
}

TEST_F(ConfigTest, LooksNothingUpForASelectionThatIsNotReported) {
    NamedConnection session;
    config.connection = &session;
    events::IDENTITY_SELECTED.enable(false);
    config.policies[2].resolve(&config);
    events::IDENTITY_SELECTED.enable(true);
    EXPECT_EQ(session.logged, 0u);
}

TEST_F(ConfigTest, SlotWithoutOwnerHasNoFacts) {
    Config::PolicyInfo slot;
    EXPECT_EQ(slot.get_recipient_mail(), nullptr);
    EXPECT_EQ(slot.get_source_mail(), nullptr);
    EXPECT_EQ(slot.get_connection(), nullptr);
    EXPECT_STREQ(slot.get_client_host(), "");
    EXPECT_STREQ(slot.get_server_host(), "");
    EXPECT_EQ(slot.get_client_address(), nullptr);
    EXPECT_EQ(slot.get_server_address(), nullptr);
}

TEST_F(ConfigTest, SlotOfASessionKnowsBothEnds) {
    NamedConnection session;
    session.getSourceConnection().m_host = "client.example.test";
    session.getServerConnection().m_host = "server.example.test";
    Config::PolicyInfo slot;
    slot.config = &config;
    EXPECT_EQ(slot.get_client_address(), nullptr);
    config.connection = &session;
    EXPECT_STREQ(slot.get_client_host(), "client.example.test");
    EXPECT_STREQ(slot.get_server_host(), "server.example.test");
    EXPECT_EQ(slot.get_client_address(), session.getSourceConnection().get_address());
    EXPECT_EQ(slot.get_server_address(), session.getServerConnection().get_address());
    EXPECT_EQ(slot.get_source_mail(), &config.source);
    EXPECT_EQ(slot.get_recipient_mail(), &config.recipient);
}
