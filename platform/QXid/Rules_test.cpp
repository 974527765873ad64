#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <KORtk/Exception.h>
#include <KORtk/Text.h>
#include <QXid/Rules.h>
#include <eFabric/Report.h>

#include "testing/DocExample.h"
#include "testing/TempRoot.h"

namespace {

std::string Narrow(AtomicValue const& value) { return KORtk::Utf8Array(value.AsString()).str(); }

int s_alive = 0;  // private data not deleted yet

struct Note : EvalData {
    explicit Note(std::string text) : text(std::move(text)) { ++s_alive; }
    ~Note() override { --s_alive; }
    std::string text;
};

// What the world is: subjects that hold, and what was asked, in order.
struct Facts {
    std::string holding;
    std::vector<std::string> asked;
};

std::vector<std::string> s_prepared;
std::vector<std::string> s_reports;

// An atom holds when its subject's letter is in `holding` and the private data of loading is there.
bool Evaluate(AtomicValue const& subject, AtomicValue const& value, AtomicValue const& op, void* data,
              EvalData*& note) {
    if (Narrow(value) == "throw") throw std::runtime_error("bad value");
    if (!data) {
        s_prepared.push_back(Narrow(subject) + ' ' + Narrow(op) + ' ' + Narrow(value));
        note = new Note(Narrow(value));
        return true;
    }
    auto& facts = *static_cast<Facts*>(data);
    facts.asked.push_back(Narrow(subject));
    return note && static_cast<Note*>(note)->text == Narrow(value) &&
           facts.holding.find(Narrow(subject)) != std::string::npos;
}

class Names final : public eFabric::IIdentityList {
public:
    explicit Names(std::vector<char const*> names) : m_names(std::move(names)) {}
    unsigned size() const override { return static_cast<unsigned>(m_names.size()); }
    InternedString at(unsigned i) const override { return InternedString(m_names[i]); }

private:
    std::vector<char const*> m_names;
};

constexpr char const StaffName[] = "staff";  // an interned name: its address is what evaluate gives

class IdentityRules : public ::testing::Test {
protected:
    IdentityRules() {
        s_prepared.clear();
        s_reports.clear();
        eFabric::ExchangeReportSink([](std::string const& line) { s_reports.push_back(line); });
        rules->addIdentities(Names({StaffName}));
    }
    ~IdentityRules() override { eFabric::ExchangeReportSink(nullptr); }

    bool Load(std::string const& content) {
        root.Write("identities.xml", content);
        return rules->load((root / "identities.xml").c_str(), &Evaluate);
    }
    bool LoadStaff(std::string const& body) {
        return Load("<identities version=\"1\">\n<identity name=\"staff\">" + body + "</identity>\n</identities>");
    }
    std::string ErrorOf(std::string const& content) {
        try {
            Load(content);
            return "(none)";
        } catch (KORtk::Exception const& error) {
            std::string const path = root / "identities.xml";
            EXPECT_EQ(error.text().substr(0, path.size()), path);
            return error.text().substr(std::min(path.size(), error.text().size()));
        }
    }
    std::string ErrorOfStaff(std::string const& body) {
        return ErrorOf("<identities>\n<identity name=\"staff\">" + body + "</identity></identities>");
    }
    Identity const& Staff() { return *rules->find("staff"); }
    bool Holds(std::string const& holding) {
        facts = Facts{holding, {}};
        return Staff().evaluate(&Evaluate, &facts).c_str() == StaffName;
    }
    // What a text means, as the truth of its value for every subset of a, b, c.
    std::string Truth(std::string const& body) {
        EXPECT_TRUE(LoadStaff(body)) << body;
        std::string row;
        for (auto const* const holding : {"", "a", "b", "ab", "c", "ac", "bc", "abc"})
            row += Holds(holding) ? '1' : '0';
        return row;
    }

    velt_testing::TempRoot root;
    std::unique_ptr<QXidRules> rules = QXidRules::create();
    Facts facts;
};

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
    EXPECT_NE(s_reports[0].find(":2:1: identity 'staff' has a value that its operator does not take: bad value"),
              std::string::npos)
        << s_reports[0];
}

TEST_F(IdentityRules, MalformedTextIsNamedByItsPlace) {
    struct Case {
        char const* body;
        char const* error;
    };
    constexpr Case Cases[] = {
        {"a", ":2:25: an operator expected after 'a'"},
        {"a IS", ":2:28: a value in quotes expected after 'IS'"},
        {"a IS x", ":2:29: a value in quotes expected after 'IS'"},
        {"a IS \"x", ":2:29: the value has no closing quote"},
        {"a IS \"x\\y\"", ":2:31: a backslash stands before a quote or a backslash only"},
        {"a IS \"x\" b", ":2:33: 'and' or 'or' expected before 'b'"},
        {"a IS \"x\" and", ":2:36: the expression ends where a condition is expected"},
        {"or a IS \"x\"", ":2:24: a condition expected, not 'or'"},
        {"(a IS \"x\"", ":2:24: the bracket is not closed"},
        {"a IS \"x\")", ":2:32: a closing bracket without its opening one"},
        {"()", ":2:25: a condition expected, not ')'"},
        {"a IS \"&lt;&gt;\"\n or or", ":3:5: a condition expected, not 'or'"},
    };
    for (auto const& [body, error] : Cases) EXPECT_EQ(ErrorOfStaff(body), error) << body;
}

TEST_F(IdentityRules, MalformedElementsAreNamedByTheirPlace) {
    struct Case {
        char const* body;
        char const* error;
    };
    constexpr Case Cases[] = {
        {"<is subject='a' op='IS'/>", ":2:24: <is> lacks its attribute 'value'"},
        {"<is subject='' op='IS' value=''/>", ":2:28: attribute 'subject' is empty"},
        {"<is subject='a' op='IS' value='' x=''/>", ":2:57: <is> has no attribute 'x'"},
        {"<and/>", ":2:24: <and> takes at least one condition"},
        {"<not/>", ":2:24: <not> takes one condition, not none"},
        {"<xor/>", ":2:24: <and>, <or>, <not> or <is> expected, not <xor>"},
        {"<and x='1'/>", ":2:29: <and> has no attribute 'x'"},
        {"a IS \"x\" <not/>", ":2:24: <identity> takes no text"},
    };
    for (auto const& [body, error] : Cases) EXPECT_EQ(ErrorOfStaff(body), error) << body;
}

TEST_F(IdentityRules, TheFrameIsCheckedToo) {
    EXPECT_EQ(ErrorOf("<rules/>"), ":1:1: the root element is not <identities>");
    EXPECT_EQ(ErrorOf("<identities version='9'/>"), ":1:13: version '9' is not known, only '1'");
    EXPECT_EQ(ErrorOf("<identities><other/></identities>"), ":1:13: <identity> expected, not <other>");
    EXPECT_EQ(ErrorOf("<identities><identity/></identities>"), ":1:13: <identity> lacks its attribute 'name'");
    EXPECT_EQ(ErrorOf("<identities><identity name='a'/>\n<identity name='a'/></identities>"),
              ":2:1: identity 'a' stands twice");
}

std::string Repeated(std::string const& text, int times) {
    std::string all;
    for (int i = 0; i < times; ++i) all += text;
    return all;
}

TEST_F(IdentityRules, ExpressionsAreAtMost64Deep) {
    auto const brackets = [](int n) { return Repeated("(", n) + "a IS \"x\"" + Repeated(")", n); };
    EXPECT_EQ(ErrorOfStaff(brackets(63)), "(none)");
    EXPECT_NE(ErrorOfStaff(brackets(64)).find("nested deeper than 64"), std::string::npos);
    EXPECT_NE(ErrorOfStaff(brackets(100000)).find("nested deeper than 64"), std::string::npos);
    EXPECT_NE(ErrorOfStaff(Repeated("not ", 100000)).find("nested deeper than 64"), std::string::npos);
    EXPECT_EQ(ErrorOfStaff(Repeated("a IS \"x\" or ", 5000) + "a IS \"x\""), "(none)");
}

TEST_F(IdentityRules, TheDocumentedExampleLoads) {
    rules->addIdentities(Names({"executives"}));
    ASSERT_TRUE(Load(velt_testing::DocExample(DOCS "/formats/identities-xml.md", "xml")));
    EXPECT_EQ(s_prepared, (std::vector<std::string>{"con FROM 10.0.0.0/8", "eto IS *@example.test",
                                                    "eto IN ldap1.example.test.Board", "con FROM *.guest.test"}));
    EXPECT_TRUE(s_reports.empty());
}

}  // namespace
