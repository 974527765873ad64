#include "core/Reply.h"

#include <gtest/gtest.h>

namespace smtp {
namespace {

using Status = ReplyParser::Status;

TEST(ReplyWire, HasCodeAndStatusOnEveryLine) {
    EXPECT_EQ((Reply{250, "2.0.0", "ok"}).wire(), "250 2.0.0 ok\r\n");
    EXPECT_EQ((Reply{354, "", "go"}).wire(), "354 go\r\n");
    EXPECT_EQ((Reply{250, "", "a\nb\nc"}).wire(), "250-a\r\n250-b\r\n250 c\r\n");
    EXPECT_EQ((Reply{214, "2.0.0", "a\nb"}).wire(), "214-2.0.0 a\r\n214 2.0.0 b\r\n");
}

TEST(ReplyParsing, ReadsOneLine) {
    ReplyParser parser;
    ASSERT_EQ(parser.Take("554 5.7.1 no, thanks"), Status::Complete);
    EXPECT_EQ(parser.reply().code, 554);
    EXPECT_EQ(parser.reply().status, "5.7.1");
    EXPECT_EQ(parser.reply().text, "no, thanks");
}

TEST(ReplyParsing, JoinsTheLinesOfALongReplyAndStartsAnew) {
    ReplyParser parser;
    EXPECT_EQ(parser.Take("250-2.1.0 one"), Status::More);
    EXPECT_EQ(parser.Take("250-2.1.0 two"), Status::More);
    ASSERT_EQ(parser.Take("250 2.1.0 three"), Status::Complete);
    EXPECT_EQ(parser.reply().text, "one two three");
    EXPECT_EQ(parser.lines().size(), 3u);
    ASSERT_EQ(parser.Take("421"), Status::Complete);
    EXPECT_EQ(parser.reply().code, 421);
    EXPECT_EQ(parser.reply().text, "");
    EXPECT_EQ(parser.lines().size(), 1u);
}

TEST(ReplyParsing, RefusesWhatIsNoReply) {
    for (char const* line : {"", "25", "abc hello", "2500 x", "250x", "150 no", "650 no", "099 no", "-50 x"}) {
        ReplyParser parser;
        EXPECT_EQ(parser.Take(line), Status::Malformed) << line;
    }
    ReplyParser parser;
    EXPECT_EQ(parser.Take("250-a"), Status::More);
    EXPECT_EQ(parser.Take("251 b"), Status::Malformed) << "one reply has one code";
}

TEST(ReplyParsing, EndsAReplyWithoutEnd) {
    ReplyParser parser;
    int lines = 0;
    while (parser.Take("250-again") == Status::More) ASSERT_LT(++lines, 1000);
    EXPECT_EQ(lines, 100);
}

TEST(ReplyParsing, TakesNoStatusOfAnotherClass) {
    for (char const* line : {"550 4.7.1 x", "550 5.7 x", "550 5..1 x", "550 5.1.1000000000 x", "550 10.0.0.1 x"}) {
        ReplyParser parser;
        ASSERT_EQ(parser.Take(line), Status::Complete);
        EXPECT_EQ(parser.reply().status, "") << line;
        EXPECT_EQ(StatusOf(parser.reply()), "5.0.0");
    }
}

TEST(ReplyParsing, MakesForeignTextPrintable) {
    ReplyParser parser;
    ASSERT_EQ(parser.Take("550 a\x01\xff\tb"), Status::Complete);
    EXPECT_EQ(parser.reply().text, "a?? b");
    EXPECT_EQ(Printable(std::string(300, 'x')).size(), 200u);
}

TEST(Capabilities, AreReadFromBehindTheFirstLine) {
    Capabilities const got =
        Capabilities::FromEhlo({"PIPELINING greets you", "pipelining", "SIZE 10240", "8BITMIME", "AUTH PLAIN"});
    EXPECT_TRUE(got.pipelining && got.eightBitMime && got.size);
    EXPECT_EQ(got.maxSize, 10240u);
    Capabilities const none = Capabilities::FromEhlo({"PIPELINING", "SIZEX"});
    EXPECT_FALSE(none.pipelining || none.eightBitMime || none.size);
    EXPECT_EQ(Capabilities::FromEhlo({"x", "SIZE"}).maxSize, 0u);
}

}  // namespace
}  // namespace smtp
