// The rule operator IN, with a real directory server behind it.
#include <gtest/gtest.h>

#include <csignal>
#include <memory>

#include <testing/FakePolicyStore.h>
#include <testing/Slapd.h>
#include <testing/TempRoot.h>
#include <velt/Config.h>
#include <velt/config_details/RuleOperators.h>
#include <velt/ldap/LDAPPrim.h>

namespace {

using namespace VELT;

class GroupRule : public ::testing::Test {
protected:
    GroupRule() {
        std::signal(SIGPIPE, SIG_IGN);
        m_root.Write("/config/qxxmlconf/ldap.txt",
                     "server\nldapserver " + m_slapd.host() +
                         "\nbase dc=example,dc=test\nuserquery (mail=?):departmentNumber\n");
        LDAPPrim::initialise(true, 1);
        Config::initialise(&m_store);
        m_slot.config = &m_config;
    }
    ~GroupRule() override {
        Config::initialise(nullptr);
        for (LDAPServer* const one : LDAPPrim::s_ldap_servers) delete one;
        LDAPPrim::s_ldap_servers.clear();
    }

    // A rule as the engine has it: loaded once, and then asked as often as messages come.
    class Rule {
    public:
        Rule(wchar_t const* subject, wchar_t const* group) : m_subject{subject}, m_group{group} {
            EvalData* prepared = nullptr;
            EXPECT_FALSE(evaluate_rule(m_subject, m_group, m_in, nullptr, prepared));
            m_prepared.reset(prepared);
        }
        bool Holds(Config::PolicyInfo& slot) const {
            EvalData* prepared = m_prepared.get();
            return evaluate_rule(m_subject, m_group, m_in, &slot, prepared);
        }

    private:
        AtomicValue m_subject, m_group, m_in{L"IN"};
        std::unique_ptr<EvalData> m_prepared;
    };

    std::size_t Searches() const { return m_slapd.Noted(" SRCH base="); }
    void Sender(std::string address) { m_config.source.Setup(address); }
    void Recipient(std::string address) { m_config.recipient.Setup(address); }

    velt_testing::TempRoot m_root;
    velt_testing::Slapd m_slapd;
    velt_testing::FakePolicyStore m_store;
    Config m_config;
    Config::PolicyInfo m_slot;
};

TEST_F(GroupRule, HoldsForAMemberAndTheWholeNameOfTheGroup) {
    Recipient("ann@example.test");
    EXPECT_TRUE(Rule(L"eto", L"127.0.0.1.sales").Holds(m_slot));
    EXPECT_TRUE(Rule(L"eto", L"127.0.0.1.staff").Holds(m_slot));
    for (wchar_t const* const other : {L"sales", L"127.0.0.1.Sales", L"127.0.0.1.sale", L"127.0.0.1.sales ", L"*", L""})
        EXPECT_FALSE(Rule(L"eto", other).Holds(m_slot)) << other;
    Recipient("bob@example.test");
    EXPECT_FALSE(Rule(L"eto", L"127.0.0.1.sales").Holds(m_slot));
}

TEST_F(GroupRule, LooksAtItsOwnEndOfTheEnvelope) {
    Sender("ann@example.test");
    Recipient("bob@example.test");
    EXPECT_TRUE(Rule(L"efrom", L"127.0.0.1.sales").Holds(m_slot));
    EXPECT_FALSE(Rule(L"eto", L"127.0.0.1.sales").Holds(m_slot));
}

TEST_F(GroupRule, AsksOncePerAddress) {
    Recipient("ann@example.test");
    Rule const sales(L"eto", L"127.0.0.1.sales"), none(L"eto", L"none");
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(sales.Holds(m_slot));
        EXPECT_FALSE(none.Holds(m_slot));
    }
    EXPECT_EQ(Searches(), 1u);
    Recipient("ann@example.test");
    EXPECT_TRUE(sales.Holds(m_slot));
    EXPECT_EQ(Searches(), 2u);
}

TEST_F(GroupRule, OfAServerThatIsAwayIsFalseAndAsksAgainNextTime) {
    Recipient("ann@example.test");
    Rule const sales(L"eto", L"127.0.0.1.sales");
    m_slapd.Stop();
    EXPECT_FALSE(sales.Holds(m_slot));
    EXPECT_FALSE(m_config.recipient.groupsKnown);
    m_slapd.Start();
    EXPECT_TRUE(sales.Holds(m_slot));
}

TEST_F(GroupRule, WithoutConfigOrPreparedGroupIsFalse) {
    Recipient("ann@example.test");
    Config::PolicyInfo alone;
    EXPECT_FALSE(Rule(L"eto", L"127.0.0.1.sales").Holds(alone));
    EvalData* none = nullptr;
    AtomicValue const subject{L"eto"}, group{L"127.0.0.1.sales"}, in{L"IN"};
    EXPECT_FALSE(evaluate_rule(subject, group, in, &m_slot, none));
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(Searches(), 0u);
}

TEST_F(GroupRule, OfAnEmptyAddressAsksNobody) {
    Recipient("");
    EXPECT_FALSE(Rule(L"eto", L"127.0.0.1.sales").Holds(m_slot));
    EXPECT_TRUE(m_config.recipient.groupsKnown);
    EXPECT_EQ(Searches(), 0u);
}

}  // namespace
