#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <QXid/RulesWorld.h>

#include "testing/DocExample.h"

using namespace rules_world;

namespace {

TEST_F(IdentityRules, FindGivesAPlaceholderBeforeLoading) {
    ASSERT_NE(rules->find("staff"), nullptr);
    EXPECT_FALSE(Staff().hasExpression());
    EXPECT_FALSE(Holds("a"));
    EXPECT_EQ(rules->find("other"), nullptr);
    EXPECT_EQ(rules->find(nullptr), nullptr);
}

TEST_F(IdentityRules, NamesMayBeAddedSeveralTimes) {
    auto const* const before = &Staff();
    rules->addIdentities(Names({"guests", StaffName}));
    rules->addIdentities(Names({}));
    EXPECT_EQ(&Staff(), before);
    EXPECT_NE(rules->find("guests"), nullptr);
}

TEST_F(IdentityRules, LoadingFillsThePlaceholder) {
    auto const* const before = &Staff();
    EXPECT_TRUE(LoadStaff("a IS \"x\""));
    EXPECT_EQ(&Staff(), before);
    EXPECT_TRUE(Staff().hasExpression());
    EXPECT_TRUE(Holds("a"));
    EXPECT_EQ(Staff().evaluate(&Evaluate, &(facts = Facts{})).c_str(), nullptr);
}

TEST_F(IdentityRules, AMissingFileMeansNoRules) {
    ASSERT_TRUE(LoadStaff("a IS \"x\""));
    EXPECT_FALSE(rules->load((root / "none.xml").c_str(), &Evaluate));
    EXPECT_FALSE(Staff().hasExpression());
}

TEST_F(IdentityRules, AnEmptyElementHasNoExpression) {
    EXPECT_TRUE(LoadStaff(" \n "));
    EXPECT_FALSE(Staff().hasExpression());
}

TEST_F(IdentityRules, UnknownNamesAreReportedAndPassedOver) {
    EXPECT_TRUE(Load("<identities>\n<identity name='ghost'>a IS \"throw\"</identity></identities>"));
    EXPECT_EQ(rules->find("ghost"), nullptr);
    ASSERT_EQ(s_reports.size(), 1U);
    EXPECT_NE(s_reports[0].find(":2:1: identity 'ghost'"), std::string::npos);
    EXPECT_TRUE(s_prepared.empty());
}

TEST_F(IdentityRules, AndBindsCloserThanOr) {
    EXPECT_EQ(Truth("a IS \"x\" or b IS \"x\" and c IS \"x\""), "01010111");
    EXPECT_EQ(Truth("(a IS \"x\" or b IS \"x\") and c IS \"x\""), "00000111");
    EXPECT_EQ(Truth("not a IS \"x\" and b IS \"x\""), "00100010");
    EXPECT_EQ(Truth("not (a IS \"x\" and b IS \"x\")"), "11101110");
    EXPECT_EQ(Truth("NOT Not a IS \"x\" OR b IS \"x\" oR c IS \"x\""), "01111111");
}

TEST_F(IdentityRules, ElementsMeanTheSame) {
    std::string const a = "<is subject='a' op='IS' value='x'/>", b = "<is subject='b' op='IS' value='x'/>",
                      c = "<is subject='c' op='IS' value='x'/>";
    EXPECT_EQ(Truth("<or>" + a + "<and>" + b + c + "</and></or>"), "01010111");
    EXPECT_EQ(Truth("<and><or>" + a + b + "</or>" + c + "</and>"), "00000111");
    EXPECT_EQ(Truth("<not><and>" + a + b + "</and></not>"), "11101110");
    EXPECT_EQ(Truth("<and>" + a + "</and>"), "01010101");
    EXPECT_EQ(Truth(a), "01010101");
}

TEST_F(IdentityRules, AsksFromLeftToRightAndNoFurtherThanNeeded) {
    ASSERT_TRUE(LoadStaff("a IS \"x\" and b IS \"x\" or c IS \"x\" or b IS \"x\""));
    using Asked = std::vector<std::string>;
    Holds("ab");
    EXPECT_EQ(facts.asked, (Asked{"a", "b"}));
    Holds("c");
    EXPECT_EQ(facts.asked, (Asked{"a", "c"}));
    Holds("a");
    EXPECT_EQ(facts.asked, (Asked{"a", "b", "c", "b"}));
}

TEST_F(IdentityRules, PreparesEveryAtomOnceInOrder) {
    ASSERT_TRUE(LoadStaff("not (a IS \"1\" or b IN \"2\") and c FROM \"3\""));
    EXPECT_EQ(s_prepared, (std::vector<std::string>{"a IS 1", "b IN 2", "c FROM 3"}));
}

TEST_F(IdentityRules, SubjectsAndOperatorsGoToTheEvaluatorAsWritten) {
    ASSERT_TRUE(LoadStaff("Con is.like \"10.0.0.0/8\""));
    EXPECT_EQ(s_prepared, (std::vector<std::string>{"Con is.like 10.0.0.0/8"}));
}

TEST_F(IdentityRules, ValuesTakeEscapesBlanksAndNothing) {
    ASSERT_TRUE(LoadStaff("a IS \"say \\\"hi\\\" \\\\ &amp; gr\xC3\xBC\xC3\x9F\" or b IS \"\""));
    EXPECT_EQ(s_prepared, (std::vector<std::string>{"a IS say \"hi\" \\ & gr\xC3\xBC\xC3\x9F", "b IS "}));
}

TEST_F(IdentityRules, PrivateDataDiesWithTheEngine) {
    s_alive = 0;
    ASSERT_TRUE(LoadStaff("a IS \"1\" or b IS \"2\""));
    EXPECT_EQ(s_alive, 2);
    ASSERT_TRUE(LoadStaff("a IS \"1\""));
    EXPECT_EQ(s_alive, 1);
    rules.reset();
    EXPECT_EQ(s_alive, 0);
}

TEST_F(IdentityRules, ExceptionsOfTheEvaluatorLeaveLoadAndChangeNothing) {
    ASSERT_TRUE(LoadStaff("a IS \"x\""));
    s_alive = 1;
    EXPECT_THROW(LoadStaff("b IS \"x\" or c IS \"throw\""), std::runtime_error);
    EXPECT_EQ(s_alive, 1);
    EXPECT_TRUE(Holds("a"));
    EXPECT_FALSE(Holds("b"));
    ASSERT_EQ(s_reports.size(), 1U);
    EXPECT_NE(s_reports[0].find(":2:36: identity 'staff' has a value that its operator does not take: bad value"),
              std::string::npos)
        << s_reports[0];
}

// What may stand around a condition: brackets and negations, or elements. No more than 64 of them.
struct Nesting {
    char const* begin;
    char const* condition;
    char const* end;
    std::size_t columnOf65th;
};

TEST_F(IdentityRules, ExpressionsNestAtMost64Deep) {
    char const* const text = "a IS \"x\"";
    char const* const element = "<is subject='a' op='IS' value='x'/>";
    for (auto const& [begin, condition, end, columnOf65th] :
         {Nesting{"(", text, ")", 24 + 64}, Nesting{"not ", text, "", 24 + 64 * 4},
          Nesting{"<not>", element, "</not>", 24 + 64 * 5}, Nesting{"<and>", element, "</and>", 24 + 64 * 5},
          Nesting{"<or>", element, "</or>", 24 + 64 * 4}}) {
        auto const nested = [&, b = begin, c = condition, e = end](int depth) {
            return Repeated(b, depth) + c + Repeated(e, depth);
        };
        for (int depth = 60; depth <= 64; ++depth) {
            EXPECT_EQ(ErrorOfStaff(nested(depth)), "(none)") << begin << depth;
            EXPECT_EQ(Holds("a"), *begin != 'n' && std::string(begin) != "<not>" ? true : depth % 2 == 0) << begin;
        }
        for (int const depth : {65, 66, 67, 68, 100, 100000})
            EXPECT_EQ(ErrorOfStaff(nested(depth)),
                      ":2:" + std::to_string(columnOf65th) + ": the expression is nested deeper than 64")
                << begin << depth;
    }
}

TEST_F(IdentityRules, BracketsAndNegationsCountTogether) {
    auto const mixed = [](int depth) {
        std::string text = "a IS \"x\"";
        for (int i = 0; i < depth; ++i) text = i % 2 ? "(" + text + ")" : "not " + text;
        return text;
    };
    EXPECT_EQ(ErrorOfStaff(mixed(64)), "(none)");
    EXPECT_NE(ErrorOfStaff(mixed(65)).find("nested deeper than 64"), std::string::npos);
}

TEST_F(IdentityRules, ExpressionsMayBeLongAndStandBesideEachOther) {
    EXPECT_EQ(ErrorOfStaff(Repeated("a IS \"x\" or ", 50000) + "a IS \"x\""), "(none)");
    EXPECT_EQ(ErrorOfStaff(Repeated("(((a IS \"x\"))) and ", 1000) + "a IS \"x\""), "(none)");
}

TEST_F(IdentityRules, TheDocumentedExampleLoads) {
    rules->addIdentities(Names({"executives"}));
    ASSERT_TRUE(Load(velt_testing::DocExample(DOCS "/formats/identities-xml.md", "xml")));
    EXPECT_EQ(s_prepared, (std::vector<std::string>{"con FROM 10.0.0.0/8", "eto IS *@example.test",
                                                    "eto IN ldap1.example.test.Board", "con FROM *.guest.test"}));
    EXPECT_TRUE(s_reports.empty());
}

}  // namespace
