#include <KORtk/Utf8.h>

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Utf8Steps, RefuseOverlongSurrogateAndTooLargeForms) {
    for (char const* bad : {"\xc0\x80", "\xc1\xbf", "\xe0\x80\x80", "\xed\xa0\x80", "\xf0\x80\x80\x80",
                            "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\x80", "\xff", "\xc3", "\xe2\x82", "\xc3("}) {
        KORtk::Utf8Step const step = KORtk::ReadUtf8(bad);
        EXPECT_FALSE(step.valid) << bad;
        EXPECT_EQ(step.length, 1u);
        EXPECT_TRUE(step.codePoint == 0xFFFD);
    }
}

TEST(Utf8Steps, ReadBackEveryPlaneAsItWasWritten) {
    for (char32_t c = 0; c <= 0x10FFFF; c += 37) {
        if (c >= 0xD800 && c <= 0xDFFF) continue;
        std::string text;
        KORtk::AppendUtf8(text, c);
        KORtk::Utf8Step const step = KORtk::ReadUtf8(text + "x");
        ASSERT_TRUE(step.valid) << static_cast<unsigned>(c);
        ASSERT_TRUE(step.codePoint == c);
        ASSERT_EQ(step.length, text.size());
    }
}

TEST(Utf8Prefixes, NeverCutASequence) {
    std::string const text = "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80z";  // sequences end at 1, 3, 6, 10, 11
    std::size_t const expected[] = {0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10, 11, 11};
    for (std::size_t limit = 0; limit < std::size(expected); ++limit)
        EXPECT_EQ(KORtk::Utf8Prefix(text, limit), expected[limit]) << limit;
}

TEST(Utf8Prefixes, CutBytesThatAreNoTextAtTheLimit) { EXPECT_EQ(KORtk::Utf8Prefix(std::string(20, '\x80'), 10), 10u); }

}  // namespace
