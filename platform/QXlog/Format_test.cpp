#include <QXlog/Escape.h>
#include <QXlog/Format.h>
#include <QXlog/Names.h>

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "testing/DocExample.h"

namespace {

using namespace QXlog::detail;
using namespace QXlog::names;
using KORlog::InfoBag;

constexpr KORlog::Key kConnection{"connection"};

Record ARecord() {
    Record record;
    record.time = std::chrono::system_clock::time_point(std::chrono::microseconds(1714564800123456));
    record.identity = "smtp";
    record.pid = 42;
    record.event = 10003;
    record.reason = 68;
    record.words = "session begins";
    record.file = "a.cpp";
    record.line = 7;
    record.function = "void f()";
    record.bag = kConnection(QXPROP_SOURCE_IP("192.0.2.1") | QXPROP_SOURCE_PORT(static_cast<unsigned short>(25))) |
                 QXPROP_SPAM_SCORE(2.5) | QXPROP_VELT_PID(-3);
    return record;
}

std::string Plain(std::string_view text, std::size_t limit = 100) {
    std::string out;
    AppendPlain(out, text, limit);
    return out;
}

std::string Token(std::string_view text, std::size_t limit = 100) {
    std::string out;
    AppendToken(out, text, limit);
    return out;
}

std::string Json(std::string_view text, std::size_t limit = 100) {
    std::string out;
    AppendJson(out, text, limit);
    return out;
}

TEST(LogTexts, AreEscapedAlikeWhereverACharacterStands) {
    auto const inner = [](std::string const& quoted) { return quoted.substr(1, quoted.size() - 2); };
    for (int byte = 0; byte < 256; ++byte) {
        std::string const alone(1, static_cast<char>(byte));
        std::string const text = "ab" + alone + "cd" + alone + alone;
        EXPECT_EQ(Plain(text), "ab" + Plain(alone) + "cd" + Plain(alone) + Plain(alone)) << byte;
        std::string const json = inner(Json(alone));
        EXPECT_EQ(Json(text), "\"ab" + json + "cd" + json + json + "\"") << byte;
        std::string const token = inner(Token(" " + alone)).substr(1);
        EXPECT_EQ(Token(" " + text), "\" ab" + token + "cd" + token + token + "\"") << byte;
    }
}

TEST(LogText, NamesEventWordsAndEveryValueByItsPath) {
    EXPECT_EQ(FormatText(ARecord(), {}),
              "2024-05-01T12:00:00.123456Z smtp[42]: 10003:68 session begins: connection.source_ip=192.0.2.1 "
              "connection.source_port=25 spam_score=2.5 velt_pid=-3\n");
}

TEST(LogText, ShowsTheNumberAloneWhenThereIsNeitherReasonNorWords) {
    Record record = ARecord();
    record.reason = -1;
    record.words = nullptr;
    record.bag = {};
    record.text = "free\nwords";
    EXPECT_EQ(FormatMessage(record, {}), "10003: free\\nwords");
}

TEST(LogJson, HasAllMembersAndNestedBagsNested) {
    EXPECT_EQ(
        FormatJson(ARecord(), {}),
        "{\"time\":\"2024-05-01T12:00:00.123456Z\",\"identity\":\"smtp\",\"pid\":42,\"event\":10003,\"reason\":68,"
        "\"words\":\"session begins\",\"file\":\"a.cpp\",\"line\":7,\"function\":\"void f()\",\"values\":{"
        "\"connection\":{\"source_ip\":\"192.0.2.1\",\"source_port\":25},\"spam_score\":2.5,\"velt_pid\":-3}}\n");
}

TEST(LogRecords, LookAsTheManualShowsThem) {
    Record record = ARecord();
    record.bag = kConnection(QXPROP_SOURCE_IP("192.0.2.1") | QXPROP_SOURCE_PORT(25));
    std::string const page = DOCS "/formats/logging-xml.md";
    EXPECT_EQ(FormatText(record, {}), velt_testing::DocExample(page, "text"));
    EXPECT_EQ(FormatJson(record, {}), velt_testing::DocExample(page, "json"));
}

TEST(LogJson, GivesAListForAKeyThatComesTwice) {
    Record record = ARecord();
    record.bag = QXPROP_VALUE("a") | QXPROP_VELT_ID("x") | QXPROP_VALUE(3);
    EXPECT_NE(FormatJson(record, {}).find("\"values\":{\"value\":[\"a\",3],\"velt_id\":\"x\"}"), std::string::npos);
}

TEST(LogJson, HasNullForNoReasonAndForWhatIsNoNumber) {
    Record record = ARecord();
    record.reason = -1;
    record.bag = QXPROP_SPAM_SCORE(std::nan(""));
    std::string const line = FormatJson(record, {});
    EXPECT_NE(line.find("\"reason\":null"), std::string::npos);
    EXPECT_NE(line.find("\"values\":{\"spam_score\":null}"), std::string::npos);
}

TEST(LogJson, StaysWholeAtEveryRecordLimit) {
    Record record = ARecord();
    record.bag |= QXPROP_DESCRIPTION(std::string(300, 'd'));
    record.bag |= QXPROP_VIRUS_NAMES(L"w\x00e4hlen");
    std::string const whole = FormatJson(record, {1024, 100000});
    for (std::size_t limit = 0; limit < 900; ++limit) {
        std::string const line = FormatJson(record, {1024, limit});
        int depth = 0;
        for (char const c : line) depth += c == '{' ? 1 : c == '}' ? -1 : 0;
        EXPECT_EQ(depth, 0) << line;
        EXPECT_EQ(line.find(",}"), std::string::npos) << line;
        EXPECT_EQ(line.find("{,"), std::string::npos) << line;
        EXPECT_EQ(line.find(":,"), std::string::npos) << line;
        EXPECT_TRUE(line == whole || line.find("\"truncated\":true") != std::string::npos) << limit;
    }
}

TEST(LogJson, CutsBagsThatLieTooDeep) {
    InfoBag bag = QXPROP_VALUE("core");
    for (int i = 0; i < 50; ++i) bag = kConnection(bag);
    Record record = ARecord();
    record.bag = bag;
    std::string const line = FormatJson(record, {});
    EXPECT_EQ(line.find("core"), std::string::npos);
    EXPECT_NE(line.find("\"truncated\":true"), std::string::npos);
    EXPECT_NE(FormatMessage(record, {}).find("truncated=yes"), std::string::npos);
}

TEST(LogJournal, HasAFieldForEveryValue) {
    std::vector<std::string> const fields = FormatJournal(ARecord(), {});
    EXPECT_EQ(fields,
              (std::vector<std::string>{
                  "MESSAGE=10003:68 session begins: connection.source_ip=192.0.2.1 connection.source_port=25 "
                  "spam_score=2.5 velt_pid=-3",
                  "PRIORITY=6", "SYSLOG_IDENTIFIER=smtp", "CODE_FILE=a.cpp", "CODE_LINE=7", "CODE_FUNC=void f()",
                  "VELT_EVENT=10003", "VELT_REASON=68", "VELT_CONNECTION_SOURCE_IP=192.0.2.1",
                  "VELT_CONNECTION_SOURCE_PORT=25", "VELT_SPAM_SCORE=2.5", "VELT_VELT_PID=-3"}));
}

TEST(LogEscapes, NoControlCharacterPassesAnyForm) {
    for (int c = 0; c < 256; ++c) {
        std::string const text = std::string("a") + static_cast<char>(c) + "b";
        for (std::string const& out : {Plain(text), Token(text), Json(text)}) {
            for (char const seen : out) EXPECT_FALSE(static_cast<unsigned char>(seen) < 0x20 || seen == 0x7F) << c;
        }
    }
}

TEST(LogEscapes, ShowWhatStoodThere) {
    EXPECT_EQ(Plain("a\r\nb\tc\x1b[0m\\"), "a\\r\\nb\\tc\\x1b[0m\\\\");
    EXPECT_EQ(Plain("caf\xc3\xa9 \xff \xe2\x80\xae \xc2\x85"), "caf\xc3\xa9 \\xff \\u{202e} \\u{85}");
    EXPECT_EQ(Json("\"\\\n\xff\xe2\x80\xa8"), "\"\\\"\\\\\\u000a\\ufffd\\u2028\"");
}

TEST(LogEscapes, AWordStandsBareAndTheRestInQuotes) {
    EXPECT_EQ(Token("192.0.2.1"), "192.0.2.1");
    EXPECT_EQ(Token(""), "\"\"");
    EXPECT_EQ(Token("a b"), "\"a b\"");
    EXPECT_EQ(Token("a=b"), "\"a=b\"");
    EXPECT_EQ(Token("say \"x\""), "\"say \\\"x\\\"\"");
}

TEST(LogEscapes, CutAtTheLimitWithoutCuttingACharacter) {
    EXPECT_EQ(Plain("abcdef", 6), "abcdef");
    EXPECT_EQ(Plain("abcdef", 5), "abcde...");
    std::string const text = "a\xf0\x9f\x98\x80z";  // one, four, one bytes
    for (std::size_t limit = 1; limit < 5; ++limit) EXPECT_EQ(Plain(text, limit), "a...") << limit;
    EXPECT_EQ(Plain(text, 5), "a\xf0\x9f\x98\x80...");
}

TEST(LogTimes, AreTheSameWhereNoMemoryMayBeTaken) {
    using namespace std::chrono;
    system_clock::time_point const starts[] = {system_clock::from_time_t(0), system_clock::from_time_t(951782399),
                                               system_clock::from_time_t(1709164799),
                                               system_clock::from_time_t(4102444799), system_clock::now()};
    for (system_clock::time_point const start : starts) {
        for (int i = 0; i < 4000; ++i) {
            system_clock::time_point const time = start + i * (hours(7) + microseconds(7777777));
            std::string text(QXlog::detail::kTimeLength, '?');
            QXlog::detail::WriteTime(text.data(), time);
            ASSERT_EQ(text, QXlog::detail::FormatTime(time));
        }
    }
}

}  // namespace
