// What is refused, and at which line and column.
#include <QXid/RulesWorld.h>

#include <algorithm>

using namespace rules_world;

namespace {

constexpr char Mark = '@';  // stands in front of the byte that an error names

struct Marked {
    std::string text;  // without the mark
    std::string place;
};

Marked Unmark(std::string text) {
    auto const at = text.find(Mark);
    text.erase(at, 1);
    auto const line = std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(at), '\n') + 1;
    auto const newline = text.rfind('\n', at == 0 ? std::string::npos : at - 1);
    auto const start = at == 0 || newline == std::string::npos ? 0 : newline + 1;
    return {text, ':' + std::to_string(line) + ':' + std::to_string(at - start + 1) + ": "};
}

struct Case {
    char const* body;
    char const* reason;
};

class RuleErrors : public IdentityRules {
protected:
    void ExpectError(std::string const& marked, std::string const& reason) {
        auto const [text, place] = Unmark(marked);
        EXPECT_EQ(ErrorOf(text), place + reason) << text;
        EXPECT_TRUE(s_reports.empty()) << s_reports.front();
        EXPECT_FALSE(Staff().hasExpression());
    }
};

constexpr Case TextErrors[] = {
    {"a@", "an operator expected after 'a'"},
    {"a @\"x\"", "an operator expected after 'a'"},
    {"a @and", "an operator expected after 'a'"},
    {"a @(b", "an operator expected after 'a'"},
    {"a IS@", "a value in quotes expected after 'IS'"},
    {"a IS @x", "a value in quotes expected after 'IS'"},
    {"a IS @(\"x\")", "a value in quotes expected after 'IS'"},
    {"a IS @or", "a value in quotes expected after 'IS'"},
    {"a IS @'x'", "a value in quotes expected after 'IS'"},
    {"a IS @\"x", "the value has no closing quote"},
    {"a IS @\"", "the value has no closing quote"},
    {"a IS \"x\" and b IS @\"y\\\"", "the value has no closing quote"},
    {"a IS \"x@\\y\"", "a backslash stands before a quote or a backslash only"},
    {"a IS \"@\\", "a backslash stands before a quote or a backslash only"},
    {"a IS \"\\\\@\\n\"", "a backslash stands before a quote or a backslash only"},
    {"a IS \"x\" @b", "'and' or 'or' expected before 'b'"},
    {"a IS \"x\"@\"y\"", "'and' or 'or' expected before 'y'"},
    {"a IS \"x\" @(b IS \"x\")", "'and' or 'or' expected before '('"},
    {"a IS \"x\" @not b IS \"x\"", "'and' or 'or' expected before 'not'"},
    {"a IS \"x\" and@", "the expression ends where a condition is expected"},
    {"a IS \"x\" OR@", "the expression ends where a condition is expected"},
    {"not@", "the expression ends where a condition is expected"},
    {"(@", "the expression ends where a condition is expected"},
    {"@or a IS \"x\"", "a condition expected, not 'or'"},
    {"@and a IS \"x\"", "a condition expected, not 'and'"},
    {"a IS \"x\" or @or b IS \"x\"", "a condition expected, not 'or'"},
    {"not @and", "a condition expected, not 'and'"},
    {"@\"x\"", "a condition expected, not 'x'"},
    {"(@)", "a condition expected, not ')'"},
    {"@)", "a condition expected, not ')'"},
    {"@(a IS \"x\"", "the bracket is not closed"},
    {"(a IS \"x\") and @(b IS \"x\" or (a IS \"x\")", "the bracket is not closed"},
    {"a IS \"x\"@)", "a closing bracket without its opening one"},
    {"(a IS \"x\") @)", "a closing bracket without its opening one"},
};

// However the text before the error is written: beginning, mark and end.
struct Form {
    char const* before;
    char const* behind;
};

constexpr Form Forms[] = {
    {"", ""},
    {" \t", " "},
    {"\n\n  ", "\n"},
    {"\r\n\r\n\t", ""},
    {"\r ", ""},
    {"c IS \"&lt;&#x20AC;&#233;&#128512;&amp;\" or ", ""},
    {"c IS &quot;&apos;&gt;&quot; and\n ", ""},
    {"c IS \"\xE2\x82\xAC\" or ", ""},
    {"c IS \"x&nbsp;&#xZZ;\"\r\nor ", ""},
    {"<!-- one\nline --> c IS \"x\" or ", ""},
    {"c IS \"x\"<!-- and another --> or ", ""},
    {"<![CDATA[c IS \"<&lt;\" or]]>\n ", ""},
    {"c IS \"x\" or <![CDATA[\n  ", "]]>"},
    {"<![CDATA[c IS \"&lt;&#65;\" or ", "]]>"},
    {"c <![CDATA[IS]]><?instruction?> \"x\" or ", "<!-- and the end -->"},
};

TEST_F(RuleErrors, OfATextNameTheByteHoweverItIsWritten) {
    for (auto const& [before, behind] : Forms)
        for (auto const& [body, reason] : TextErrors)
            ExpectError("<identities>\n<identity name=\"staff\">" + (before + std::string(body)) + behind +
                            "</identity></identities>",
                        reason);
}

TEST_F(RuleErrors, FormsOfTheSweepAreFineWithoutAnError) {
    for (auto const& [before, behind] : Forms)
        EXPECT_EQ(ErrorOfStaff(before + std::string("a IS \"x\"") + behind), "(none)") << before;
}

#define IS "<is subject='a' op='IS' value='x'/>"

TEST_F(RuleErrors, OfElementsNameTheElementOrItsAttribute) {
    constexpr Case Cases[] = {
        {"@<is op='IS' value='x'/>", "<is> lacks its attribute 'subject'"},
        {"@<is subject='a' value='x'/>", "<is> lacks its attribute 'op'"},
        {"@<is subject='a' op='IS'/>", "<is> lacks its attribute 'value'"},
        {"<is @subject='' op='IS' value='x'/>", "attribute 'subject' is empty"},
        {"<is subject='a'\n  @op='' value='x'/>", "attribute 'op' is empty"},
        {"<is subject='a' op='IS' value='x'\n\t@values='y'/>", "<is> has no attribute 'values'"},
        {"<is subject='a' op='IS' value='x name=' @name='y'/>", "<is> has no attribute 'name'"},
        {"@<is subject='a' op='IS' value='x' op='IS'/>", "attribute 'op' stands twice"},
        {"<is subject='a' op='IS' value='x'>@y</is>", "<is> takes nothing inside"},
        {"<is subject='a' op='IS' value='x'>\n@" IS "</is>", "<is> takes nothing inside"},
        {"@<xor>" IS "</xor>", "<and>, <or>, <not> or <is> expected, not <xor>"},
        {"<and>" IS "\n <not>@<IS/></not></and>", "<and>, <or>, <not> or <is> expected, not <IS>"},
        {"@<identity name='x'/>", "<and>, <or>, <not> or <is> expected, not <identity>"},
        {"@<and/>", "<and> takes at least one condition"},
        {"<and>" IS "@<or>\n</or></and>", "<or> takes at least one condition"},
        {"@<not/>", "<not> takes one condition, not none"},
        {"<not>" IS "\n@" IS "</not>", "<not> takes one condition only"},
        {IS "@" IS, "<identity> takes one condition only"},
        {"<and @all='1'>" IS "</and>", "<and> has no attribute 'all'"},
        {"<or @all='1'>" IS "</or>", "<or> has no attribute 'all'"},
        {"<not\n @all='1'>" IS "</not>", "<not> has no attribute 'all'"},
        {"<and>" IS "\n  @b IS \"x\"</and>", "<and> takes no text"},
        {"<or>" IS "<![CDATA[@and]]></or>", "<or> takes no text"},
        {"<not> @a" IS "</not>", "<not> takes no text"},
        {" @a IS \"x\" or " IS, "<identity> takes no text"},
        {IS " <!-- c -->\n @or and", "<identity> takes no text"},
    };
    for (auto const& [body, reason] : Cases)
        ExpectError("<identities>\n<identity name=\"staff\">" + std::string(body) + "</identity></identities>", reason);
}

TEST_F(RuleErrors, OfTheFrameNameTheirPlaceToo) {
    constexpr Case Cases[] = {
        {"@<rules/>", "the root element is not <identities>"},
        {"<identities @version='9'/>", "version '9' is not known, only '1'"},
        {"<identities version='1' @author='x'/>", "<identities> has no attribute 'author'"},
        {"<identities>\n @text<identity name='a'/></identities>", "<identities> takes no text"},
        {"<identities>\n <identity name='a'/>\n @text</identities>", "<identities> takes no text"},
        {"<identities>@<other/></identities>", "<identity> expected, not <other>"},
        {"<identities>@<is/></identities>", "<identity> expected, not <is>"},
        {"<identities>@<identity/></identities>", "<identity> lacks its attribute 'name'"},
        {"<identities><identity @name=''/></identities>", "attribute 'name' is empty"},
        {"<identities><identity name='a'\n @when='b'/></identities>", "<identity> has no attribute 'when'"},
        {"<identities>@<identity name='a' name='a'/></identities>", "attribute 'name' stands twice"},
        {"<identities><identity name='a'/>\n@<identity name='a'/></identities>", "identity 'a' stands twice"},
        {"<!--\n-->@<!DOCTYPE identities><identities/>", "a document type is not allowed"},
        {"<identities/>\n @<identities/>", "more than one root element"},
        {"<identities/>\n @more", "text outside the root element"},
        {"<identities>\n@\xFF</identities>", "is not UTF-8"},
        {"<identities>\n <identity name='@&#0;'/></identities>", "a reference to a character that does not exist"},
    };
    for (auto const& [document, reason] : Cases) ExpectError(document, reason);
}

TEST_F(RuleErrors, OfTheMarkupNameALine) {
    for (auto const* const document :
         {"<identities>\n<identity name='a'>\n</identities>", "<identities>\n<identity name='a>\n</identity>",
          "<identities>\n<!-- never closed", "<identities>\n\n<identity name=a/></identities>",
          "<identities>\n<identity name='a'/>\n"}) {
        auto const error = ErrorOf(document);
        EXPECT_EQ(error.substr(0, 1), ":") << document;
        EXPECT_GE(std::stoi(error.substr(1)), 2) << error;
        EXPECT_NE(error.find(": ", 3), std::string::npos) << error;
    }
}

TEST_F(RuleErrors, OfTheFileAsAWholeNameTheFile) {
    EXPECT_EQ(ErrorOf("<identities>" + std::string(16 * 1024 * 1024, ' ')), ": is longer than 16 MiB");
    EXPECT_THROW(rules->load(root.path().c_str(), &Evaluate), KORtk::Exception);
}

TEST_F(RuleErrors, OneIdentityDoesNotHideTheErrorsOfTheNext) {
    EXPECT_EQ(ErrorOf("<identities>\n<identity name='a'>x</identity>\n<identity name='staff'>a IS \"1\"</identity>\n"
                      "<identity name='b'>\n(</identity>\n<other/></identities>"),
              ":2:21: an operator expected after 'x'");
    ASSERT_EQ(s_reports.size(), 2u);
    EXPECT_EQ(s_reports[0], (root / "identities.xml") + ":5:2: the expression ends where a condition is expected");
    EXPECT_EQ(s_reports[1], (root / "identities.xml") + ":6:1: <identity> expected, not <other>");
    EXPECT_TRUE(s_prepared.empty());
    EXPECT_FALSE(Staff().hasExpression());
}

TEST_F(RuleErrors, EveryValueThatIsNotTakenIsReportedAtItsCondition) {
    rules->addIdentities(Names({"guests"}));
    EXPECT_THROW(
        Load("<identities>\n<identity name='staff'>a IS \"1\" or\n  b IS \"throw\" and c IN \"throw\"</identity>\n"
             "<identity name='guests'><not>\n<is subject='a' op='IS' value='throw'/></not></identity>"
             "</identities>"),
        std::runtime_error);
    std::vector<std::string> expected;
    for (auto const* const place : {":3:3: identity 'staff'", ":3:20: identity 'staff'", ":5:1: identity 'guests'"})
        expected.push_back((root / "identities.xml") + place +
                           " has a value that its operator does not take: bad value");
    EXPECT_EQ(s_reports, expected);
    EXPECT_FALSE(Staff().hasExpression());
}

TEST_F(RuleErrors, AreNotReportedWithoutEnd) {
    EXPECT_EQ(ErrorOf("<identities>" + Repeated("<other/>", 1000) + "</identities>"),
              ":1:13: <identity> expected, not <other>");
    EXPECT_EQ(s_reports.size(), 99u);
    s_reports.clear();
    EXPECT_THROW(LoadStaff(Repeated("a IS \"throw\" or ", 1000) + "a IS \"x\""), std::runtime_error);
    EXPECT_EQ(s_reports.size(), 100u);
}

}  // namespace
