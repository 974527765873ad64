// Base64 words side by side, as mail programs write long subjects.
#include <policyloader/engines/EncodedWords.h>
#include <policyloader/engines/ScanFixture.h>

using namespace policyloader;

TEST(WholeWords, AreMadeOfWordsSideBySide) {
    EXPECT_EQ(WithWholeWords("=?utf-8?B?YWI=?= =?UTF-8?b?Y2Q=?="), "=?utf-8?B?YWJjZA==?=");
    EXPECT_EQ(WithWholeWords("x =?utf-8?B?YQ==?=\r\n\t=?utf-8?B?Yg==?= =?utf-8?B?Yw==?= y"), "x =?utf-8?B?YWJj?= y");
    EXPECT_EQ(WithWholeWords("=?utf-8?B?YWJj?==?utf-8?B?ZGVm?="), "=?utf-8?B?YWJjZGVm?=");
    EXPECT_EQ(WithWholeWords("=?utf-8?B?YQ?= =?utf-8?B?Yg?="), "=?utf-8?B?YWI=?=") << "padding may be left out";
}

TEST(WholeWords, MayPartACharacter) {
    EXPECT_EQ(WithWholeWords("=?utf-8?B?ww==?= =?utf-8?B?qQ==?="), "=?utf-8?B?w6k=?=");
}

TEST(WholeWords, AreNothingElse) {
    for (char const* text :
         {"", "plain", "=?", "=?utf-8", "=?utf-8?", "=?utf-8?B", "=?utf-8?B?", "=?utf-8?B?YQ==", "=?utf-8?B?YQ==?",
          "=?utf-8?B?YWI=?=", "=?utf-8?B?YWI=?= x =?utf-8?B?Y2Q=?=", "=?utf-8?B?YWI=?= =?koi8-r?B?Y2Q=?=",
          "=?utf-8?Q?a=3D?= =?utf-8?Q?b?=", "=?utf-8?B?YWI=?= =?utf-8?Q?b?=", "=?=?utf-8?B?", "=?utf-8?X?YQ==?="})
        EXPECT_EQ(WithWholeWords(text), text);
}

namespace {

class PaddedWords : public ScanFixture {
protected:
    std::string Found(std::string const& fields) {
        return Scan("From: a@example.test\r\n" + fields + "\r\n\r\nx\r\n").found("KORContentScanner");
    }
};

}  // namespace

// Each word is padded; what stands behind the first of them is not lost.
TEST_F(PaddedWords, HideNoSubject) {
    Policy(
        "<settings section=\"KORContentScanner\"><rule name=\"s\" where=\"subject\" match=\"good morning\"/>"
        "</settings>");
    EXPECT_EQ(Found("Subject: =?utf-8?B?R29vZA==?=\r\n =?utf-8?B?IG1vcm5pbmc=?="), "s");
    EXPECT_EQ(Found("Subject: =?utf-8?B?dw==?= =?utf-8?B?R29vZCA=?= =?utf-8?B?bW9ybmluZw==?="), "s");
}

TEST_F(PaddedWords, HideNoName) {
    Policy(
        "<settings section=\"KORContentScanner\"><rule name=\"n\" where=\"attachment\" match=\"good.exe\"/>"
        "</settings>");
    for (char const* field : {"Content-Type: application/x-thing; name", "Content-Disposition: attachment; filename"})
        EXPECT_EQ(Found(std::string(field) + "=\"=?utf-8?B?Z29vZA==?= =?utf-8?B?LmV4ZQ==?=\""), "n") << field;
}
