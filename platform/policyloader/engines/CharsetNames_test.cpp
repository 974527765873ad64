#include <policyloader/engines/CharsetNames.h>

#include <gtest/gtest.h>

using namespace policyloader;

TEST(CharsetNames, AreKnownInAnyCaseOfLetters) {
    for (char const* name : {"utf-8", "UTF-8", "Iso-8859-1", "KOI8-R", "big5", "x-sjis", "windows-1252"})
        EXPECT_TRUE(IsKnownCharset(name)) << name;
}

TEST(CharsetNames, AreUnknownWhenASenderInventsThem) {
    for (char const* name : {"", "utf-9", "x-attack-0001", "utf-8//TRANSLIT", "a-name-that-is-longer-than-any-of-them"})
        EXPECT_FALSE(IsKnownCharset(name)) << name;
}

TEST(EncodedWords, KeepKnownCharacterSetsAndLoseInventedOnes) {
    EXPECT_EQ(WithKnownCharsets("a =?UTF-8?Q?b?= =?x-1?Q?c?= d"), "a =?UTF-8?Q?b?= =?windows-1252?Q?c?= d");
    EXPECT_EQ(WithKnownCharsets("=?utf-8*en?B?eA==?="), "=?utf-8*en?B?eA==?=");
}

TEST(ExtendedParameters, KeepKnownCharacterSetsAndLoseInventedOnes) {
    EXPECT_EQ(WithKnownCharsets("attachment; filename*=utf-8'en'a%20b"), "attachment; filename*=utf-8'en'a%20b");
    EXPECT_EQ(WithKnownCharsets("attachment; filename*0*=x-2''a; x=1"), "attachment; filename*0*=windows-1252''a; x=1");
}

TEST(ExtendedParameters, AreNothingInsideOfQuotes) {
    for (char const* text : {"multipart/mixed; boundary=\"a*=b'c\"", "multipart/mixed; boundary=\"a=?b?c\""})
        EXPECT_EQ(WithKnownCharsets(text), text);
}

TEST(EncodedWords, ThatAreBrokenStayAsTheyAre) {
    for (char const* text : {"", "plain", "=?", "=?utf-8", "a=?b", "?=?"}) EXPECT_EQ(WithKnownCharsets(text), text);
}
