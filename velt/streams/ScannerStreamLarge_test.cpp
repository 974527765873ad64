// Objects far larger than memory, up to the last byte that a position can tell. Files with holes stand for data where
// only the place counts; with FULL set one of 4 GiB less a byte is written and read whole.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include <testing/ScriptedStream.h>
#include <testing/SpoolRoom.h>

using namespace VELT;
using namespace velt_testing;

namespace {

constexpr unsigned kMemory = 1024;
constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;
constexpr unsigned kRecord = 64;  // a line that tells its place
constexpr unsigned kBlock = 64 * 1024;
constexpr long kGrowthKiB = 1024;  // what a process may hold more than before; an object of a tenth of daily size would

bool IsFull() { return std::getenv("FULL") != nullptr; }
unsigned Size() { return IsFull() ? UINT_MAX : 64u << 20; }

long ResidentKiB() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word && word != "VmRSS:") continue;
    long kib = 0;
    status >> kib;
    return kib;
}

// What the object holds there: the place in sixteen digits, dots, and a line feed.
void FillRecord(char* record, std::uint64_t place) {
    std::memset(record, '.', kRecord);
    for (int i = 15; i >= 0; --i, place >>= 4) record[i] = "0123456789abcdef"[place & 15];
    record[kRecord - 1] = '\n';
}

class Content {
public:
    // `place` is one of a record.
    char const* At(std::uint64_t place) {
        for (unsigned i = 0; i < kBlock; i += kRecord) FillRecord(m_block.data() + i, place + i);
        return m_block.data();
    }
    bool IsAt(std::uint64_t place, char const* data, std::size_t length) {
        std::uint64_t const start = place / kRecord * kRecord;
        return std::memcmp(At(start) + (place - start), data, length) == 0;
    }

private:
    std::array<char, kBlock> m_block;
};

class SpoolStreamLarge : public testing::Test {
protected:
    void Fill(unsigned size) {
        for (std::uint64_t at = 0; at < size; at += kBlock) {
            unsigned const length = static_cast<unsigned>(std::min<std::uint64_t>(kBlock, size - at));
            ASSERT_EQ(stream.write(content.At(at), length), static_cast<long>(length)) << at;
        }
    }
    void ExpectRaw(unsigned size) {
        ASSERT_EQ(stream.seek(0, 0), 0);
        for (std::uint64_t at = 0; at < size; at += kBlock) {
            unsigned const length = static_cast<unsigned>(std::min<std::uint64_t>(kBlock, size - at));
            ASSERT_EQ(stream.read(block.data(), static_cast<unsigned long>(kBlock)), static_cast<long>(length)) << at;
            ASSERT_TRUE(content.IsAt(at, block.data(), length)) << at;
        }
    }
    void ExpectTrickle(unsigned size) {
        for (std::uint64_t at = 0; at < size; at += kBlock) {
            unsigned got = 0;
            ASSERT_EQ(stream.trickle_read(block.data(), kBlock, &got), 0);
            ASSERT_EQ(got, std::min<std::uint64_t>(kBlock, size - at)) << at;
            ASSERT_TRUE(content.IsAt(at, block.data(), got)) << at;
        }
    }
    void ExpectLines(unsigned size) {
        ASSERT_EQ(stream.seek(0, 0), 0);
        char record[kRecord];
        bool ioDone = false;
        char* line = nullptr;
        LINE_STATE_T state;
        for (std::uint64_t at = 0; at + kRecord <= size; at += kRecord) {
            ASSERT_EQ(stream.getline(line, true, ioDone, state, true), static_cast<int>(kRecord - 1)) << at;
            FillRecord(record, at);
            ASSERT_EQ(std::memcmp(line, record, kRecord - 1), 0) << at;
        }
        EXPECT_LE(stream.getline(line, true, ioDone, state, true), 0);
        EXPECT_EQ(state, LINE_CLOSED);
    }

    // The bytes from there on by each way of reading.
    void ExpectAt(std::uint64_t place, std::string const& text) {
        std::string got(text.size(), '\0');
        ASSERT_EQ(stream.seek(static_cast<long>(place), 0), static_cast<long>(place));
        EXPECT_EQ(stream.read(got.data(), got.size()), static_cast<long>(got.size()));
        EXPECT_EQ(got, text);
        ASSERT_EQ(stream.seek(static_cast<long>(place), 0), static_cast<long>(place));
        char* data = nullptr;
        bool ioDone = false;
        ASSERT_EQ(stream.readdata(data, static_cast<unsigned>(text.size()), true, ioDone),
                  static_cast<int>(text.size()));
        EXPECT_EQ(std::string(data, text.size()), text);
    }
    void PutAt(std::uint64_t place, std::string const& text) {
        ASSERT_EQ(stream.seek(static_cast<long>(place), 0), static_cast<long>(place));
        ASSERT_EQ(Put(stream, text), static_cast<long>(text.size()));
    }

    SpoolRoom room{kMemory};
    Content content;
    std::array<char, kBlock> block;
    ScannerStream stream{"large", false};
};

TEST_F(SpoolStreamLarge, PassesThroughASmallMemoryThatStaysSmall) {
    unsigned const size = Size();
    Fill(kBlock);
    stream.reset();
    long const before = ResidentKiB();
    ASSERT_NO_FATAL_FAILURE(Fill(size));
    EXPECT_EQ(stream.size(), size);
    ASSERT_NO_FATAL_FAILURE(ExpectRaw(size));
    ASSERT_NO_FATAL_FAILURE(ExpectTrickle(size));
    ASSERT_NO_FATAL_FAILURE(ExpectLines(size));
#ifndef VELT_SANITIZED  // whose shadow grows with what is touched
    EXPECT_LE(ResidentKiB() - before, kGrowthKiB);
#else
    static_cast<void>(before);
#endif
}

TEST_F(SpoolStreamLarge, GoesOverToAPeerInBlocks) {
    class Counting : public ScriptedStream {
    public:
        Counting() : ScriptedStream({}) {}
        int write(char const* data, unsigned length, unsigned* sent) override {
            same = same && content.IsAt(count, data, length);
            count += * sent = length;
            return 0;
        }
        Content content;
        std::uint64_t count = 0;
        bool same = true;
    };
    unsigned const size = IsFull() ? 8u << 20 : 1u << 20;
    Fill(size);
    Counting peer;
    EXPECT_EQ(stream.spool_to_stream(&peer), 0);
    EXPECT_EQ(peer.count, size);
    EXPECT_TRUE(peer.same);
}

TEST_F(SpoolStreamLarge, KnowsPlacesOnBothSidesOfTwoGiBAndAtTheLast) {
    ASSERT_TRUE(stream.setsize(UINT_MAX));
    EXPECT_EQ(stream.size(), UINT_MAX);
    for (std::uint64_t const place : {2 * kGiB - 8, 2 * kGiB - 4, 2 * kGiB, 3 * kGiB, 4 * kGiB - 5}) {
        std::string const text = std::to_string(place % 10) + "ab\n";
        PutAt(place, text);
        ExpectAt(place, text);
        EXPECT_EQ(stream.seek(static_cast<long>(place), 0), static_cast<long>(place));
        EXPECT_EQ(NextLine(stream).text, text.substr(0, 3));
    }
    EXPECT_EQ(stream.size(), UINT_MAX);
}

TEST_F(SpoolStreamLarge, MovesByMoreThanTwoGiBFromTheCursor) {
    ASSERT_TRUE(stream.setsize(UINT_MAX));
    EXPECT_EQ(stream.seek(3 * kGiB, 1), static_cast<long>(3 * kGiB));
    EXPECT_EQ(stream.seek(kGiB - 1, 1), static_cast<long>(UINT_MAX));
    EXPECT_EQ(stream.seek(1, 1), -1);
    EXPECT_EQ(stream.seek(0, 1), static_cast<long>(UINT_MAX));
    EXPECT_EQ(stream.seek(-static_cast<long>(3 * kGiB), 1), static_cast<long>(kGiB - 1));
}

TEST_F(SpoolStreamLarge, TricklesOnOverTwoGiB) {
    ASSERT_TRUE(stream.setsize(3 * kGiB));
    PutAt(2 * kGiB - 4, "belowabove");
    EXPECT_EQ(stream.trickle_seekto(INT_MAX - 3), INT_MAX - 3);
    unsigned got = 0;
    EXPECT_EQ(stream.trickle_read(block.data(), 4, &got), 0);
    EXPECT_EQ(std::string(block.data(), got), "belo");
    EXPECT_EQ(stream.trickle_read(block.data(), 6, &got), 0);
    EXPECT_EQ(std::string(block.data(), got), "wabove");
}

TEST_F(SpoolStreamLarge, CutsAtAPlaceAboveTwoGiB) {
    ASSERT_TRUE(stream.setsize(UINT_MAX));
    stream.seek(UINT_MAX, 0);
    ASSERT_TRUE(stream.setsize(3 * kGiB));
    EXPECT_EQ(stream.size(), 3 * kGiB);
    EXPECT_EQ(stream.seek(0, 1), static_cast<long>(3 * kGiB));
    EXPECT_EQ(Put(stream, "on"), 2);
    EXPECT_EQ(stream.size(), 3 * kGiB + 2);
}

TEST_F(SpoolStreamLarge, EndsWithTheLastPlaceThatThereIs) {
    ASSERT_TRUE(stream.setsize(UINT_MAX - 2));
    PutAt(UINT_MAX - 2, "yz");
    EXPECT_EQ(stream.size(), UINT_MAX);
    errno = 0;
    EXPECT_EQ(Put(stream, "!"), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(stream.size(), UINT_MAX);
    ExpectAt(UINT_MAX - 2, "yz");
}

// The cursor moves by what was asked for; it does not come round to the start.
TEST_F(SpoolStreamLarge, StandsAtTheLastPlaceAfterAReadThatAskedForMore) {
    ASSERT_TRUE(stream.setsize(UINT_MAX));
    stream.seek(UINT_MAX - 4, 0);
    EXPECT_EQ(stream.read(block.data(), 100ul), 4);
    EXPECT_EQ(Put(stream, "beyond"), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(stream.seek(0, 1), static_cast<long>(UINT_MAX));
}

TEST_F(SpoolStreamLarge, StandsAtTheLastPlaceAfterAVectoredWriteUpToThere) {
    ASSERT_TRUE(stream.setsize(UINT_MAX));
    stream.seek(UINT_MAX - 4, 0);
    unsigned lengths[] = {4, 4};
    char const* buffers[] = {"last", "more"};
    unsigned written = 0;
    EXPECT_EQ(stream.writev(2, lengths, buffers, &written), -1);
    EXPECT_EQ(written, 4u);
    EXPECT_EQ(stream.size(), UINT_MAX);
    EXPECT_EQ(stream.seek(0, 1), static_cast<long>(UINT_MAX));
}

TEST_F(SpoolStreamLarge, TakesFilesAboveTwoGiBInPlace) {
    room.Write("file", "head");
    std::string const path = room / "file";
    ASSERT_EQ(::truncate(path.c_str(), 3 * kGiB), 0);
    EXPECT_EQ(stream.spool_from_disk(path.c_str()), 0);
    EXPECT_EQ(stream.size(), 3 * kGiB);
    ExpectAt(0, "head");
    EXPECT_EQ(stream.set_disk_file(path.c_str()), 0);
    EXPECT_EQ(stream.size(), 3 * kGiB);
    PutAt(3 * kGiB, "tail");
    EXPECT_EQ(stream.size(), 3 * kGiB + 4);
    ExpectAt(3 * kGiB, "tail");
}

}  // namespace
