// What the store answers: values, inheritance, windows, identities, actions and rules.
#include <policyloader/store/StoreWorld.h>
#include <policyloader/store/Value.h>

namespace policyloader {
namespace {

std::string Settings(std::string const& inside) { return "<settings section='s'>" + inside + "</settings>"; }
std::string Set(std::string const& name, std::string const& value) {
    return "<set name='" + name + "'>" + value + "</set>";
}

class Store : public StoreWorld {};

TEST_F(Store, GivesWhatAPolicySays) {
    Parse("<policy name='base'>" + Settings(Set("Timeout", " 60\n")) + "</policy>");
    EXPECT_EQ(Text("base", nullptr, "Timeout"), "60");
    EXPECT_EQ(Text("base", nullptr, "timeout"), "(null)");
    EXPECT_EQ(Text("nowhere", nullptr, "Timeout"), "(null)");
    EXPECT_EQ(Text(nullptr, nullptr, "Timeout"), "(null)");
}

TEST_F(Store, WithoutAnyFileHasNothing) {
    Parse("");
    EXPECT_EQ(Text("base", nullptr, "Timeout"), "(null)");
    EXPECT_EQ(store->identities(In("content_in")).size(), 0U);
    EXPECT_EQ(store->identities(In("unheard of")).size(), 0U);
    EXPECT_EQ(store->compareActions(In("content_in"), "A", "B"), -1);
}

TEST_F(Store, KeepsWhiteSpaceOfCdataOnly) {
    Parse("<policy name='base'>" + Settings(Set("a", " x y ") + Set("b", "<![CDATA[ x ]]>") + Set("c", "")) +
          "</policy>");
    EXPECT_EQ(Text("base", nullptr, "a"), "x y");
    EXPECT_EQ(Text("base", nullptr, "b"), " x ");
    EXPECT_EQ(Text("base", nullptr, "c"), "");
}

TEST_F(Store, AsksTheIdentityThenWhatItInheritsThenThePolicyThenItsBases) {
    Parse("<policy name='base'>" +
          Settings(Set("a", "base") + Set("b", "base") + Set("c", "base") + Set("d", "base") + Set("e", "base") +
                   Set("f", "base")) +
          "</policy><policy name='content' base='base'>" +
          Settings(Set("a", "content") + Set("b", "content") + Set("c", "content") + Set("d", "content") +
                   Set("e", "content")) +
          "</policy><policy name='content_in' base='content'>" +
          Settings(Set("a", "in") + Set("b", "in") + Set("c", "in") + Set("d", "in")) +
          "<identity name='top' inherits='mid'>" + Settings(Set("a", "top")) + "</identity>" +
          "<identity name='mid' inherits='low'>" + Settings(Set("a", "mid") + Set("b", "mid")) + "</identity>" +
          "<identity name='low'>" + Settings(Set("a", "low") + Set("b", "low") + Set("c", "low")) +
          "</identity></policy>");
    std::string seen;
    for (auto const* const name : {"a", "b", "c", "d", "e", "f"}) seen += Text("content_in", "top", name) + ' ';
    EXPECT_EQ(seen, "top mid low in content base ");
    EXPECT_EQ(Text("content_in", "low", "a"), "low");
}

TEST_F(Store, ANullOrUnknownIdentityStartsAtThePolicy) {
    Parse("<policy name='content_in'>" + Settings(Set("a", "in")) + "<identity name='i'>" + Settings(Set("a", "i")) +
          "</identity></policy>");
    EXPECT_EQ(Text("content_in", nullptr, "a"), "in");
    EXPECT_EQ(Text("content_in", "stranger", "a"), "in");
}

TEST_F(Store, InheritedIdentitiesCountInTheirOrder) {
    Parse(
        "<policy name='content_in'><identity name='i' inherits='one, two'/>"
        "<identity name='two'>" +
        Settings(Set("a", "two") + Set("b", "two")) + "</identity>" + "<identity name='one' inherits='deep'>" +
        Settings(Set("a", "one")) + "</identity>" + "<identity name='deep'>" + Settings(Set("b", "deep")) +
        "</identity></policy>");
    EXPECT_EQ(Text("content_in", "i", "a"), "one");
    EXPECT_EQ(Text("content_in", "i", "b"), "deep");
}

TEST_F(Store, AnIdentityInheritedOnTwoRoadsIsNoCircle) {
    Parse(
        "<policy name='p'><identity name='a' inherits='b c'/><identity name='b' inherits='d'/>"
        "<identity name='c' inherits='d'/><identity name='d'>" +
        Settings(Set("x", "d")) + "</identity></policy>");
    EXPECT_EQ(Text("p", "a", "x"), "d");
}

TEST_F(Store, PoliciesInheritByNameWhereNoBaseIsGiven) {
    Parse("<policy name='base'>" + Settings(Set("a", "base") + Set("b", "base")) + "</policy><policy name='content'>" +
          Settings(Set("a", "content")) + "</policy>");
    EXPECT_EQ(Text("content_in", nullptr, "a"), "content");
    EXPECT_EQ(Text("content_out", nullptr, "b"), "base");
    EXPECT_EQ(Text("protocol_in", nullptr, "a"), "base");
    EXPECT_EQ(Text("unheard_in", nullptr, "a"), "(null)");
}

TEST_F(Store, APolicyMayHaveNoBase) {
    Parse("<policy name='base'>" + Settings(Set("a", "base")) +
          "</policy><policy name='machine' base=''/>"
          "<policy name='own'/>");
    EXPECT_EQ(Text("machine", nullptr, "a"), "(null)");
    EXPECT_EQ(Text("machine_in", nullptr, "a"), "(null)");
    EXPECT_EQ(Text("own", nullptr, "a"), "base");
}

TEST_F(Store, AValueWhoseWindowIsOpenWins) {
    Parse("<policy name='content_in'>" +
          Settings("<set name='a' when='sat-sun'>weekend</set>" + Set("a", "plain") +
                   "<set name='a' when='sat'>second</set><set name='b' when='sat'>only</set>") +
          "</policy>");
    EXPECT_EQ(Text("content_in", nullptr, "a"), "plain");
    EXPECT_EQ(Text("content_in", nullptr, "a", Saturday9), "weekend");
    EXPECT_EQ(Text("content_in", nullptr, "b"), "(null)");
    EXPECT_EQ(Text("content_in", nullptr, "b", Saturday9), "only");
}

TEST_F(Store, AClosedWindowLetsTheInheritedValueThrough) {
    Parse("<policy name='content_in'>" + Settings(Set("a", "policy")) + "<identity name='i' inherits='j'>" +
          Settings("<set name='a' when='sat'>i-sat</set><set name='b' when='sat'>i-sat</set>") + "</identity>" +
          "<identity name='j'>" + Settings(Set("b", "j")) + "</identity></policy>");
    EXPECT_EQ(Text("content_in", "i", "a"), "policy");
    EXPECT_EQ(Text("content_in", "i", "a", Saturday9), "i-sat");
    EXPECT_EQ(Text("content_in", "i", "b"), "j");
    EXPECT_EQ(Text("content_in", "i", "b", Saturday9), "i-sat");
}

TEST_F(Store, APlainValueHidesInheritedWindows) {
    Parse("<policy name='content_in'>" + Settings("<set name='a' when='sat'>policy-sat</set>") + "<identity name='i'>" +
          Settings(Set("a", "i")) + "</identity></policy>");
    EXPECT_EQ(Text("content_in", "i", "a", Saturday9), "i");
}

TEST_F(Store, ListsAreWholeValues) {
    Parse("<policy name='base'>" + Settings("<list name='l'><item>25</item><item> 587 </item></list><list name='e'/>") +
          "</policy><policy name='content'>" + Settings("<list name='l'><item>1</item></list>") + "</policy>");
    auto const* const list = Value("base", nullptr, "l");
    ASSERT_EQ(list->size(), 2U);
    unsigned port = 0;
    EXPECT_TRUE(list->at(1)->getUnsigned(&port));
    EXPECT_EQ(port, 587U);
    EXPECT_EQ(Text("base", nullptr, "l"), "(no text)");
    EXPECT_EQ(Value("content", nullptr, "l")->size(), 1U);
    EXPECT_EQ(Value("base", nullptr, "e")->size(), 0U);
}

TEST_F(Store, AlertsHaveThreeParts) {
    Parse("<policy name='base'>" +
          Settings("<alert name='a'><body>%ALERTHEADER% x</body><header>Hi</header></alert><alert name='none'/>") +
          "</policy>");
    eFabric::ProductAlertValue alert{};
    ASSERT_TRUE(Value("base", nullptr, "a")->getAlert(&alert));
    EXPECT_STREQ(alert.body, L"%ALERTHEADER% x");
    EXPECT_STREQ(alert.header, L"Hi");
    EXPECT_EQ(alert.footer, nullptr);
    EXPECT_EQ(Text("base", nullptr, "a"), "(no text)");
    ASSERT_TRUE(Value("base", nullptr, "none")->getAlert(&alert));
    EXPECT_EQ(alert.body, nullptr);
}

TEST_F(Store, IdentitiesStandInOrderOfPriority) {
    Parse(
        "<policy name='content_in'><identity name='b'/><identity name='a'/></policy><policy name='content'>"
        "<identity name='c'/></policy>");
    auto const& list = store->identities(In("content_in"));
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list.at(0), In("b"));
    EXPECT_EQ(list.at(1), In("a"));
    EXPECT_FALSE(list.at(2));
    EXPECT_EQ(store->identities(In("content")).at(0), In("c"));
}

TEST_F(Store, ComparesActionsByTheirPlaceInTheList) {
    Parse(
        "<policy name='content'><actions><action>LOG</action><action>DENY</action></actions></policy>"
        "<policy name='content_in'/><policy name='content_out'><actions><action>DENY</action><action>LOG</action>"
        "</actions></policy>");
    EXPECT_EQ(store->compareActions(In("content"), "DENY", "LOG"), 2);
    EXPECT_EQ(store->compareActions(In("content"), "LOG", "DENY"), 1);
    EXPECT_EQ(store->compareActions(In("content"), "LOG", "LOG"), 0);
    EXPECT_EQ(store->compareActions(In("content_in"), "DENY", "LOG"), 2);
    EXPECT_EQ(store->compareActions(In("content_out"), "DENY", "LOG"), 1);
    EXPECT_EQ(store->compareActions(In("content"), "DENY", "log"), -1);
    EXPECT_EQ(store->compareActions(In("content"), "NEW", "NEW"), -1);
    EXPECT_EQ(store->compareActions(In("content"), nullptr, "LOG"), -1);
    EXPECT_EQ(store->compareActions(In("base"), "DENY", "LOG"), -1);
}

TEST_F(Store, TakesActionsFromTheNearestBaseThatHasSome) {
    Parse(
        "<policy name='base'><actions><action>LOG</action><action>DENY</action></actions></policy>"
        "<policy name='content'><actions><action>DENY</action><action>LOG</action></actions></policy>"
        "<policy name='own' base=''/>");
    EXPECT_EQ(store->compareActions(In("content_in"), "DENY", "LOG"), 1);
    EXPECT_EQ(store->compareActions(In("protocol_out"), "DENY", "LOG"), 2);
    EXPECT_EQ(store->compareActions(In("own"), "DENY", "LOG"), -1);
}

TEST_F(Store, AnIdentityIsKnownInItsOwnPolicyOnly) {
    Parse("<policy name='content'><identity name='i'>" + Settings(Set("a", "i")) +
          "</identity></policy><policy name='content_in'>" + Settings(Set("a", "in")) + "</policy>");
    EXPECT_EQ(Text("content", "i", "a"), "i");
    EXPECT_EQ(Text("content_in", "i", "a"), "in");
    EXPECT_EQ(store->identities(In("content_in")).size(), 0U);
}

TEST_F(Store, OfSeveralOpenWindowsTheFirstCountsAlsoAcrossInheritance) {
    Parse("<policy name='content_in'>" + Settings("<set name='a' when='mon'>policy</set>") +
          "<identity name='i' inherits='j'>" + Settings("<set name='a' when='tue'>i</set>") + "</identity>" +
          "<identity name='j'>" +
          Settings("<set name='a' when='mon-tue'>first</set><set name='a' when='mon'>second</set>") +
          "</identity></policy>");
    constexpr std::time_t Day = 24 * 60 * 60;
    EXPECT_EQ(Text("content_in", "i", "a"), "first");
    EXPECT_EQ(Text("content_in", "i", "a", Monday9 + Day), "i");
    EXPECT_EQ(Text("content_in", "j", "a", Monday9 + Day), "first");
    EXPECT_EQ(Text("content_in", "i", "a", Monday9 + 2 * Day), "(null)");
}

// The epoch was a Thursday's first minute.
TEST_F(Store, TakesZeroAsNow) {
    constexpr std::time_t WeekMinutes = 7 * 24 * 60;
    if ((std::time(nullptr) + 60) / 60 % WeekMinutes < 2) GTEST_SKIP() << "it is that minute of the week";
    Parse("<policy name='base'>" + Settings("<set name='a' when='thu 00:00-00:01'>epoch</set>" + Set("a", "now")) +
          "</policy>");
    EXPECT_EQ(Text("base", nullptr, "a", 60 * 60), "now");
    EXPECT_EQ(Text("base", nullptr, "a", 1), "epoch");
    EXPECT_EQ(store->view(In("base"), InternedString(), 0).text("s", "a"), "now");
    EXPECT_STREQ(store->sources().find(In("base"), InternedString(), In("s"), In("a"), 0)->value->text(), "now");
}

class StoreView : public StoreWorld {
protected:
    void SetUp() override {
        Parse("<policy name='base'>" + Settings("<rule name='base'/>") + "</policy><policy name='content_in'>" +
              Settings("<rule name='policy' when='sat'/><rule name='always'/>" + Set("n", "7") + Set("d", "5.5") +
                       Set("f", "off") + "<list name='l'><item>x</item><item>y</item></list>") +
              "<identity name='i' inherits='j'>" + Settings("<rule name='i' match='a' action='DENY'/>") +
              "</identity>" + "<identity name='j'>" + Settings("<rule name='j'/>") +
              "</identity><identity name='plain'/></policy>");
    }
    SettingsView View(char const* identity, std::time_t when = Monday9) const {
        return store->view(In("content_in"), In(identity), when);
    }
    std::string Rules(SettingsView const& view) const {
        std::string names;
        for (auto const* const rule : view.rules("s")) names += std::string(*rule->get("name")) + ' ';
        return names;
    }
};

TEST_F(StoreView, ReadsEachFormOrGivesTheStandard) {
    auto const view = View(nullptr);
    EXPECT_TRUE(view.has("s", "n"));
    EXPECT_FALSE(view.has("s", "missing"));
    EXPECT_EQ(view.text("s", "n"), "7");
    EXPECT_EQ(view.text("s", "l"), std::nullopt);
    EXPECT_EQ(view.number("s", "n", 1), 7U);
    EXPECT_EQ(view.number("s", "d", 1), 1U);
    EXPECT_EQ(view.real("s", "d", 1), 5.5);
    EXPECT_EQ(view.real("s", "f", 1), 1);
    EXPECT_FALSE(view.flag("s", "f", true));
    EXPECT_TRUE(view.flag("s", "n", true));
    EXPECT_EQ(view.list("s", "l"), (std::vector<std::string_view>{"x", "y"}));
    EXPECT_EQ(view.list("s", "n"), (std::vector<std::string_view>{"7"}));
    EXPECT_TRUE(view.list("s", "missing").empty());
}

TEST_F(StoreView, RulesComeFromTheIdentityDownToTheBase) {
    EXPECT_EQ(Rules(View("i")), "i j always base ");
    EXPECT_EQ(Rules(View("i", Saturday9)), "i j policy always base ");
    EXPECT_EQ(Rules(View(nullptr)), "always base ");
    EXPECT_EQ(View("i").rules("s")[0]->get("action"), "DENY");
    EXPECT_EQ(View("i").rules("s")[0]->get("when"), std::nullopt);
    EXPECT_TRUE(View("i").rules("other").empty());
}

TEST_F(StoreView, EqualRulesHaveEqualKeys) {
    EXPECT_EQ(View("plain").rulesKey("s"), View(nullptr).rulesKey("s"));
    EXPECT_NE(View("i").rulesKey("s"), View("j").rulesKey("s"));
    EXPECT_NE(View(nullptr).rulesKey("s"), View(nullptr, Saturday9).rulesKey("s"));
    auto const before = View("i").rulesKey("s");
    auto const old = std::move(store);
    SetUp();
    EXPECT_EQ(View("i").rulesKey("s"), before);
}

TEST_F(StoreView, OfAnUnknownPolicyIsEmpty) {
    auto const view = store->view(In("nowhere"), InternedString(), Monday9);
    EXPECT_FALSE(view.has("s", "n"));
    EXPECT_TRUE(view.rules("s").empty());
    EXPECT_EQ(view.compareActions("A", "A"), -1);
}

TEST_F(StoreView, TakesZeroAsNow) { EXPECT_GE(View(nullptr, 0).when(), Saturday9); }

TEST_F(StoreView, RulesKnowTheirPlace) {
    auto const& place = View(nullptr).rules("s")[0]->place();
    EXPECT_STREQ(place.file, "rules.xml");
    EXPECT_EQ(place.line, 1U);
    EXPECT_GT(place.column, 1U);
}

}  // namespace
}  // namespace policyloader
