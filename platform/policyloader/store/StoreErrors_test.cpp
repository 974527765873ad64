// What the store says of files that are wrong: always file, line, column and reason.
#include <policyloader/store/StoreWorld.h>

namespace policyloader {
namespace {

class StoreErrors : public StoreWorld {
protected:
    // The error of these lines inside a policy's settings section; the first is line 4.
    static std::string InSettings(std::string const& inside) {
        return ErrorOf("<rules>\n<policy name='p'>\n<settings section='s'>\n" + inside +
                       "</settings>\n</policy></rules>");
    }
    static std::string InRules(std::string const& inside) { return ErrorOf("<rules>\n" + inside + "</rules>"); }
};

struct Case {
    char const* inside;
    char const* error;
};

TEST_F(StoreErrors, OfTheFrame) {
    constexpr Case Cases[] = {
        {"<polisy/>", "r:2:1: <polisy> is not expected here, in <rules>"},
        {"<policy/>", "r:2:1: <policy> lacks its attribute 'name'"},
        {"<policy name='a b'/>", "r:2:9: a name has no blanks and no commas"},
        {"<policy name='a' bas='b'/>", "r:2:18: <policy> has no attribute 'bas'"},
        {"<policy name='a'/>\n<policy name='a'/>", "r:3:1: policy 'a' stands twice"},
        {"stray", "r:2:1: <rules> takes no text"},
        {"<policy name='a'>stray</policy>", "r:2:18: <policy> takes no text"},
        {"<policy name='a'><set name='x'/></policy>", "r:2:18: <set> is not expected here, in <policy>"},
        {"<policy name='a'><actions/><actions/></policy>", "r:2:28: <actions> is not expected here, in <policy>"},
        {"<policy name='a'><actions><action/></actions></policy>", "r:2:27: an action has no name"},
        {"<policy name='a'><actions><action>X</action><action>X</action></actions></policy>",
         "r:2:45: action 'X' stands twice"},
        {"<policy name='a'><settings/></policy>", "r:2:18: <settings> lacks its attribute 'section'"},
    };
    for (auto const& [inside, error] : Cases) EXPECT_EQ(InRules(inside), error) << inside;
    EXPECT_EQ(ErrorOf("<rules version='2'/>"), "r:1:8: version '2' is not known, only '1'");
    EXPECT_EQ(ErrorOf("<rules").substr(0, 4), "r:1:");
}

TEST_F(StoreErrors, OfIdentities) {
    constexpr Case Cases[] = {
        {"<identity/>", "r:2:18: <identity> lacks its attribute 'name'"},
        {"<identity name='two words'/>", "r:2:28: a name has no blanks and no commas"},
        {"<identity name='i'/><identity name='i'/>", "r:2:38: identity 'i' stands twice in its policy"},
        {"<identity name='i'><identity name='j'/></identity>",
         "r:2:37: <identity> is not expected here, in <identity>"},
        {"<identity name='i' inherits='ghost'/>", "r:2:37: identity 'ghost' does not exist in this policy"},
        {"<identity name='i' inherits='i'/>", "r:2:37: identity 'i' inherits itself in a circle"},
    };
    for (auto const& [inside, error] : Cases)
        EXPECT_EQ(InRules("<policy name='a'>" + std::string(inside) + "</policy>"), error) << inside;
    EXPECT_EQ(InRules("<policy name='a'><identity name='i' inherits='j'/>\n<identity name='j' inherits='i'/></policy>"),
              "r:3:20: identity 'i' inherits itself in a circle");
}

TEST_F(StoreErrors, OfBases) {
    EXPECT_EQ(InRules("<policy name='a' base='ghost'/>"), "r:2:18: base policy 'ghost' does not exist");
    EXPECT_EQ(InRules("<policy name='a' base='a'/>"), "r:2:18: policy 'a' is its own base in a circle");
    EXPECT_EQ(InRules("<policy name='base' base='content'/>"), "r:2:21: policy 'base' is its own base in a circle");
    EXPECT_NE(InRules("<policy name='a' base='b'/>\n<policy name='b' base='a'/>").find("in a circle"),
              std::string::npos);
}

TEST_F(StoreErrors, OfSettings) {
    constexpr Case Cases[] = {
        {"<sett name='a'/>", "r:4:1: <sett> is not expected here, in <settings>"},
        {"<set/>", "r:4:1: <set> lacks its attribute 'name'"},
        {"<set name='a' value='1'/>", "r:4:15: <set> has no attribute 'value'"},
        {"<set name='a'><b/></set>", "r:4:15: <b> is not expected here, in <set>"},
        {"<set name='a'>1</set>\n<set name='a'>2</set>", "r:5:1: 'a' is set twice here, first in line 4"},
        {"<set name='a' when='moon'>1</set>", "r:4:15: 'moon' is no day (mon, tue, wed, thu, fri, sat, sun)"},
        {"<list name='a'>1</list>", "r:4:16: <list> takes no text"},
        {"<list name='a'><set/></list>", "r:4:16: <set> is not expected here, in <list>"},
        {"<list name='a'><item x='1'/></list>", "r:4:22: <item> has no attribute 'x'"},
        {"<alert name='a'><foot/></alert>", "r:4:17: <foot> is not expected here, in <alert>"},
        {"<alert name='a'><body/><body/></alert>", "r:4:24: <body> stands twice"},
        {"<rule name='a'>x</rule>", "r:4:16: <rule> takes nothing inside"},
        {"<rule name='a' name='b'/>", "r:4:1: attribute 'name' stands twice"},
        {"<rule name='a' when='25:00-26:00'/>", "r:4:16: '25:00' is no time of day (HH:MM)"},
    };
    for (auto const& [inside, error] : Cases) EXPECT_EQ(InSettings(inside), error) << inside;
}

TEST_F(StoreErrors, AreNoneForTheSameNameInAnotherSectionPolicyOrIdentity) {
    EXPECT_EQ(InRules("<policy name='a'><settings section='s'><set name='x'>1</set></settings>"
                      "<settings section='t'><set name='x'>1</set></settings><identity name='i'><settings section='s'>"
                      "<set name='x'>1</set></settings></identity></policy>"
                      "<policy name='b'><settings section='s'><set name='x'>1</set></settings></policy>"),
              "(none)");
}

// 1500 identities, each of which inherits all before it, would make more than a million values.
TEST_F(StoreErrors, BoundWhatInheritanceMultiplies) {
    std::string policy = "<policy name='a'>";
    for (int i = 0; i < 1500; ++i) {
        auto const number = std::to_string(i);
        policy += "<identity name='i" + number + "'";
        if (i > 0) policy += " inherits='i" + std::to_string(i - 1) + "'";
        policy += "><settings section='s'><set name='x" + number + "'>1</set></settings></identity>";
    }
    EXPECT_EQ(InRules(policy + "</policy>").substr(0, 4), "r:2:");
    EXPECT_NE(InRules(policy + "</policy>").find("more than a million values"), std::string::npos);
}

}  // namespace
}  // namespace policyloader
