#include "core/DataEncoder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/DataDecoder.h"

namespace smtp {
namespace {

std::string Encode(std::vector<std::string> const& blocks) {
    DataEncoder encoder;
    std::string out;
    auto const sink = [&](std::string_view piece) { out += piece; };
    for (std::string const& block : blocks) encoder.Encode(block, sink);
    encoder.Finish(sink);
    return out;
}

struct Row {
    char const* content;
    char const* wire;
};

constexpr Row kRows[] = {
    {"", ".\r\n"},
    {"a\r\n", "a\r\n.\r\n"},
    {"a", "a\r\n.\r\n"},
    {".", "..\r\n.\r\n"},
    {".\r\n", "..\r\n.\r\n"},
    {"..a\r\nb.c\r\n", "...a\r\nb.c\r\n.\r\n"},
    {"a\n.\nb\n", "a\r\n..\r\nb\r\n.\r\n"},
    {"a\r.\rb", "a\r\n..\r\nb\r\n.\r\n"},
    {"a\r\r\nb", "a\r\n\r\nb\r\n.\r\n"},
    {"a\r", "a\r\n.\r\n"},
    {"\n\n", "\r\n\r\n.\r\n"},
    {"\r\n.\r\n.\r\n", "\r\n..\r\n..\r\n.\r\n"},
};

TEST(DataEncoding, StuffsDotsAndEndsEveryLineInCrLfWhateverTheCut) {
    for (Row const& row : kRows) {
        std::string const content = row.content;
        for (std::size_t a = 0; a <= content.size(); ++a) {
            for (std::size_t b = a; b <= content.size(); ++b) {
                EXPECT_EQ(Encode({content.substr(0, a), content.substr(a, b - a), content.substr(b)}), row.wire)
                    << ::testing::PrintToString(content) << ' ' << a << ' ' << b;
            }
        }
    }
}

TEST(DataEncoding, GivesBackWhatTheDecoderTookFromTheWire) {
    std::string const wire = "A: b\r\n\r\n..x\r\n...\r\nmid.dle\r\n\r\n.\r\n";
    DataDecoder decoder({});
    std::string content;
    decoder.Feed(wire.data(), wire.size(), [&](char const* data, std::size_t n) { content.append(data, n); });
    EXPECT_EQ(Encode({content}), wire);
}

}  // namespace
}  // namespace smtp
