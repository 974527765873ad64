// How often a byte is looked at: the program is linked with memchr wrapped, which counts.
#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "testing/ScriptedStream.h"

extern "C" {
void* __real_memchr(void const* data, int c, std::size_t length);
void* __wrap_memchr(void const* data, int c, std::size_t length);
}

namespace {
std::size_t scanned = 0;
}

void* __wrap_memchr(void const* data, int c, std::size_t length) {
    void* const found = __real_memchr(data, c, length);
    scanned +=
        found ? static_cast<std::size_t>(static_cast<char const*>(found) - static_cast<char const*>(data)) + 1 : length;
    return found;
}

using velt_testing::EndsWith;
using velt_testing::ScriptedStream;

namespace {

std::deque<std::string> ByteByByte(std::string const& text) {
    std::deque<std::string> pieces;
    for (char const c : text) pieces.push_back(std::string(1, c));
    return pieces;
}

}  // namespace

TEST(LineScan, SeesEachByteOnceWhenALineComesByteByByte) {
    std::string const line(3000, 'x');
    ScriptedStream peer(ByteByByte(line + "\n"));
    scanned = 0;
    EXPECT_EQ(peer.GetLine().text, line);
    EXPECT_EQ(scanned, line.size() + 1);
}

TEST(LineScan, SeesEachByteOnceWhenEachCallMayReadOnce) {
    std::string const line(3000, 'x');
    ScriptedStream peer(ByteByByte(line + "\n"));
    scanned = 0;
    ScriptedStream::Line got;
    do {
        bool io_done = false;
        got = peer.GetLine(false, io_done);
    } while (got.state == VELT::LINE_INCOMPLETE);
    EXPECT_EQ(got.text, line);
    EXPECT_EQ(scanned, line.size() + 1);
}

TEST(LineScan, SeesEachByteOnceWhenLinesComeTogether) {
    std::string text;
    for (int i = 0; i < 40; ++i) text += "a line of mail\r\n";
    ScriptedStream peer({text.substr(0, 333), text.substr(333)});
    scanned = 0;
    for (int i = 0; i < 40; ++i) EXPECT_EQ(peer.GetLine().text, "a line of mail");
    EXPECT_EQ(scanned, text.size());
}
