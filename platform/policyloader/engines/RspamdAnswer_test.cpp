// Answers of rspamd, whole and broken.
#include <gtest/gtest.h>

#include <policyloader/engines/SpamAnswer.h>

namespace policyloader {
namespace {

std::string const kReply =
    R"({"is_skipped":false,"score":6.9,"required_score":15.0,"action":"add header","symbols":{)"
    R"("FIRST":{"name":"FIRST","score":7.5,"options":["a","b"]},"SECOND":{"name":"SECOND","score":-0.6}},)"
    R"("messages":{},"message-id":"undef","time_real":0.225351})";

SpamAnswer Parse(std::string const& text) { return SpamAnswer::parseRspamd(text); }

TEST(RspamdAnswers, HaveScoreThresholdAndTests) {
    auto const answer = Parse(kReply);
    ASSERT_EQ(answer.kind, SpamAnswer::Judged) << answer.text;
    EXPECT_EQ(answer.judgement.score, 6.9);
    EXPECT_EQ(answer.judgement.threshold, 15.0);
    std::vector<SpamJudgement::Test> const tests{{"FIRST", 7.5}, {"SECOND", -0.6}};
    EXPECT_EQ(answer.judgement.tests, tests);
}

TEST(RspamdAnswers, NeedNoSymbols) {
    for (std::string const more : {"", R"(,"symbols":{})", R"(,"symbols":[1])", R"(,"symbols":{"":{"score":1}})",
                                   R"(,"symbols":{"A":1,"B":{"score":"1"},"C":{},"D":{"score":1e400}})"}) {
        auto const answer = Parse(R"({"score":-2,"required_score":5)" + more + "}");
        EXPECT_EQ(answer.kind, more.find("1e400") == std::string::npos ? SpamAnswer::Judged : SpamAnswer::Rubbish)
            << more;
        EXPECT_TRUE(answer.judgement.tests.empty()) << more;
    }
}

TEST(RspamdAnswers, CutAnywhereAreNoJudgement) {
    for (std::size_t size = 0; size < kReply.size(); ++size)
        EXPECT_EQ(Parse(kReply.substr(0, size)).kind, SpamAnswer::Rubbish) << size;
    EXPECT_EQ(Parse(kReply + "}").kind, SpamAnswer::Rubbish);
    EXPECT_EQ(Parse(kReply + std::string(1, '\0')).kind, SpamAnswer::Rubbish);
}

TEST(RspamdAnswers, WithoutTheirNumbersAreNoJudgement) {
    for (std::string const text :
         {R"({})", R"([])", R"(1)", R"(null)", R"({"score":1})", R"({"required_score":1})",
          R"({"score":"1","required_score":1})", R"({"score":1,"required_score":null})",
          R"({"score":NaN,"required_score":1})", R"({"score":1e999,"required_score":1})", "<html></html>"})
        EXPECT_EQ(Parse(text).kind, SpamAnswer::Rubbish) << text;
}

TEST(RspamdAnswers, WithAnErrorOrAWishToBeAskedLaterAreRefusals) {
    auto const failed = Parse(R"({"error":"invalid \u0001command","score":1,"required_score":5})");
    EXPECT_EQ(failed.kind, SpamAnswer::Refused);
    EXPECT_EQ(failed.text, "error: invalid ?command");
    EXPECT_EQ(Parse(R"({"error":{}})").kind, SpamAnswer::Refused);
    EXPECT_EQ(Parse(R"({"action":"soft reject","score":1,"required_score":5})").kind, SpamAnswer::Refused);
    EXPECT_EQ(Parse(R"({"action":"greylist","score":1,"required_score":5})").kind, SpamAnswer::Judged);
}

TEST(RspamdAnswers, NestedWithoutEndAreNoJudgement) {
    std::string const opened(1u << 19, '['), closed(1u << 19, ']');
    EXPECT_EQ(Parse(opened + closed).kind, SpamAnswer::Rubbish);
    EXPECT_EQ(Parse(R"({"score":1,"required_score":5,"symbols":)" + opened + closed + "}").kind, SpamAnswer::Rubbish);
}

TEST(RspamdAnswers, HaveAtMostAThousandTests) {
    std::string symbols;
    for (int i = 0; i < 5000; ++i) symbols += (i ? ",\"T" : "\"T") + std::to_string(i) + "\":{\"score\":0.1}";
    auto const answer = Parse(R"({"score":1,"required_score":5,"symbols":{)" + symbols + "}}");
    EXPECT_EQ(answer.judgement.tests.size(), 1000u);
}

}  // namespace
}  // namespace policyloader
