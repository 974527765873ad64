// Text between character sets: whole, in pieces, and what does not fit.
#include <gtest/gtest.h>

#include <policyloader/engines/CharsetConverter.h>

using namespace policyloader;

namespace {

std::string Converted(std::string const& from, std::string const& to, std::string const& text, std::size_t piece,
                      bool* lossy = nullptr) {
    CharsetConverter converter(from, to);
    std::string out;
    for (std::size_t at = 0; at < text.size(); at += piece) out += converter.convert(text.substr(at, piece));
    out += converter.finish();
    if (lossy) *lossy = converter.lossy();
    return out;
}

std::string Question(char32_t) { return "?"; }

}  // namespace

TEST(CharsetConversion, GivesTheSameInPiecesOfAnySize) {
    std::string const text = "gr\xC3\xBC\xC3\x9F\r\n\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\n";
    for (std::string const set : {"utf-16", "utf-16be", "utf-16le", "utf-32", "gb18030", "utf-7"})
        for (std::size_t piece = 1; piece < 9; ++piece) {
            bool lossy = true;
            auto const there = Converted("utf-8", set, text, piece);
            EXPECT_EQ(Converted(set, "utf-8", there, piece, &lossy), text) << set << piece;
            EXPECT_FALSE(lossy) << set;
        }
    std::string const japanese = "a \xE6\x97\xA5\xE6\x9C\xAC\r\n b";
    EXPECT_EQ(Converted("iso-2022-jp", "utf-8", Converted("utf-8", "iso-2022-jp", japanese, 2), 1), japanese);
}

TEST(CharsetConversion, EndsInTheFirstState) {
    EXPECT_EQ(Converted("utf-8", "iso-2022-jp", "\xE6\x97\xA5", 9), "\x1B$BF|\x1B(B");
}

TEST(CharsetConversion, TellsWhatItCannotConvert) {
    bool lossy = false;
    EXPECT_EQ(Converted("utf-8", "iso-8859-1",
                        "a\xE2\x82\xAC"
                        "b",
                        1, &lossy)
                  .substr(0, 2),
              "a?");
    EXPECT_TRUE(lossy);
    Converted("utf-8", "utf-8", "a\xC3", 1, &lossy);
    EXPECT_TRUE(lossy);
    EXPECT_EQ(Converted("x-made-up", "utf-8", "a", 1, &lossy), "");
    EXPECT_TRUE(lossy);
    Converted("windows-1252", "utf-8", "\x80", 1, &lossy);
    EXPECT_FALSE(lossy);
}

TEST(CharsetConversion, OfAWholeTextIsAllOrNothing) {
    EXPECT_EQ(FromUtf8("plain", ""), "plain");
    EXPECT_EQ(FromUtf8("plain", "x-made-up"), "plain");
    EXPECT_EQ(FromUtf8("\xC3\xBC", "us-ascii"), std::nullopt);
    EXPECT_EQ(FromUtf8("\xC3\xBC", "x-made-up"), std::nullopt);
    EXPECT_EQ(FromUtf8("\xC3\xBC", "ISO-8859-1"), "\xFC");
    EXPECT_EQ(FromUtf8("\xE2\x82\xAC", "iso-8859-1"), std::nullopt);
    EXPECT_EQ(FromUtf8("\xE2\x82\xAC", "windows-1252"), "\x80");
    EXPECT_EQ(FromUtf8("a\xE2\x82\xAC\xC3\xBC", "iso-8859-1", Question), "a?\xFC");
}

TEST(Charsets, AreToldApartByHowTheyAreAddedTo) {
    EXPECT_EQ(KindOfCharset(""), CharsetKind::Ascii);
    EXPECT_EQ(KindOfCharset("US-ASCII"), CharsetKind::Ascii);
    EXPECT_EQ(KindOfCharset("UTF-8"), CharsetKind::Utf8);
    for (auto const* const set :
         {"utf-16", "UTF-16LE", "utf-32be", "utf-7", "iso-2022-jp", "iso-2022-kr", "hz-gb-2312"})
        EXPECT_EQ(KindOfCharset(set), CharsetKind::Whole) << set;
    for (auto const* const set : {"iso-8859-15", "koi8-r", "shift_jis", "big5", "gb18030", "euc-jp", "windows-1251"})
        EXPECT_EQ(KindOfCharset(set), CharsetKind::Bytes) << set;
    EXPECT_EQ(KindOfCharset("x-made-up"), CharsetKind::Unknown);
    EXPECT_EQ(KindOfCharset("ucs-2"), CharsetKind::Foreign);
}
