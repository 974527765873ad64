#include <gtest/gtest.h>
#include <velt/streams/NameMatch.h>

#include <random>
#include <string>

#include <testing/NameMatchModel.h>

using namespace VELT;

namespace {

int Score(char const* pattern, char const* name) { return name_match(pattern, name, false); }
int Folded(char const* pattern, char const* name) { return name_match(pattern, name, true); }
// Where the set ends, -1 for "not in it".
long Set(char const* set, char c, bool fold = false) {
    char const* const end = set_match(set, static_cast<unsigned char>(c), fold);
    return end ? end - set : -1;
}

}  // namespace

TEST(NameMatch, ScoresAnExactNameOne) {
    EXPECT_EQ(Score("alpha.test", "alpha.test"), 1);
    EXPECT_EQ(Score("", ""), 1);
    EXPECT_EQ(Score("alpha.test", "alpha.tes"), 0);
    EXPECT_EQ(Score("alpha.tes", "alpha.test"), 0);
    EXPECT_EQ(Score("alpha", ""), 0);
}

TEST(NameMatch, ScoresAStarByTheLabelsThatItSwallows) {
    EXPECT_EQ(Score("*.alpha.test", "mail.alpha.test"), 2);
    EXPECT_EQ(Score("*.alpha.test", "a.b.alpha.test"), 3);
    EXPECT_EQ(Score("*.alpha.test", "a.b.c.alpha.test"), 4);
    EXPECT_EQ(Score("*.alpha.test", ".alpha.test"), 2);
    EXPECT_EQ(Score("*.alpha.test", "alpha.test"), 0);
}

TEST(NameMatch, CountsTheDotsThatAStarAtTheEndSwallows) {
    EXPECT_EQ(Score("*", ""), 2);
    EXPECT_EQ(Score("*", "a"), 2);
    EXPECT_EQ(Score("*", "a.b.c"), 4);
    EXPECT_EQ(Score("mail*", "mail.alpha.test"), 4);
    EXPECT_EQ(Score("***", "a.b"), 3);
}

TEST(NameMatch, AddsUpOverSeveralStars) {
    EXPECT_EQ(Score("*b*d*", "abcde"), 4);
    EXPECT_EQ(Score("a*.*z", "a.b.z"), 4);
    EXPECT_EQ(Score("*a*b", "aab"), 3);
    EXPECT_EQ(Score("*ab*cd", "abab.cdcd"), 4);
}

TEST(NameMatch, FoldsCaseOnlyWhenAskedTo) {
    EXPECT_EQ(Score("alpha.test", "Alpha.TEST"), 0);
    EXPECT_EQ(Folded("alpha.test", "Alpha.TEST"), 1);
    EXPECT_EQ(Folded("ALPHA.*", "alpha.x"), 2);
    EXPECT_EQ(Folded("\xc4", "\xe4"), 0) << "letters are A to Z";
}

TEST(NameMatch, FoldsTheCaseOfSetsAlways) {
    EXPECT_EQ(Score("[A-C]", "b"), 2);
    EXPECT_EQ(Score("[a-c]", "B"), 2);
    EXPECT_EQ(Score("[xyz]", "Y"), 2);
}

TEST(NameMatch, CountsSetsOncePerStretch) {
    EXPECT_EQ(Score("[a]", "a"), 2);
    EXPECT_EQ(Score("[a][b][c]", "abc"), 2);
    EXPECT_EQ(Score("[a]*[b]", "axb"), 4);
}

TEST(NameMatch, NeverMatchesASetBehindTheNamesEnd) {
    EXPECT_EQ(Score("a[^x]", "a"), 0);
    EXPECT_EQ(Score("a[", "a"), 0);
    EXPECT_EQ(Score("[", ""), 0);
    EXPECT_EQ(Score("*[^x]", ""), 0);
}

TEST(NameMatch, StaysInsideAPatternThatEndsInABracket) {
    EXPECT_EQ(Score("[", "a"), 2);
    EXPECT_EQ(Score("[", "ab"), 0);
    EXPECT_EQ(Score("x[", "xy"), 2);
}

TEST(NameMatch, GoesOnBehindTheFirstByteOfASetWithoutAnEnd) {
    EXPECT_EQ(Score("[abc", "xbc"), 2);
    EXPECT_EQ(Score("[abc", "xabc"), 0);
    EXPECT_EQ(Score("[z-a]b", "q-a]b"), 2);
}

TEST(NameMatch, TakesItsTimeByTheProductOfBothLengths) {
    std::string pattern, name(20000, 'a');
    for (int i = 0; i < 50; ++i) pattern += "*a";
    EXPECT_EQ(Score((pattern + "*b").c_str(), name.c_str()), 0);
    EXPECT_EQ(Score(pattern.c_str(), name.c_str()), 51);
}

// The plain form would try hundreds of millions of ways for the long name, so that it is asked about shorter ones.
TEST(NameMatch, ScoresManyStarsAsThePlainFormDoes) {
    std::string const name(255, 'a');
    EXPECT_EQ(Score("*a*a*a*b", name.c_str()), 0);
    EXPECT_EQ(Score("*a*a*a*b", (name.substr(1) + 'b').c_str()), 5);
    EXPECT_EQ(Score("*a*a*a*[b]", name.c_str()), 0);
    EXPECT_EQ(Score("*a*a*a*[b]", (name.substr(1) + 'b').c_str()), 6);
    for (std::size_t length = 0; length < 20; ++length)
        for (char const* pattern : {"*a*a*a*b", "*a*a*a*[b]", "*a*a*a*", "*a*[a]*a"})
            for (char const* ending : {"", "b", ".b"}) {
                std::string const shorter = name.substr(0, length) + ending;
                EXPECT_EQ(Score(pattern, shorter.c_str()), velt_testing::ModelMatch(pattern, shorter.c_str(), false))
                    << pattern << ' ' << shorter;
            }
}

TEST(NameMatch, ScoresAnyTextAsThePlainFormDoes) {
    std::mt19937 random(1);
    auto const text = [&](std::string const& letters, std::size_t longest) {
        std::string made(random() % (longest + 1), ' ');
        for (char& c : made) c = letters[random() % letters.size()];
        return made;
    };
    int matches = 0;
    for (int i = 0; i < 300000; ++i) {
        std::string const pattern = text(i % 2 ? "aAb.*" : "aAbc.*[]^-", 8);
        std::string const name = text("aAb.", 10);
        for (bool const fold : {false, true}) {
            int const score = name_match(pattern.c_str(), name.c_str(), fold);
            ASSERT_EQ(score, velt_testing::ModelMatch(pattern.c_str(), name.c_str(), fold)) << pattern << ' ' << name;
            matches += score > 1;
        }
    }
    EXPECT_GT(matches, 10000) << "these texts must not all differ";
}

TEST(SetMatch, AnswersThePlaceOfTheClosingBracket) {
    EXPECT_EQ(Set("abc]rest", 'a'), 3);
    EXPECT_EQ(Set("abc]rest", 'c'), 3);
    EXPECT_EQ(Set("abc]rest", 'r'), -1);
    EXPECT_EQ(Set("abc]rest", ']'), -1);
}

TEST(SetMatch, LeavesOutTheEndOfARange) {
    EXPECT_EQ(Set("a-c]", 'a'), 3);
    EXPECT_EQ(Set("a-c]", 'b'), 3);
    EXPECT_EQ(Set("a-c]", 'c'), -1);
    EXPECT_EQ(Set("a-z]", 'z'), -1);
    EXPECT_EQ(Set("a-c-e]", 'c'), -1);
    EXPECT_EQ(Set("a-c-e]", '-'), 5) << "behind a range the dash is itself";
    EXPECT_EQ(Set("a-c-e]", 'e'), 5);
}

TEST(SetMatch, HoldsEverythingInARangeOfOneByte) {
    for (int c = 0; c < 256; ++c) {
        EXPECT_EQ(Set("x-x]", static_cast<char>(c)), 3);
        EXPECT_EQ(Set("^x-x]", static_cast<char>(c)), -1);
    }
}

TEST(SetMatch, ComparesBytesAsUnsigned) {
    EXPECT_EQ(Set("\x7f-\xff]", '\x80'), 3);
    EXPECT_EQ(Set("\x80-\x7f]", 'a'), 0) << "a backward range ends the set";
}

TEST(SetMatch, InvertsBehindACaret) {
    EXPECT_EQ(Set("^a]", 'a'), -1);
    EXPECT_EQ(Set("^a]", 'b'), 2);
    EXPECT_EQ(Set("a^]", '^'), 2) << "only in front";
}

TEST(SetMatch, TakesABracketInFrontAsAMember) {
    EXPECT_EQ(Set("]a]", ']'), 2);
    EXPECT_EQ(Set("]a]", 'a'), 2);
    EXPECT_EQ(Set("^]]", ']'), -1);
    EXPECT_EQ(Set("^]]", 'a'), 2);
}

TEST(SetMatch, MatchesAnythingWhenItsEndCannotBeRead) {
    for (char const* open : {"abc", "", "^abc", "z-a]", "abz-a]", "a-", "]", "^"}) {
        EXPECT_EQ(Set(open, 'q'), 0) << open;
        EXPECT_EQ(Set(open, 'a'), 0) << open;
    }
}

TEST(SetMatch, AddsNothingForARangeThatTheBracketCuts) {
    EXPECT_EQ(Set("a-]", 'a'), -1);
    EXPECT_EQ(Set("xa-]", 'x'), 3);
    EXPECT_EQ(Set("^a-]", 'a'), 3);
}

TEST(SetMatch, FoldsOnlyWhenAskedTo) {
    EXPECT_EQ(Set("a-c]", 'B'), -1);
    EXPECT_EQ(Set("a-c]", 'B', true), 3);
    EXPECT_EQ(Set("A]", 'a', true), 1);
    EXPECT_EQ(Set("[]", '{', true), -1) << "only letters have another case";
}
