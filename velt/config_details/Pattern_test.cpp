// Patterns and network objects as an administrator writes them.
#include <KORtk/Text.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include <velt/config_details/netobject.h>
#include <velt/config_details/pattern.h>

using namespace VELT::config_types;
using namespace VELT::config_types::detail;

namespace {

using Pattern = basic_pattern<char, true>;

Pattern PatternOf(std::string_view text) {
    Pattern pattern;
    pattern.set_regex(text.data(), text.data() + text.size());
    return pattern;
}

netobject_is_domain DomainOf(std::string_view text) {
    return netobject_is_domain(text.data(), text.data() + text.size());
}

bool TextMatch(netobject_interface const& object, std::string_view text) {
    return object.text_match(text.data(), text.data() + text.size());
}

constexpr std::uint32_t Ip(unsigned a, unsigned b, unsigned c, unsigned d) { return a << 24 | b << 16 | c << 8 | d; }

}  // namespace

TEST(Pattern, WildcardsAreTranslatedBetweenAnchors) {
    EXPECT_EQ(PatternOf("a*.txt").expression(), "^" + KORtk::dos_to_regex_pattern("a*.txt") + "$");
    EXPECT_TRUE(PatternOf("a*.txt").match("abc.txt"));
    EXPECT_TRUE(PatternOf("a*.txt").match("a.txt"));
    EXPECT_FALSE(PatternOf("a*.txt").match("abcxtxt"));
    EXPECT_FALSE(PatternOf("a*.txt").match("a.txt.exe"));
    EXPECT_TRUE(PatternOf("a?c").match("abc"));
    EXPECT_FALSE(PatternOf("a?c").match("ac"));
}

TEST(Pattern, BehindThePrefixIsCompiledAsItStands) {
    EXPECT_EQ(PatternOf("regex:^a.*").expression(), "^a.*");
    EXPECT_TRUE(PatternOf("regex:^a.*").match("abc"));
    EXPECT_FALSE(PatternOf("regex:^a.*").match("bac"));
    EXPECT_EQ(PatternOf("regex:b+").expression(), "b+");
}

TEST(Pattern, MatchesTheWholeTextAndIgnoresCase) {
    EXPECT_FALSE(PatternOf("regex:b+").match("abbc"));
    EXPECT_TRUE(PatternOf("regex:b+").match("bBb"));
    EXPECT_TRUE(PatternOf("*@EXAMPLE.test").match("Joe@example.TEST"));
}

TEST(Pattern, PrefixCountsInLowerCaseOnly) {
    EXPECT_EQ(PatternOf("REGEX:x").expression(), "^" + KORtk::dos_to_regex_pattern("REGEX:x") + "$");
    EXPECT_TRUE(PatternOf("REGEX:x").match("regex:X"));
    EXPECT_FALSE(PatternOf("REGEX:x").match("x"));
}

TEST(Pattern, EscapesWhatIsNoWildcard) {
    for (char const* text : {"a.b", "a+b", "(a)", "[a]", "{a}", "a|b", "^a", "a$", "a\\b"}) {
        EXPECT_TRUE(PatternOf(text).match(text)) << text;
    }
    EXPECT_FALSE(PatternOf("a.b").match("axb"));
}

TEST(Pattern, ThatIsNoExpressionThrowsAndKeepsTheOldOne) {
    Pattern pattern = PatternOf("a*");
    std::string_view const bad = "regex:(";
    EXPECT_THROW(pattern.set_regex(bad.data(), bad.data() + bad.size()), boost::regex_error);
    EXPECT_TRUE(pattern.match("abc"));
}

TEST(Pattern, ThatExplodesOnATextDoesNotMatchIt) {
    Pattern const pattern = PatternOf("regex:(a+)+$");
    EXPECT_FALSE(pattern.match(std::string(4000, 'a') + "b"));
    EXPECT_TRUE(pattern.match("aaa"));
}

// Where such a pattern does not match, the expression library goes back and forth until its budget is spent.
TEST(Pattern, OfManyStarsIsMatchedToItsEnd) {
    std::string const many(2000, 'a');
    Pattern const pattern = PatternOf("*a*a*a*a*a*a*a*ab*");
    EXPECT_TRUE(pattern.match("aaaaaaaab" + many));
    EXPECT_FALSE(pattern.match("aaaaaaab" + many));
    EXPECT_FALSE(pattern.match(many));
    EXPECT_TRUE(PatternOf("regex:^.*a.*a.*a.*a.*a.*a.*a.*ab.*$").match("aaaaaaaab" + many));
}

TEST(Pattern, TakesTheSameCharacterOnceOnly) {
    EXPECT_FALSE(PatternOf("ab*bc").match("abc"));
    EXPECT_TRUE(PatternOf("ab*bc").match("abbc"));
    EXPECT_FALSE(PatternOf("*ab*ab*").match("xabx"));
    EXPECT_TRUE(PatternOf("*ab*ab*").match("abab"));
    EXPECT_TRUE(PatternOf("*?*").match("a"));
    EXPECT_FALSE(PatternOf("*?*").match(""));
    EXPECT_TRUE(PatternOf("**").match(""));
    EXPECT_FALSE(PatternOf("a*?").match("a"));
    EXPECT_FALSE(PatternOf("x*aa").match("xa"));
    EXPECT_FALSE(PatternOf("a*a").match("a"));
}

// One that begins and ends as a translation does is not taken for one.
TEST(Pattern, ThatIsMoreThanWildcardsStaysAnExpression) {
    EXPECT_TRUE(PatternOf("regex:^a|b$").match("b"));
    EXPECT_FALSE(PatternOf("regex:^a|b$").match("a|b"));
    EXPECT_TRUE(PatternOf("regex:^ab+$").match("abb"));
    EXPECT_TRUE(PatternOf("regex:^ab?$").match("a"));
    EXPECT_TRUE(PatternOf("regex:^ab*$").match("abb"));
    EXPECT_TRUE(PatternOf("regex:^a.*?$").match("ab"));
    EXPECT_TRUE(PatternOf("regex:^a{2}$").match("aa"));
    EXPECT_TRUE(PatternOf("regex:^[ab]$").match("b"));
    EXPECT_TRUE(PatternOf("regex:^(a)$").match("a"));
    EXPECT_TRUE(PatternOf("regex:^\\d$").match("7"));
    EXPECT_FALSE(PatternOf("regex:^a\\$").match("a"));
    EXPECT_TRUE(PatternOf("regex:^a\\$").match("a$"));  // the sign itself, and no end
    EXPECT_TRUE(PatternOf("regex:^\\*\\?$").match("*?"));
}

TEST(Pattern, TakesAnyByte) {
    std::string const bytes("\0\n\r\x80\xff", 5);
    EXPECT_TRUE(PatternOf("?????").match(bytes));
    EXPECT_TRUE(PatternOf("*").match(bytes));
    EXPECT_TRUE(PatternOf(bytes).match(bytes));
    EXPECT_FALSE(PatternOf("????").match(bytes));
    for (int c = 1; c < 256; ++c) {
        std::string const text(1, static_cast<char>(c));
        EXPECT_TRUE(PatternOf("?").match(text)) << c;
        EXPECT_TRUE(PatternOf(text).match(text)) << c;
    }
}

TEST(Pattern, IsTheSameFromAnyLength) {
    for (std::size_t length : {126u, 127u, 128u, 129u, 1000u}) {
        std::string const text(length, 'x');
        EXPECT_TRUE(PatternOf(text).match(text));
        EXPECT_TRUE(PatternOf("*" + text).match("y" + text));
        EXPECT_FALSE(PatternOf(text).match(text + "x"));
        EXPECT_FALSE(PatternOf(text + "?").match(text));
    }
}

TEST(Pattern, NeverSetMatchesNothing) {
    EXPECT_FALSE(Pattern().match(""));
    EXPECT_FALSE(Pattern().match("a"));
}

TEST(Pattern, OfNothingMatchesTheEmptyText) {
    EXPECT_TRUE(PatternOf("").match(""));
    EXPECT_FALSE(PatternOf("").match("a"));
}

TEST(Expression, IsNotTranslated) {
    basic_regex<char, true> expression;
    std::string_view const text = "regex:x*";
    expression.set_regex(text.data(), text.data() + text.size());
    EXPECT_TRUE(expression.match("REGEX:xx"));
    EXPECT_FALSE(expression.match("xx"));
}

TEST(NetworkObject, HoldsTheAddressesUnderItsMask) {
    netobject_is_network const network(KORnet::IPv4Mask(Ip(10, 1, 2, 3), Ip(255, 0, 0, 0)));
    EXPECT_TRUE(network.network_match(KORnet::IPAddr(Ip(10, 200, 0, 1)), false));
    EXPECT_FALSE(network.network_match(KORnet::IPAddr(Ip(11, 1, 2, 3)), false));
    EXPECT_FALSE(network.network_match(KORnet::IPAddr("::ffff:10.0.0.1"), true));
    EXPECT_TRUE(TextMatch(network, "10.9.9.9"));
    EXPECT_FALSE(TextMatch(network, "11.9.9.9"));
    EXPECT_FALSE(network.email_match(KORnet::EmailAddr("joe@10.1.2.3")));
}

TEST(NetworkObject, OfEverybodyHoldsEveryIPv4AddressAndNoOther) {
    netobject_is_network const everybody(KORnet::IPv4Mask(0, 0));
    EXPECT_TRUE(everybody.network_match(KORnet::IPAddr(Ip(192, 0, 2, 1)), false));
    EXPECT_FALSE(everybody.network_match(KORnet::IPAddr("::1"), false));
    EXPECT_FALSE(everybody.network_match(KORnet::IPAddr("::1"), true));
}

TEST(MailObject, MatchesTheAddressAndNoNetwork) {
    std::string_view const text = "*@example.test";
    netobject_is_email const mail(text.data(), text.data() + text.size());
    EXPECT_TRUE(mail.email_match(KORnet::EmailAddr("Joe@EXAMPLE.test")));
    EXPECT_FALSE(mail.email_match(KORnet::EmailAddr("joe@example.test.invalid")));
    EXPECT_TRUE(TextMatch(mail, "joe@example.test"));
    EXPECT_FALSE(mail.network_match(KORnet::IPAddr(Ip(10, 0, 0, 1)), true));
}

TEST(DomainObject, OfThePrefixAloneIsAPattern) {
    EXPECT_TRUE(DomainOf("regex:").is_pattern());
    EXPECT_FALSE(DomainOf("regex").is_pattern());
    EXPECT_FALSE(DomainOf("REGEX:").is_pattern());
    EXPECT_TRUE(DomainOf("*").is_pattern());
    EXPECT_TRUE(DomainOf("a?").is_pattern());
    EXPECT_FALSE(DomainOf("").is_pattern());
}

TEST(DomainObject, ComparesAPlainNameWithoutCase) {
    netobject_is_domain const domain = DomainOf("Mail.Example.test");
    EXPECT_TRUE(TextMatch(domain, "mAIL.example.TEST"));
    EXPECT_FALSE(TextMatch(domain, "mail.example.test."));
    EXPECT_FALSE(TextMatch(domain, "mail.example"));
    EXPECT_FALSE(TextMatch(DomainOf("[a]"), "{a}"));  // only letters have a case
}

TEST(DomainObject, MatchesAPatternWhole) {
    netobject_is_domain const domain = DomainOf("*.example.test");
    EXPECT_TRUE(TextMatch(domain, "a.EXAMPLE.test"));
    EXPECT_FALSE(TextMatch(domain, "example.test"));
}

TEST(DomainObject, ResolvesAPlainNameWhenItMay) {
    netobject_is_domain const local = DomainOf("127.0.0.1");
    KORnet::IPAddr const loopback(Ip(127, 0, 0, 1));
    EXPECT_TRUE(local.network_match(loopback, true));
    EXPECT_FALSE(local.network_match(loopback, false));
    EXPECT_FALSE(local.network_match(KORnet::IPAddr(Ip(127, 0, 0, 2)), true));
    EXPECT_FALSE(local.network_match(KORnet::IPAddr("::1"), true));
    EXPECT_FALSE(DomainOf("127.0.0.?").network_match(loopback, true));
}

TEST(DomainObject, IsNoMailAddress) {
    EXPECT_FALSE(DomainOf("*").email_match(KORnet::EmailAddr("joe@example.test")));
    EXPECT_FALSE(DomainOf("joe@example.test").email_match(KORnet::EmailAddr("joe@example.test")));
}
