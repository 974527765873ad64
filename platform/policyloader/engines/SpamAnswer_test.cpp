// Answers of a spam scan server, whole and broken.
#include <gtest/gtest.h>

#include <policyloader/engines/SpamAnswer.h>

namespace policyloader {
namespace {

std::string const kReport =
    "Spam detection software, running on the system \"mail.example.test\", has\n\n"
    "Content analysis details:   (6.9 points, 5.0 required)\n\n"
    " pts rule name              description\n"
    "---- ---------------------- --------------------------------------------------\n"
    " 1.5 MISSING_FROM           No From: header\n"
    "-0.1 NICE_ONE               Something\n"
    "                            [score: 0.5000]\n"
    "                            7 LOOKS_LIKE_ONE but goes on with the line before\n"
    " 5.5 A_NAME_THAT_IS_LONGER_THAN_ITS_COLUMN Something else\n\n\n";

std::string ReplyOf(std::string const& spam, std::string const& body, std::string const& first = "SPAMD/1.1 0 EX_OK") {
    return first + "\r\nContent-length: " + std::to_string(body.size()) + "\r\nSpam: " + spam + "\r\n\r\n" + body;
}

SpamAnswer::Kind KindOf(std::string const& reply) { return SpamAnswer::parseSpamd(reply).kind; }

TEST(SpamdAnswers, HaveScoreThresholdAndTests) {
    auto const answer = SpamAnswer::parseSpamd(ReplyOf("True ; 6.9 / 5.0", kReport));
    ASSERT_EQ(answer.kind, SpamAnswer::Judged) << answer.text;
    EXPECT_EQ(answer.judgement.score, 6.9);
    EXPECT_EQ(answer.judgement.threshold, 5.0);
    std::vector<SpamJudgement::Test> const tests{
        {"MISSING_FROM", 1.5}, {"NICE_ONE", -0.1}, {"A_NAME_THAT_IS_LONGER_THAN_ITS_COLUMN", 5.5}};
    EXPECT_EQ(answer.judgement.tests, tests);
}

TEST(SpamdAnswers, NeedNoTable) {
    auto const answer = SpamAnswer::parseSpamd(ReplyOf("False ; -2 / 5", ""));
    ASSERT_EQ(answer.kind, SpamAnswer::Judged);
    EXPECT_EQ(answer.judgement.score, -2);
    EXPECT_TRUE(answer.judgement.tests.empty());
    EXPECT_TRUE(SpamAnswer::parseSpamd(ReplyOf("no;1/2", " 1.5 NO_TABLE x\n")).judgement.tests.empty());
}

TEST(SpamdAnswers, CutAnywhereAreNoJudgement) {
    auto const whole = ReplyOf("True ; 6.9 / 5.0", kReport);
    for (std::size_t size = 0; size < whole.size(); ++size)
        EXPECT_NE(KindOf(whole.substr(0, size)), SpamAnswer::Judged);
    EXPECT_NE(KindOf(whole + "x"), SpamAnswer::Judged);
}

TEST(SpamdAnswers, WithoutTheFieldsOrWithRubbishInThemAreNoJudgement) {
    for (std::string const spam :
         {"", "True", "True ; 5.0", "True ; / 5", "True ; x / 5", "True ; 5 / x", "True ; nan / 5", "True ; 1 / inf",
          "True ; 1e999 / 5", "Maybe ; 1 / 5", "True ; 1 / 5 / 6", "True ; 1 2 / 5", "; 1 / 5", "True , 1 / 5",
          "True ; 1 / 5\r\nSpam: False ; 0 / 5", "True ; 1 / 5\r\nContent-length: 0"})
        EXPECT_EQ(KindOf(ReplyOf(spam, "")), SpamAnswer::Rubbish) << spam;
    EXPECT_EQ(KindOf("SPAMD/1.1 0 EX_OK\r\nSpam: True ; 1 / 5\r\n\r\n"), SpamAnswer::Rubbish);
    EXPECT_EQ(KindOf("SPAMD/1.1 0 EX_OK\r\nContent-length: 0\r\n\r\n"), SpamAnswer::Rubbish);
    for (std::string const length : {"", "x", "-1", "0x0", "99999999999999999999", "0 0", "1"})
        EXPECT_EQ(KindOf("SPAMD/1.1 0 EX_OK\r\nContent-length: " + length + "\r\nSpam: True ; 1 / 5\r\n\r\n"),
                  SpamAnswer::Rubbish)
            << length;
}

TEST(SpamdAnswers, ToldByTheirStatusAreRefusals) {
    for (std::string const first : {"SPAMD/1.1 75 EX_TEMPFAIL", "SPAMD/1.0 76 Bad header line: x", "SPAMD/1.5 1 "}) {
        auto const answer = SpamAnswer::parseSpamd(ReplyOf("True ; 1 / 5", "", first));
        EXPECT_EQ(answer.kind, SpamAnswer::Refused) << first;
        EXPECT_EQ(answer.text, first);
    }
    for (std::string const first : {"SPAMD/1.1", "SPAMD/1.1 x EX_OK", "HTTP/1.1 200 OK", "", "SPAMD/1.1 0x0 EX_OK"})
        EXPECT_EQ(KindOf(ReplyOf("True ; 1 / 5", "", first)), SpamAnswer::Rubbish) << first;
}

TEST(SpamdAnswers, HaveAtMostAThousandTests) {
    std::string body = "\n---- ----\n";
    for (int i = 0; i < 5000; ++i) body += " 0.1 TEST_" + std::to_string(i) + " x\n";
    EXPECT_EQ(SpamAnswer::parseSpamd(ReplyOf("True ; 1 / 5", body)).judgement.tests.size(), 1000u);
}

}  // namespace
}  // namespace policyloader
