// Where values come from: the same answer as a look-up, with file, line, window and block.
#include <policyloader/store/PolicyLoader.h>
#include <policyloader/store/StoreModel.h>
#include <policyloader/store/StoreWorld.h>

namespace policyloader {
namespace {

std::string Where(Place const& place) { return std::string(place.file) + ':' + std::to_string(place.line); }
std::string Named(InternedString name) { return name ? name.c_str() : "-"; }

class Sources : public StoreWorld {
protected:
    static eFabric::XmlFile File(char const* name, std::string const& policies) {
        return eFabric::XmlFile(name, "<rules>\n" + policies + "</rules>", "rules");
    }
    void Load(std::string const& rules, std::string const& product = {}) {
        auto model = std::make_unique<StoreModel>();
        model->add(File("rules.xml", rules));
        model->add(File("product.xml", product));
        store = std::make_unique<StoreSnapshot const>(std::move(model));
    }
    std::string Find(char const* policy, char const* identity, char const* name, std::time_t when = Monday9) const {
        auto const found = store->sources().find(In(policy), In(identity), In("s"), In(name), when);
        EXPECT_EQ(found ? found->value : nullptr, Value(policy, identity, name, when));
        if (!found) return "(none)";
        return Where(found->place) + ' ' + Named(found->policy) + ' ' + Named(found->identity) + ' ' +
               (found->window ? found->window : "-");
    }
};

constexpr char const* Rules =
    "<policy name='base'><settings section='s'>\n"             // line 2
    "<set name='a'>base</set>\n"                               // 3
    "<set name='a' when=' sat  08:00-12:00 '>morning</set>\n"  // 4
    "<list name='l'><item>1</item>\n<item>2</item></list>\n"   // 5, 6
    "<alert name='w'><body>text</body></alert>\n"              // 7
    "</settings></policy>\n"                                   // 8
    "<policy name='content_in'>\n"                             // 9
    "<actions><action>LOG</action></actions>\n"                // 10
    "<identity name='top' inherits='low'/>\n"                  // 11
    "<identity name='low'><settings section='s'>\n"            // 12
    "<set name='b'>low</set><rule name='r'/></settings></identity></policy>\n";

TEST_F(Sources, AreThoseOfTheValueThatALookUpGives) {
    Load(Rules);
    EXPECT_EQ(Find("base", nullptr, "a"), "rules.xml:3 base - -");
    EXPECT_EQ(Find("content_in", "top", "a"), "rules.xml:3 base - -");
    EXPECT_EQ(Find("content_in", "top", "a", Saturday9), "rules.xml:4 base -  sat  08:00-12:00 ");
    EXPECT_EQ(Find("content_in", "top", "b"), "rules.xml:13 content_in low -");
    EXPECT_EQ(Find("content_in", "low", "b"), "rules.xml:13 content_in low -");
    EXPECT_EQ(Find("content_in", "stranger", "l"), "rules.xml:5 base - -");
    EXPECT_EQ(Find("base", nullptr, "w"), "rules.xml:7 base - -");
}

TEST_F(Sources, OfWhatIsNotConfiguredAreNone) {
    Load(Rules);
    EXPECT_EQ(Find("base", nullptr, "b"), "(none)");
    EXPECT_EQ(Find("content_in", nullptr, "b"), "(none)");
    EXPECT_EQ(Find("nowhere", nullptr, "a"), "(none)");
    EXPECT_EQ(Find(nullptr, nullptr, "a"), "(none)");
    EXPECT_EQ(Find("base", nullptr, nullptr), "(none)");
}

TEST_F(Sources, TakeZeroAsNow) {
    Load(Rules);
    EXPECT_TRUE(store->sources().find(In("base"), InternedString(), In("s"), In("a"), 0));
}

TEST_F(Sources, NameTheLaterFileWhereItReplaces) {
    Load(Rules, "<policy name='base'><settings section='s'><set name='a'>late</set></settings></policy>");
    EXPECT_EQ(Find("base", nullptr, "a"), "product.xml:2 base - -");
    EXPECT_EQ(Find("base", nullptr, "a", Saturday9), "product.xml:2 base - -");
    std::string replaced;
    for (auto const& value : store->sources().values())
        if (value.replacedBy.line) replaced += Where(value.place) + " by " + Where(value.replacedBy) + ", ";
    EXPECT_EQ(replaced, "rules.xml:3 by product.xml:2, rules.xml:4 by product.xml:2, ");
}

TEST_F(Sources, ListEveryValueWithItsBlock) {
    Load(Rules);
    std::string seen;
    for (auto const& value : store->sources().values())
        seen += Named(value.policy) + '/' + Named(value.identity) + '/' + value.section + '/' + value.name + '@' +
                std::to_string(value.place.line) + ' ';
    for (auto const* const expected :
         {"base/-/s/a@3 ", "base/-/s/a@4 ", "base/-/s/l@5 ", "base/-/s/w@7 ", "content_in/low/s/b@13 "})
        EXPECT_NE(seen.find(expected), std::string::npos) << expected << " in " << seen;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), ' '), 5);
}

TEST_F(Sources, KnowTheLineOfEachItem) {
    Load(Rules);
    auto const found = store->sources().find(In("base"), InternedString(), In("s"), In("l"), Monday9);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->itemLines, (std::vector<unsigned>{5, 6}));
}

TEST_F(Sources, ListIdentitiesByRank) {
    Load(Rules, "<policy name='content_in'>\n<identity name='low'/></policy>");
    auto const identities = store->sources().identities();
    ASSERT_EQ(identities.size(), 2U);
    EXPECT_EQ(Named(identities[0].policy) + Named(identities[0].name), "content_intop");
    EXPECT_EQ(identities[0].inherits, std::vector<InternedString>{In("low")});
    ASSERT_EQ(identities[1].places.size(), 2U);
    EXPECT_EQ(Where(identities[1].places[0]) + ' ' + Where(identities[1].places[1]), "rules.xml:12 product.xml:3");
}

TEST_F(Sources, ListPoliciesWithTheBaseInEffect) {
    Load(Rules);
    std::string seen;
    for (auto const& policy : store->sources().policies()) {
        auto const line = policy.places.empty() ? "-" : std::to_string(policy.places[0].line);
        seen += Named(policy.name) + '<' + Named(policy.base) + '@' + line + '#' +
                std::to_string(policy.actionsPlace.line) + ' ';
    }
    for (auto const* const expected : {"base<-@2#0 ", "content_in<content@9#10 ", "content<base@-#0 "})
        EXPECT_NE(seen.find(expected), std::string::npos) << expected << " in " << seen;
}

TEST_F(Sources, ListRules) {
    Load(Rules);
    auto const rules = store->sources().rules();
    ASSERT_EQ(rules.size(), 1U);
    EXPECT_EQ(Named(rules[0].policy) + Named(rules[0].identity) + rules[0].section, "content_inlows");
    EXPECT_EQ(rules[0].rule->place().line, 13U);
}

TEST_F(Sources, OutliveTheirStore) {
    Load(Rules);
    auto const sources = store->sources();
    store.reset();
    auto const found = sources.find(In("base"), InternedString(), In("s"), In("a"), Monday9);
    ASSERT_TRUE(found);
    EXPECT_STREQ(found->value->text(), "base");
}

}  // namespace
}  // namespace policyloader
