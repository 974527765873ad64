// Where expressions stand, and why they hold.
#include <QXid/RulesWorld.h>

using namespace rules_world;

namespace {

class Explanations : public IdentityRules {
protected:
    RuleExplanation Explain(std::string const& holding) {
        facts = Facts{holding, {}};
        return Staff().explain(&Evaluate, &facts);
    }
    // Each answer as its subject, "+" where it held, "!" in front where it is turned round, in brackets where the
    // outcome does not rest on it; the outcome in front.
    static std::string Shown(RuleExplanation const& explanation) {
        std::string shown = explanation.holds ? "yes:" : "no:";
        for (auto const& answer : explanation.asked) {
            std::string one = (answer.negated ? "!" : "") + answer.condition.subject + (answer.held ? "+" : "-");
            shown += ' ' + (answer.decisive ? one : '(' + one + ')');
        }
        return shown;
    }
    std::string Places() {
        std::string places;
        for (auto const& condition : Staff().conditions())
            places += condition.subject + '@' + std::to_string(condition.place.line) + ':' +
                      std::to_string(condition.place.column) + ' ';
        return places;
    }
};

TEST_F(Explanations, SayWhatWasAskedAndWhatDecided) {
    struct Case {
        char const* body;
        char const* holding;
        char const* shown;
    };
    constexpr Case Cases[] = {
        {"a IS \"x\"", "a", "yes: a+"},
        {"a IS \"x\"", "", "no: a-"},
        {"a IS \"x\" or b IS \"x\" or c IS \"x\"", "b", "yes: (a-) b+"},
        {"a IS \"x\" or b IS \"x\"", "", "no: a- b-"},
        {"a IS \"x\" and b IS \"x\" and c IS \"x\"", "a", "no: (a+) b-"},
        {"a IS \"x\" and b IS \"x\"", "ab", "yes: a+ b+"},
        {"a IS \"x\" and not b IS \"x\"", "a", "yes: a+ !b-"},
        {"not (a IS \"x\" or not b IS \"x\")", "b", "yes: !a- b+"},
        {"(a IS \"x\" and b IS \"x\") or c IS \"x\"", "ac", "yes: (a+) (b-) c+"},
        {"(a IS \"x\" or b IS \"x\") and c IS \"x\"", "bc", "yes: (a-) b+ c+"},
        {"not (a IS \"x\" and b IS \"x\")", "a", "yes: (!a+) !b-"},
    };
    for (auto const& [body, holding, shown] : Cases) {
        ASSERT_TRUE(LoadStaff(body));
        EXPECT_EQ(Shown(Explain(holding)), shown) << body << " with " << holding;
    }
}

TEST_F(Explanations, AgreeWithTheEvaluation) {
    for (auto const* const body :
         {"a IS \"x\" and b IS \"x\" or c IS \"x\" or b IS \"x\"", "not (a IS \"x\" or b IS \"x\") and c IS \"x\"",
          "not not a IS \"x\"", "(a IS \"x\" or not b IS \"x\") and not (b IS \"x\" and c IS \"x\")"}) {
        ASSERT_TRUE(LoadStaff(body));
        for (auto const* const holding : {"", "a", "b", "ab", "c", "ac", "bc", "abc"}) {
            bool const holds = Holds(holding);
            auto const asked = facts.asked;
            EXPECT_EQ(Explain(holding).holds, holds) << body << " with " << holding;
            EXPECT_EQ(facts.asked, asked) << body << " with " << holding;
        }
    }
}

TEST_F(Explanations, NameTheConditionAsTheTextFormHasIt) {
    ASSERT_TRUE(LoadStaff("<is subject='a' op='IS' value='say &quot;\\o/&quot; gr\xC3\xBC\xC3\x9F'/>"));
    auto const asked = Explain("").asked;
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].condition.text(), "a IS \"say \\\"\\\\o/\\\" gr\xC3\xBC\xC3\x9F\"");
    EXPECT_EQ(asked[0].condition.op, "IS");
    EXPECT_EQ(asked[0].condition.value, "say \"\\o/\" gr\xC3\xBC\xC3\x9F");
    EXPECT_EQ(asked[0].condition.place.file, root / "identities.xml");
    EXPECT_EQ(asked[0].condition.place.line, 2u);
    EXPECT_EQ(asked[0].condition.place.column, 24u);
}

TEST_F(Explanations, TakeTheirPlacesFromTheText) {
    ASSERT_TRUE(LoadStaff("a IS \"&lt;&#x20AC;\" or b IS \"x\"\n\t or (not c IS \"x\")"));
    EXPECT_EQ(Places(), "a@2:24 b@2:47 c@3:11 ");
    ASSERT_TRUE(LoadStaff("<![CDATA[a IS \"&lt;\" and ]]><!-- not\n --> b IS \"x\""));
    EXPECT_EQ(Places(), "a@2:33 b@3:6 ");
}

TEST_F(Explanations, TakeTheirPlacesFromTheElements) {
    ASSERT_TRUE(
        LoadStaff("<and>\n  <is subject='a' op='IS' value='x'/>\n  <not><is subject='b' op='IS' value='x'/></not>"
                  "</and>"));
    EXPECT_EQ(Places(), "a@3:3 b@4:8 ");
}

TEST_F(Explanations, OfAnIdentityWithoutExpressionAreEmpty) {
    EXPECT_EQ(Shown(Staff().explain(&Evaluate, &facts)), "no:");
    EXPECT_TRUE(Staff().conditions().empty());
    EXPECT_EQ(Staff().place().line, 0u);
}

TEST_F(Explanations, KnowWhereTheIdentityStands) {
    ASSERT_TRUE(Load("<identities>\n\n  <identity name='staff'>\na IS \"x\"</identity></identities>"));
    EXPECT_EQ(Staff().place().file, root / "identities.xml");
    EXPECT_EQ(Staff().place().line, 3u);
    EXPECT_EQ(Staff().place().column, 3u);
    rules->load((root / "none.xml").c_str(), &Evaluate);
    EXPECT_EQ(Staff().place().line, 0u);
    EXPECT_EQ(Staff().place().file, "");
}

// The places of a long text are found in one walk: a quadratic one would take minutes here.
TEST_F(Explanations, PlaceManyConditions) {
    constexpr int Count = 100000;
    ASSERT_TRUE(LoadStaff(Repeated("a IS \"&amp;\" or\n", Count) + "b IS \"x\""));
    auto const conditions = Staff().conditions();
    ASSERT_EQ(conditions.size(), Count + 1u);
    EXPECT_EQ(conditions.back().place.line, 2u + Count);
    EXPECT_EQ(conditions.back().place.column, 1u);
    EXPECT_EQ(conditions[Count - 1].place.line, 1u + Count);
}

}  // namespace
