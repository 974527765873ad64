#include <KORtk/Text.h>

#include <gtest/gtest.h>

#include <boost/regex.hpp>
#include <memory>
#include <string>

namespace {

using CharBuf = KORtk::CharBuf<char const, KORtk::CharBufPolicy::CString<char const, std::char_traits<char>>,
                               std::char_traits<char>>;
using KORtk::dos_to_regex_pattern;
using KORtk::Utf8Array;

bool Matches(std::string const& wildcard, std::string const& text) {
    return boost::regex_match(text, boost::regex(dos_to_regex_pattern(wildcard)));
}

TEST(CharBufs, BorrowUpToTheClosingZero) {
    char const text[] = "abc";
    CharBuf const buffer(text);
    EXPECT_EQ(buffer.data(), text);
    EXPECT_EQ(buffer.size(), 3u);
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), "abc");
}

TEST(CharBufs, AreEmptyTextsFromNothingAndFromNull) {
    for (CharBuf const& buffer : {CharBuf(), CharBuf(nullptr)}) {
        EXPECT_TRUE(buffer.empty());
        EXPECT_STREQ(buffer.c_str(), "");
    }
}

TEST(CharBufs, KeepTheirOwnerAlive) {
    auto owner = std::make_shared<std::string const>("kept");
    std::weak_ptr<std::string const> const watch = owner;
    {
        CharBuf const buffer(owner->c_str(), 2, owner);
        owner.reset();
        EXPECT_EQ(buffer.str(), "ke");
        CharBuf const copy = buffer;
        EXPECT_EQ(copy, buffer);
        EXPECT_FALSE(watch.expired());
    }
    EXPECT_TRUE(watch.expired());
}

TEST(CharBufs, CompareByContent) {
    std::string const first = "same", second = "same";
    EXPECT_EQ(CharBuf(first.c_str()), CharBuf(second.c_str()));
    EXPECT_FALSE(CharBuf("same") == CharBuf("other"));
}

TEST(Utf8Texts, GoToWideAndBack) {
    for (wchar_t const c :
         {L'\x01', L'\x7f', L'\x80', L'\x7ff', L'\x800', L'\xd7ff', L'\xe000', L'\xffff', L'\x10000', L'\x10ffff'}) {
        std::wstring const wide = {L'a', c, L'b'};
        EXPECT_EQ(Utf8Array(wide).wstr(), wide);
    }
}

TEST(Utf8Texts, ReadNullAsEmpty) {
    EXPECT_TRUE(Utf8Array(static_cast<char const*>(nullptr)).empty());
    EXPECT_TRUE(Utf8Array(static_cast<wchar_t const*>(nullptr)).empty());
}

TEST(Utf8Texts, KeepTheirBytesAndReadBadOnesAsReplacements) {
    Utf8Array const text(std::string("a\xff\xc3"));
    EXPECT_EQ(text.str(), "a\xff\xc3");
    EXPECT_EQ(text.wstr(), L"a\xfffd\xfffd");
}

TEST(Utf8Texts, WriteWhatIsNoCharacterAsReplacement) {
    EXPECT_EQ(Utf8Array(std::wstring(1, wchar_t(0xd800))).str(), "\xef\xbf\xbd");
    EXPECT_EQ(Utf8Array(std::wstring(1, wchar_t(0x110000))).str(), "\xef\xbf\xbd");
}

TEST(Wildcards, StandForRunsAndSingleCharacters) {
    EXPECT_EQ(dos_to_regex_pattern("*.ex?"), ".*\\.ex.");
    EXPECT_TRUE(Matches("*.ex?", "a.b.exe"));
    EXPECT_FALSE(Matches("*.ex?", "a.ex"));
    EXPECT_TRUE(Matches("*", ""));
    EXPECT_TRUE(Matches("a*b", "a\n\nb"));
}

TEST(Wildcards, EveryOtherCharacterMatchesItselfAlone) {
    for (int c = 1; c < 256; ++c) {
        if (c == '*' || c == '?') continue;
        std::string const one(1, static_cast<char>(c));
        EXPECT_TRUE(Matches(one, one)) << c;
        EXPECT_TRUE(Matches("a" + one + "z", "a" + one + "z")) << c;
        EXPECT_FALSE(Matches("a" + one + "z", "az")) << c;
        EXPECT_FALSE(Matches(one, one == "q" ? "r" : "q")) << c;
    }
}

}  // namespace
