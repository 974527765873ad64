#include "core/DataDecoder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace smtp {
namespace {

using Fault = DataDecoder::Fault;

struct Decoded {
    std::string content;
    std::string rest;
    bool done = false;
    Fault fault = Fault::None;
    std::size_t received = 0;
    std::uint64_t size = 0;
    bool leadingDots = false;
};

// Feeds the pieces one after the other, each from memory of its own, so that reading behind a piece is noticed.
Decoded Decode(std::vector<std::string> const& pieces, DataDecoder::Limits limits = {}) {
    DataDecoder decoder(limits);
    Decoded out;
    for (std::string const& piece : pieces) {
        std::vector<char> const own(piece.begin(), piece.end());
        std::size_t const taken =
            decoder.Feed(own.data(), own.size(), [&](char const* data, std::size_t n) { out.content.append(data, n); });
        out.rest += piece.substr(taken);
    }
    out.done = decoder.done();
    out.fault = decoder.fault();
    out.received = decoder.receivedHeaders();
    out.size = decoder.size();
    out.leadingDots = decoder.hasLeadingDots();
    return out;
}

std::vector<std::string> CutAt(std::string const& wire, std::size_t a, std::size_t b) {
    return {wire.substr(0, a), wire.substr(a, b - a), wire.substr(b)};
}

std::vector<std::string> Bytes(std::string const& wire) {
    std::vector<std::string> out;
    for (char c : wire) out.emplace_back(1, c);
    return out;
}

TEST(DataDecoding, SurvivesEveryPairOfCuts) {
    std::string const wire = "Subject: x\r\n\r\n..dot\r\n.\r.\r\nQUIT\r\n";
    std::string const clean = "Received: a\r\nSubject: x\r\n\r\n..\r\n...\r\nbody.\r\n.\r\nQUIT\r\n";
    std::string const content = "Received: a\r\nSubject: x\r\n\r\n.\r\n..\r\nbody.\r\n";
    for (std::size_t a = 0; a <= clean.size(); ++a) {
        for (std::size_t b = a; b <= clean.size(); ++b) {
            Decoded const got = Decode(CutAt(clean, a, b));
            ASSERT_EQ(got.content, content) << a << ' ' << b;
            ASSERT_EQ(got.rest, "QUIT\r\n") << a << ' ' << b;
            ASSERT_EQ(got.fault, Fault::None) << a << ' ' << b;
            ASSERT_EQ(got.size, content.size());
            ASSERT_EQ(got.received, 1u);
            ASSERT_TRUE(got.leadingDots);
        }
    }
    for (std::size_t a = 0; a <= wire.size(); ++a) {
        Decoded const got = Decode(CutAt(wire, a, wire.size()));
        EXPECT_EQ(got.fault, Fault::BareLineEnd) << a;
        EXPECT_FALSE(got.done) << a;
    }
}

TEST(DataDecoding, EndsOnlyAtCrLfDotCrLf) {
    for (std::string const end :
         {"\n.\n", "\r\n.\n", "\n.\r\n", "\r.\r", "\r.\r\n", "\r\n.\r", "\r\n.\r\r\n", "\n.\r"}) {
        std::string const wire = "Subject: x\r\n\r\nbody" + end + "MAIL FROM:<evil@x>\r\n";
        for (std::vector<std::string> const& pieces : {std::vector<std::string>{wire}, Bytes(wire)}) {
            Decoded const got = Decode(pieces);
            EXPECT_FALSE(got.done) << ::testing::PrintToString(end);
            EXPECT_EQ(got.rest, "");
        }
    }
}

TEST(DataDecoding, FindsTheEndBehindABareLineEndAndKeepsTheFault) {
    for (std::string const bad : {"a\nb", "a\rb", "\n", "a\r\r\nb", "a\n\r\nb", ".\rx", ".\n"}) {
        std::string const wire = bad + "\r\n.\r\nRSET\r\n";
        Decoded const whole = Decode({wire});
        EXPECT_TRUE(whole.done) << ::testing::PrintToString(bad);
        EXPECT_EQ(whole.fault, Fault::BareLineEnd) << ::testing::PrintToString(bad);
        EXPECT_EQ(whole.rest, "RSET\r\n") << ::testing::PrintToString(bad);
        Decoded const bytewise = Decode(Bytes(wire));
        EXPECT_TRUE(bytewise.done);
        EXPECT_EQ(bytewise.fault, Fault::BareLineEnd);
    }
}

TEST(DataDecoding, TakesAnEmptyMessage) {
    Decoded const got = Decode({".\r\n"});
    EXPECT_TRUE(got.done);
    EXPECT_EQ(got.content, "");
    EXPECT_EQ(got.fault, Fault::None);
}

TEST(DataDecoding, TakesADotAwayFromEveryLineThatBeginsWithOne) {
    Decoded const got = Decode({".a\r\n..\r\n.\r\n"});
    EXPECT_EQ(got.content, "a\r\n.\r\n");
    EXPECT_TRUE(got.leadingDots);
    EXPECT_FALSE(Decode({".a\r\nb.\r\n.\r\n"}).leadingDots);
}

TEST(DataDecoding, KeepsNulAndEightBitBytes) {
    std::string const body = std::string("a\0b\xff\r\n", 6);
    EXPECT_EQ(Decode({body + ".\r\n"}).content, body);
}

TEST(DataDecoding, CountsTheLineWithItsCrLfAndWithoutItsStuffedDot) {
    DataDecoder::Limits limits;
    limits.line = 10;
    EXPECT_EQ(Decode({"12345678\r\n.\r\n"}, limits).fault, Fault::None);
    EXPECT_EQ(Decode({"..2345678\r\n.\r\n"}, limits).fault, Fault::None);
    EXPECT_EQ(Decode({"123456789\r\n.\r\n"}, limits).fault, Fault::LineTooLong);
    EXPECT_EQ(Decode(Bytes("123456789\r\n.\r\n"), limits).fault, Fault::LineTooLong);
    EXPECT_TRUE(Decode({"123456789\r\n.\r\n"}, limits).done);
}

TEST(DataDecoding, LimitsTheHeaderButNotTheBody) {
    DataDecoder::Limits limits;
    limits.header = 12;
    EXPECT_EQ(Decode({"A: 1\r\nB:\r\n\r\nbody body body\r\n.\r\n"}, limits).fault, Fault::None);
    EXPECT_EQ(Decode({"A: 1\r\nB: 2\r\n\r\n.\r\n"}, limits).fault, Fault::HeaderTooLarge);
    EXPECT_EQ(Decode({"A: 1234567890"}, limits).fault, Fault::HeaderTooLarge);
}

TEST(DataDecoding, LimitsTheMessageAndStopsHandingItOut) {
    DataDecoder::Limits limits;
    limits.size = 6;
    EXPECT_EQ(Decode({"abcd\r\n.\r\n"}, limits).fault, Fault::None);
    Decoded const got = Decode({"abcd\r\n", "x", "\r\n.\r\n"}, limits);
    EXPECT_EQ(got.fault, Fault::MessageTooLarge);
    EXPECT_EQ(got.content, "abcd\r\n");
    EXPECT_TRUE(got.done);
}

TEST(DataDecoding, CountsReceivedLinesOfTheHeaderOnly) {
    std::string const wire =
        "Received: a\r\n\tby b\r\nreceived: c\r\nReceivedX: no\r\nX-Received: no\r\nRECEIVED:\r\n\r\nReceived: "
        "no\r\n.\r\n";
    EXPECT_EQ(Decode({wire}).received, 3u);
    EXPECT_EQ(Decode(Bytes(wire)).received, 3u);
}

}  // namespace
}  // namespace smtp
