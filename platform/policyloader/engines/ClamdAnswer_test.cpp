// Each line that a virus scan server may answer, and lines that it may not.
#include <gtest/gtest.h>

#include <policyloader/engines/ClamdAnswer.h>

namespace policyloader {
namespace {

ClamdAnswer::Kind KindOf(std::string const& line, unsigned long request = 1) {
    return ClamdAnswer::parse(line, request).kind;
}

TEST(ClamdAnswers, AreCleanWordForWordOnly) {
    EXPECT_EQ(KindOf("1: stream: OK"), ClamdAnswer::Clean);
    EXPECT_EQ(KindOf("4294967296: stream: OK", 4294967296ul), ClamdAnswer::Clean);
    for (auto const* const line : {"",
                                   "OK",
                                   "stream: OK",
                                   "2: stream: OK",
                                   "01: stream: OK",
                                   "1:stream: OK",
                                   "1: stream: OK ",
                                   "1: stream: ok",
                                   " 1: stream: OK",
                                   "1: stream: OKAY",
                                   "1: stream:  OK",
                                   "1: stream: OK\n",
                                   "1: OK",
                                   "1: PONG",
                                   "1: other: OK",
                                   "1: stream: ",
                                   "1: stream",
                                   "1: 1: stream: OK",
                                   "11: stream: OK",
                                   "-1: stream: OK"})
        EXPECT_EQ(KindOf(line), ClamdAnswer::Rubbish) << line;
}

TEST(ClamdAnswers, NameWhatWasFound) {
    auto const answer = ClamdAnswer::parse("7: stream: Win.Test.EICAR_HDB-1(44d8:68) FOUND", 7);
    EXPECT_EQ(answer.kind, ClamdAnswer::Found);
    EXPECT_EQ(answer.text, "Win.Test.EICAR_HDB-1(44d8:68)");
    EXPECT_EQ(ClamdAnswer::parse("1: stream: Na\xc3\xafve FOUND", 1).text, "Na??ve");
    for (auto const* const line :
         {"1: stream:  FOUND", "1: stream: FOUND", "1: stream: A\tB FOUND", "1: stream: A B FOUND",
          "2: stream: A FOUND", "1: stream: A FOUND ", "1: stream: A found"})
        EXPECT_EQ(KindOf(line), ClamdAnswer::Rubbish) << line;
}

TEST(ClamdAnswers, ThatRefuseCountForWhomeverTheyAre) {
    for (auto const* const line :
         {"1: INSTREAM size limit exceeded. ERROR", "INSTREAM size limit exceeded. ERROR", "UNKNOWN COMMAND",
          "COMMAND READ TIMED OUT ERROR", "9: stream: Can't allocate memory ERROR", "ERROR"})
        EXPECT_EQ(KindOf(line), ClamdAnswer::Refused) << line;
    EXPECT_EQ(ClamdAnswer::parse("1: no\x01 ERROR", 1).text, "1: no? ERROR");
}

TEST(ClamdAnswers, ArePrintedInABoundedLength) {
    EXPECT_EQ(PrintableAnswer(std::string(5000, 'x')).size(), 200u);
    EXPECT_EQ(PrintableAnswer(std::string("a\0b\r\n\x7f\xff", 7)), "a?b????");
}

}  // namespace
}  // namespace policyloader
