// The operators of identity rules, the tables of identities, and what a scan is run with.
#include <QXid/Rules.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <testing/EventCapture.h>
#include <testing/FakePolicyStore.h>
#include <testing/TempRoot.h>
#include <velt/Config.h>
#include <velt/config_details/RuleOperators.h>
#include <velt/config_details/ScanPolicy.h>
#include <velt/connection/Connection.h>
#include <velt/logging/Events.h>
#include <velt/scanning/ScanContext.h>

using velt_testing::EventCapture;
using velt_testing::FakePolicyStore;
using namespace VELT;

namespace {

void Place(TCPConnection& end, char const* address, char const* host) {
    end.m_address.sin_family = AF_INET;
    inet_pton(AF_INET, address, &end.m_address.sin_addr);
    end.m_host = host;
}

class IdentityTest : public testing::Test {
protected:
    IdentityTest() {
        events.Allow(events::IDENTITY_SELECTED);
        Place(session.getSourceConnection(), "10.1.2.3", "mail.example");
        Place(session.getServerConnection(), "192.0.2.7", "inner.example");
    }
    ~IdentityTest() override { Config::initialise(nullptr); }

    void Rules(std::string const& identities) {
        root.Write("/config/qxxmlconf/identities.xml", "<identities version=\"1\">" + identities + "</identities>");
        Config::initialise(&store);
        config.set(true, &session, &parent);
    }
    // The rule as the rule engine works with it: once to load it, then for this session.
    bool Holds(wchar_t const* subject, wchar_t const* op, wchar_t const* value) {
        Config::initialise(&store);
        config.set(true, &session, &parent);
        Config::PolicyInfo slot;
        slot.config = &config;
        EvalData* prepared = nullptr;
        AtomicValue const s{subject}, o{op}, v{value};
        EXPECT_FALSE(evaluate_rule(s, v, o, nullptr, prepared));
        std::unique_ptr<EvalData> const owned(prepared);
        return evaluate_rule(s, v, o, &slot, prepared);
    }
    std::string Selected(unsigned slot = Config::POLICY_CONTENT) {
        InternedString const name = config.policies[slot].policy(&config);
        return name ? name.c_str() : "(none)";
    }
    static std::vector<std::string> Texts(std::vector<InternedString> const& names) {
        std::vector<std::string> texts;
        for (InternedString const& name : names) texts.push_back(name ? name.c_str() : "(none)");
        return texts;
    }
    using List = std::vector<std::string>;
    InternedString Name(char const* text) { return store.internAttribute(text); }

    velt_testing::TempRoot root;
    FakePolicyStore store;
    EventCapture events;
    Connection session;
    Config parent;
    Config config;
};

std::string const kStaff = "<identity name=\"staff\">eto IS \"*@staff.test\"</identity>";
std::string const kBoard = "<identity name=\"board\">eto IS \"boss@*\"</identity>";

}  // namespace

// ---- operators

TEST_F(IdentityTest, UnknownSubjectOrOperatorIsFalse) {
    EXPECT_FALSE(Holds(L"CON", L"FROM", L"10.1.2.3"));
    EXPECT_FALSE(Holds(L"", L"FROM", L"10.1.2.3"));
    EXPECT_FALSE(Holds(L"con", L"from", L"10.1.2.3"));
    EXPECT_FALSE(Holds(L"con", L"IS", L"10.1.2.3"));
    EXPECT_FALSE(Holds(L"efrom", L"FROM", L"*"));
    EXPECT_FALSE(Holds(L"efrom", L"IN", L"*"));
    EXPECT_FALSE(Holds(L"eto", L"IN", L"*"));
    EXPECT_FALSE(Holds(L"eto", L"", L"*"));
    EXPECT_FALSE(Holds(L"eto", L"TO", L"inner.*"));
    EXPECT_TRUE(events.Events().empty());
}

TEST_F(IdentityTest, RuleOfAnUnknownSubjectOrOperatorLoadsAndNeverHolds) {
    store.PutIdentities("content_in", {"board", "staff", "guests"});
    Rules(
        "<identity name=\"board\">who IS \"*\"</identity><identity name=\"staff\">eto LIKE \"*\"</identity>"
        "<identity name=\"guests\">not who IS \"*\"</identity>");
    EXPECT_EQ(Selected(), "guests");
}

TEST_F(IdentityTest, ConnectionRulesAskTheirOwnEnd) {
    EXPECT_TRUE(Holds(L"con", L"FROM", L"10.1.2.3"));
    EXPECT_TRUE(Holds(L"con", L"FROM", L"10.0.0.0/8"));
    EXPECT_FALSE(Holds(L"con", L"FROM", L"192.0.2.7"));
    EXPECT_TRUE(Holds(L"con", L"TO", L"192.0.2.7"));
    EXPECT_FALSE(Holds(L"con", L"TO", L"10.1.2.3"));
    EXPECT_TRUE(Holds(L"con", L"FROM", L"mail.example"));
    EXPECT_TRUE(Holds(L"con", L"TO", L"inner.*"));
    EXPECT_FALSE(Holds(L"con", L"TO", L"mail.example"));
}

TEST_F(IdentityTest, FirstCharacterChoosesBetweenAddressAndHost) {
    session.getSourceConnection().m_host = "1mail.example";
    EXPECT_FALSE(Holds(L"con", L"FROM", L"1mail.example"));  // taken for an address
    EXPECT_TRUE(Holds(L"con", L"FROM", L"*mail.example"));
    session.getSourceConnection().m_host = "10.1.2.3";
    Place(session.getSourceConnection(), "10.9.9.9", "10.1.2.3");
    EXPECT_FALSE(Holds(L"con", L"FROM", L"10.1.2.3"));
}

TEST_F(IdentityTest, EveryDigitAtTheFrontMakesAnAddress) {
    for (wchar_t digit = L'0'; digit <= L'9'; ++digit) {
        std::wstring const value = digit + std::wstring(L".example");
        session.getSourceConnection().m_host = std::string(value.begin(), value.end());
        EXPECT_FALSE(Holds(L"con", L"FROM", value.c_str())) << static_cast<char>(digit);
    }
    for (wchar_t const other : {L'/', L':', L'a'}) {  // beside the digits
        std::wstring const value = other + std::wstring(L".example");
        session.getSourceConnection().m_host = std::string(value.begin(), value.end());
        EXPECT_TRUE(Holds(L"con", L"FROM", value.c_str())) << static_cast<char>(other);
    }
}

// The network is compared as written, so no client is in one with bits behind its mask.
TEST_F(IdentityTest, NetworkWithBitsBehindItsMaskHoldsNobody) {
    EXPECT_TRUE(Holds(L"con", L"FROM", L"10.0.0.0/8"));
    EXPECT_FALSE(Holds(L"con", L"FROM", L"10.1.2.3/8"));
    EXPECT_TRUE(Holds(L"con", L"FROM", L"10.1.2.3/32"));
    EXPECT_TRUE(Holds(L"con", L"TO", L"192.0.2.0/24"));
    EXPECT_FALSE(Holds(L"con", L"TO", L"192.0.2.7/24"));
}

// Each wide character gives its low byte, and so may turn into another one.
TEST_F(IdentityTest, WideTextIsCutToOneByteEach) {
    EXPECT_TRUE(Holds(L"con", L"FROM", L"\x131\x230.\x331.2.3"));  // 10.1.2.3, an address by its first byte
    EXPECT_TRUE(Holds(L"con", L"FROM", L"\x16D\x161il.example"));
    EXPECT_TRUE(Holds(L"con", L"TO", L"\x1F569nner.\x12A"));  // the wildcard too
    config.set_source_mail_address("caf\xE9@sender.test");
    config.set_recipient_mail_address("ann@staff.test");
    EXPECT_TRUE(Holds(L"eto", L"IS", L"\x161nn@\x12A"));
    EXPECT_TRUE(Holds(L"efrom", L"IS", L"caf\xE9@sender.test"));
    EXPECT_FALSE(Holds(L"eto", L"IS", L"\x162nn@*"));
}

TEST_F(IdentityTest, WideTextOfTheFileIsCutToo) {
    store.PutIdentities("content_in", {"staff"});
    Rules("<identity name=\"staff\">efrom IS \"caf\xC3\xA9@*\" and eto IS \"\xC5\xA1nn@*\"</identity>");
    config.set_source_mail_address("caf\xE9@sender.test");
    config.set_recipient_mail_address("ann@staff.test");
    EXPECT_EQ(Selected(), "staff");
    config.set_source_mail_address("caf\xC3\xA9@sender.test");
    EXPECT_EQ(Selected(), "(none)");
}

// An expression that explodes on an address holds for no such address, and nobody is told.
TEST_F(IdentityTest, RuleThatExplodesOnAnAddressDoesNotHoldForIt) {
    store.PutIdentities("content_in", {"board", "staff"});
    Rules(
        "<identity name=\"board\">eto IS \"regex:(a+)+$\"</identity><identity name=\"staff\">not eto IS "
        "\"regex:(a+)+$\"</identity>");
    config.set_recipient_mail_address(std::string(4000, 'a') + "@b");
    EXPECT_EQ(Selected(), "staff");
    config.set_recipient_mail_address("aaa");
    EXPECT_EQ(Selected(), "board");
}

TEST_F(IdentityTest, GroupIsComparedWholeByteByByteInTheOrderOfTheDirectory) {
    using Groups = std::vector<std::string>;
    auto const in = [&](Groups const& groups, wchar_t const* group) {
        config.set_recipient_mail_address("ann@staff.test");
        config.recipient.groups = groups;
        config.recipient.groupsKnown = true;
        return Holds(L"eto", L"IN", group);
    };
    EXPECT_TRUE(in({"dir.Board"}, L"dir.Board"));
    EXPECT_TRUE(in({"dir.Staff", "dir.Board", "dir.Guests"}, L"dir.Board"));
    EXPECT_TRUE(in({"dir.Staff", "dir.Board"}, L"dir.Staff"));
    for (wchar_t const* const other : {L"dir.board", L"Board", L"dir.Boar", L"dir.Board ", L"dir.*", L"", L"regex:.*"})
        EXPECT_FALSE(in({"dir.Staff", "dir.Board"}, other)) << other;
    EXPECT_FALSE(in({}, L""));
    EXPECT_TRUE(in({""}, L""));
    EXPECT_TRUE(in({"dir.\xC3\x9C"}, L"dir.\xDC"));  // this text is not cut
    EXPECT_FALSE(in({"dir.\xDC"}, L"dir.\xDC"));
    EXPECT_TRUE(in({std::string("dir.Board\0s", 11)}, L"dir.Board"));  // texts end at a NUL
}

TEST_F(IdentityTest, GroupsAskForTheirOwnEndOfTheEnvelope) {
    config.source.groups = {"dir.Board"};
    config.source.groupsKnown = config.recipient.groupsKnown = true;
    EXPECT_TRUE(Holds(L"efrom", L"IN", L"dir.Board"));
    EXPECT_FALSE(Holds(L"eto", L"IN", L"dir.Board"));
}

TEST_F(IdentityTest, ConnectionRulesAreFalseWithoutAConnection) {
    Config::initialise(&store);
    Config::PolicyInfo slot;
    EvalData* prepared = nullptr;
    AtomicValue const con{L"con"}, from{L"FROM"}, to{L"TO"};
    for (wchar_t const* value : {L"10.1.2.3", L"0.0.0.0/0", L"mail.example"}) {
        EXPECT_FALSE(evaluate_rule(con, AtomicValue{value}, from, &slot, prepared)) << value;
        EXPECT_FALSE(evaluate_rule(con, AtomicValue{value}, to, &slot, prepared)) << value;
        EXPECT_FALSE(evaluate_rule(con, AtomicValue{value}, from, nullptr, prepared)) << value;
    }
    EXPECT_EQ(prepared, nullptr);
}

TEST_F(IdentityTest, MailRulesAskTheirOwnAddress) {
    config.set_source_mail_address("Joe@Sender.test");
    config.set_recipient_mail_address("ann@staff.test");
    EXPECT_TRUE(Holds(L"efrom", L"IS", L"joe@*"));
    EXPECT_FALSE(Holds(L"eto", L"IS", L"joe@*"));
    EXPECT_TRUE(Holds(L"eto", L"IS", L"*@STAFF.test"));
    EXPECT_FALSE(Holds(L"eto", L"IS", L"ann"));  // the whole address
    EXPECT_TRUE(Holds(L"eto", L"IS", L"regex:a.n@.*"));
    EXPECT_FALSE(Holds(L"eto", L"IS", L"regex:a.n"));
}

TEST_F(IdentityTest, MailRuleIsPreparedOnceAndOnlyWhileLoading) {
    Config::initialise(&store);
    AtomicValue const eto{L"eto"}, is{L"IS"}, all{L"*"};
    Config::PolicyInfo slot;
    slot.config = &config;
    EvalData* prepared = nullptr;
    EXPECT_FALSE(evaluate_rule(eto, all, is, &slot, prepared));  // never loaded
    EXPECT_EQ(prepared, nullptr);
    EXPECT_FALSE(evaluate_rule(eto, all, is, nullptr, prepared));
    std::unique_ptr<EvalData> const owned(prepared);
    ASSERT_NE(prepared, nullptr);
    EXPECT_FALSE(evaluate_rule(eto, all, is, nullptr, prepared));
    EXPECT_EQ(prepared, owned.get());
    EXPECT_TRUE(evaluate_rule(eto, all, is, &slot, prepared));
    Config::PolicyInfo ownerless;
    EXPECT_FALSE(evaluate_rule(eto, all, is, &ownerless, prepared));
}

TEST_F(IdentityTest, BadExpressionStopsTheStart) {
    store.PutIdentities("content_in", {"staff"});
    EXPECT_ANY_THROW(Rules("<identity name=\"staff\">eto IS \"regex:(\"</identity>"));
}

// ---- the tables

TEST_F(IdentityTest, OrderOfTheStoreIsTheOrderOfPriority) {
    store.PutIdentities("content_in", {"board", "staff"});
    Rules(kStaff + kBoard);
    config.set_recipient_mail_address("boss@staff.test");
    EXPECT_EQ(Selected(), "board");
    config.set_recipient_mail_address("ann@staff.test");
    EXPECT_EQ(Selected(), "staff");
    config.set_recipient_mail_address("ann@else.test");
    EXPECT_EQ(Selected(), "(none)");
    EXPECT_EQ(Config::find_identity_priority(1, 2, Name("board")), 0);
    EXPECT_EQ(Config::find_identity_priority(1, 2, Name("staff")), 1);
    EXPECT_EQ(Config::find_identity_priority(0, 2, Name("staff")), -1);
    EXPECT_EQ(Config::find_identity_priority(1, 2, Name("nobody")), -1);
    EXPECT_EQ(Config::find_identity(1, 2, "staff"), Name("staff"));
    for (char const* const other : {"Staff", "staf", "staffs", "st", "", "*"})
        EXPECT_FALSE(Config::find_identity(1, 2, other)) << other;
    EXPECT_FALSE(Config::find_identity(0, 2, "staff"));
    EXPECT_FALSE(Config::find_identity(1, 3, "staff"));
}

TEST_F(IdentityTest, NameWithoutAnExpressionIsDropped) {
    store.PutIdentities("content_in", {"ghost", "board", "spirit", "staff"});
    Rules(kStaff + kBoard);
    EXPECT_EQ(Texts(Config::s_Identities[1][2]), (List{"board", "staff"}));
    EXPECT_EQ(Config::s_IdentityExpressions[1][2].size(), 2u);
    config.set_recipient_mail_address("ann@staff.test");
    EXPECT_EQ(Selected(), "staff");
}

TEST_F(IdentityTest, BaseSlotHasNoIdentitiesWhateverTheStoreSays) {
    store.PutIdentities("base", {"staff"});
    Rules("<identity name=\"staff\">eto IS \"*\"</identity>");
    EXPECT_TRUE(Config::s_Identities[0][0].empty());
    EXPECT_TRUE(Config::s_Identities[1][0].empty());
    config.policies[0].resolve(&config);
    EXPECT_EQ(Selected(0), "(none)");
}

TEST_F(IdentityTest, MissingRuleFileLeavesNoIdentities) {
    store.PutIdentities("content_in", {"staff"});
    Config::initialise(&store);
    EXPECT_TRUE(Config::s_Identities[1][2].empty());
}

TEST_F(IdentityTest, RulesSeeTheSession) {
    store.PutIdentities("network_in", {"inner"});
    store.PutIdentities("network_out", {"outer"});
    Rules(
        "<identity name=\"inner\">con FROM \"10.0.0.0/8\" and con TO \"inner.*\"</identity>"
        "<identity name=\"outer\">con FROM \"*.other\" or con TO \"192.0.2.7\"</identity>");
    EXPECT_EQ(Selected(Config::POLICY_NETWORK), "inner");
    config.set(false, &session, &parent);
    EXPECT_EQ(Selected(Config::POLICY_NETWORK), "outer");
}

// ---- what a scan is run with

TEST_F(IdentityTest, ScanPolicySetsExactlyTheIdentityOfTheContentSlot) {
    store.PutIdentities("content_in", {"staff"});
    Rules(kStaff);
    config.set_recipient_mail_address("ann@staff.test");
    ScanContext context;
    context.identities = {Name("old"), Name("older")};
    config.set_scan_policy(&context);
    EXPECT_STREQ(context.policy.c_str(), "content_in");
    EXPECT_EQ(Texts(context.identities), (List{"staff"}));
}

TEST_F(IdentityTest, ScanIdentityCollectsTheIdentitiesOfRecipientsOnce) {
    store.PutIdentities("content_in", {"board", "staff"});
    Rules(kStaff + kBoard);
    ScanContext context;
    int priority = 99;
    InternedString identity;
    auto const add = [&](char const* recipient) {
        config.set_recipient_mail_address(recipient);
        config.set_scan_identity(&context, priority, identity);
    };
    add("ann@staff.test");
    EXPECT_EQ(priority, 1);
    EXPECT_EQ(identity, Name("staff"));
    add("bob@staff.test");
    EXPECT_EQ(Texts(context.identities), (List{"staff"}));
    add("boss@else.test");
    EXPECT_EQ(priority, 0);
    add("guest@else.test");
    EXPECT_EQ(priority, -1);
    EXPECT_FALSE(identity);
    add("guest2@else.test");
    EXPECT_EQ(Texts(context.identities), (List{"staff", "board", "(none)"}));
    EXPECT_STREQ(context.policy.c_str(), "content_in");
}

TEST_F(IdentityTest, ForcedScanIdentityIsTheOnlyOne) {
    ScanContext context;
    context.identities = {Name("staff"), Name("board")};
    config.force_scan_identity(&context, context.identities[1]);
    EXPECT_EQ(Texts(context.identities), (List{"board"}));
}

TEST_F(IdentityTest, HighestScanIdentityIsTheFirstOfTheLowestPriority) {
    store.PutIdentities("content_in", {"board", "staff"});
    Rules(kStaff + kBoard);
    ScanContext context;
    int priority = 0;
    InternedString identity;
    auto const highestOf = [&](std::vector<InternedString> identities) {
        context.identities = identities;
        config.set_scan_highest_identity(&context, priority, identity);
        return Texts(context.identities);
    };
    EXPECT_EQ(highestOf({Name("staff"), Name("board")}), (List{"board"}));
    EXPECT_EQ(priority, 0);
    EXPECT_EQ(identity, Name("board"));
    EXPECT_EQ(highestOf({Name("staff"), Name("staff")}), (List{"staff"}));
    EXPECT_EQ(priority, 1);
    EXPECT_EQ(highestOf({Name("board"), Name("nobody"), Name("noone")}), (List{"nobody"}));  // unknown beats known
    EXPECT_EQ(priority, -1);
}

TEST_F(IdentityTest, HighestScanIdentityOfNoneTouchesNothing) {
    ScanContext context;
    int priority = 42;
    InternedString identity = Name("kept");
    config.set_scan_highest_identity(&context, priority, identity);
    EXPECT_EQ(priority, 42);
    EXPECT_EQ(identity, Name("kept"));
    EXPECT_TRUE(context.identities.empty());
}

TEST_F(IdentityTest, MasterActionsCompareTrueForTheAnswerTwoAlone) {
    Config::initialise(&store);
    ScanContext context;
    context.policy = Name("content_out");
    for (int answer = -3; answer <= 5; ++answer) {
        store.actionsAnswer = answer;
        EXPECT_EQ(config.compare_master_actions(&context, "DENY", "LOG"), answer == 2) << answer;
    }
    EXPECT_STREQ(store.lastPolicy.c_str(), "content_out");
    EXPECT_EQ(store.lastActions, std::make_pair(std::string("DENY"), std::string("LOG")));
    Config::initialise(nullptr);
    EXPECT_FALSE(config.compare_master_actions(&context, "DENY", "LOG"));
}

// ---- one line of state

TEST_F(IdentityTest, NineNullIdentitiesAreSavedAsNineBlanks) {
    EXPECT_EQ(Config().save_state(), "0         ");
    Config inbound;
    inbound.inbound = true;
    EXPECT_EQ(inbound.save_state(), "1         ");
}

TEST_F(IdentityTest, SavingResolvesNothing) {
    store.PutIdentities("content_in", {"staff"});
    Rules("<identity name=\"staff\">con FROM \"10.0.0.0/8\"</identity>");
    EXPECT_EQ(config.save_state(), "1         ");
    EXPECT_EQ(Selected(), "staff");
    EXPECT_EQ(config.save_state(), "1   staff      ");
}

TEST_F(IdentityTest, StateComesBackInAnotherConfig) {
    for (char const* policy : {"connection_in", "content_in", "system_in"}) store.PutIdentities(policy, {"staff"});
    Rules("<identity name=\"staff\">con FROM \"10.0.0.0/8\"</identity>");
    for (unsigned slot = 1; slot < 9; ++slot) Selected(slot);
    std::string const line = config.save_state();
    EXPECT_EQ(line, "1  staff staff      staff");
    Config restored;
    restored.restore_state(line);
    EXPECT_TRUE(restored.inbound);
    EXPECT_TRUE(restored.restored);
    EXPECT_EQ(restored.save_state(), line);
    for (auto const& slot : restored.policies) EXPECT_EQ(slot.config, &restored);
    restored.set(false, &session, &parent);
    EXPECT_TRUE(restored.restored);  // for ever
}

TEST_F(IdentityTest, MissingTailOfALineLeavesItsSlotsUnchanged) {
    store.PutIdentities("connection_in", {"staff"});
    store.PutIdentities("system_in", {"staff"});
    Rules("<identity name=\"staff\">con FROM \"10.0.0.0/8\"</identity>");
    for (std::string const line : {"1", "1 ", "1  staff", "1  staff ", ""}) {
        Config restored;
        restored.policies[8].identity = Name("kept");
        restored.restore_state(line);
        EXPECT_EQ(restored.policies[8].identity, Name("kept")) << line;
        EXPECT_EQ(bool(restored.policies[1].identity), line.find("staff") != std::string::npos) << line;
        EXPECT_EQ(restored.inbound, !line.empty()) << line;
        EXPECT_TRUE(restored.restored);
    }
}

TEST_F(IdentityTest, DirectionOfALineIsAnyNumberButZero) {
    Config::initialise(&store);
    for (auto const& [field, inbound] : std::vector<std::pair<std::string, bool>>{{"1", true},
                                                                                  {"0", false},
                                                                                  {"2", true},
                                                                                  {"-1", true},
                                                                                  {"10x", true},
                                                                                  {"00", false},
                                                                                  {"x1", false},
                                                                                  {"0x1", false},
                                                                                  {"", false},
                                                                                  {"\t1", true},
                                                                                  {"99999999999999999999", true}}) {
        Config restored;
        restored.inbound = !inbound;
        restored.restore_state(field + " ");
        EXPECT_EQ(restored.inbound, inbound) << field;
    }
}

TEST_F(IdentityTest, LineMayNameOtherIdentitiesThanTheRulesWould) {
    store.PutIdentities("content_in", {"board", "staff"});
    store.PutIdentities("content_out", {"board"});
    Rules(kStaff + kBoard);
    Config restored;
    restored.restore_state("1   staff");
    restored.set_recipient_mail_address("boss@else.test");
    EXPECT_EQ(restored.policies[2].policy(&restored), Name("staff"));
    EXPECT_EQ(restored.policies[2].policy(&restored), Config::find_identity(1, 2, "staff"));
    Config other;
    other.restore_state("0   staff");  // the outer row does not know it
    EXPECT_FALSE(other.policies[2].identity);
}

TEST_F(IdentityTest, FieldsBehindTheLastSlotAreIgnored) {
    store.PutIdentities("system_in", {"staff"});
    Rules(kStaff);
    Config restored;
    restored.restore_state("1         staff more and more");
    EXPECT_EQ(restored.policies[8].identity, Name("staff"));
    EXPECT_EQ(restored.save_state(), "1         staff");
}

TEST_F(IdentityTest, UnknownNameInALineIsNoIdentity) {
    Config::initialise(&store);
    Config restored;
    restored.policies[1].identity = Name("kept");
    restored.restore_state("x  nobody");
    EXPECT_FALSE(restored.inbound);
    EXPECT_FALSE(restored.policies[1].identity);
}

TEST_F(IdentityTest, FieldsAreSeparatedByEachBlank) {
    std::string field = "old";
    EXPECT_EQ(sep_to_string(nullptr, field), nullptr);
    EXPECT_EQ(field, "");
    char const* rest = sep_to_string("a  b", field);
    EXPECT_EQ(field, "a");
    rest = sep_to_string(rest, field);
    EXPECT_EQ(field, "");
    EXPECT_STREQ(rest, "b");
    EXPECT_EQ(sep_to_string(rest, field), nullptr);
    EXPECT_EQ(field, "b");
    EXPECT_STREQ(sep_to_string("a ", field), "");
    EXPECT_EQ(sep_to_string("", field), nullptr);
    EXPECT_EQ(field, "");
}
