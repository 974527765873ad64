// The buffered layer works on the memory of a spool stream itself. None of what it does may show in the object.
#include <velt/streams/FileStream.h>
#include <velt/streams/ScannerStream.h>

#include <gtest/gtest.h>

#include <climits>

#include <testing/SpoolRoom.h>

using namespace VELT;
using namespace velt_testing;

namespace {

using Texts = std::vector<std::string>;

// Each case runs with the object in memory and on disk.
class SpoolStreamLines : public testing::TestWithParam<unsigned> {
protected:
    SpoolRoom room{GetParam()};
    ScannerStream stream{"name", false};

    void Hold(std::string_view text) {
        ASSERT_EQ(Put(stream, text), static_cast<long>(text.size()));
        stream.seek(0, 0);
    }
    std::string Saved() {
        EXPECT_EQ(stream.spool_to_disk((room / "saved").c_str()), 0);
        return room.Read("saved");
    }
};

std::string Place(testing::TestParamInfo<unsigned> const& info) { return info.param > 16 ? "InMemory" : "OnDisk"; }
INSTANTIATE_TEST_SUITE_P(Place, SpoolStreamLines, testing::Values(16u, 1024u), Place);

TEST_P(SpoolStreamLines, AreReadFromAnyPlace) {
    std::string const content = "one\r\ntwo\nthree\n";
    Hold(content);
    for (unsigned place = 0; place <= content.size(); ++place) {
        stream.seek(place, 0);
        std::string joined;
        for (std::string const& line : RestOfLines(stream)) joined += line + '\n';
        std::string expected = content.substr(place);
        std::erase(expected, '\r');
        EXPECT_EQ(joined, expected) << "from " << place;
    }
}

TEST_P(SpoolStreamLines, LeaveTheObjectWhole) {
    Hold("first\nsecond\nthird\n");
    EXPECT_EQ(NextLine(stream).text, "first");
    EXPECT_EQ(stream.seek(0, 0), 0);
    EXPECT_EQ(RestOfLines(stream), (Texts{"first", "second", "third"}));
}

TEST_P(SpoolStreamLines, AreDeliveredOnceAgainAfterEachSeek) {
    std::string const content = "first\nsecond\n";
    Hold(content);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(RestOfBlocks(stream), content);
        EXPECT_EQ(RestOfBlocks(stream), "");
        stream.seek(0, 0);
        EXPECT_EQ(RestOfLines(stream), (Texts{"first", "second"}));
        EXPECT_EQ(NextLine(stream).state, LINE_CLOSED);
        stream.seek(0, 0);
    }
}

// The tail without an end is asked for again and again, and stays where it is.
TEST_P(SpoolStreamLines, LeaveAnObjectWithoutLastLineEndAsItIs) {
    std::string const content = "L1\nL2";
    Hold(content);
    EXPECT_EQ(RestOfLines(stream), Texts{"L1"});
    EXPECT_EQ(NextLine(stream).state, LINE_CLOSED);
    char* data = nullptr;
    ASSERT_EQ(stream.buffereddata(data), 2);
    EXPECT_EQ(std::string(data, 2), "L2");
    EXPECT_EQ(Saved(), content);
    EXPECT_EQ(RestOfBlocks(stream), "L2");
    stream.seek(0, 0);
    EXPECT_EQ(RestOfBlocks(stream), content);
}

TEST_P(SpoolStreamLines, LeaveNoNulBehindWhateverComesNext) {
    std::string const content = "first\nsecond\n";
    Hold(content);
    char data[64];
    unsigned got = 0;
    auto const look = [&] {
        stream.seek(0, 0);
        ASSERT_EQ(NextLine(stream).text, "first");
    };
    look();
    EXPECT_EQ(Saved(), content);
    look();
    stream.trickle_seekto(0);
    EXPECT_EQ(stream.trickle_read(data, sizeof data, &got), 0);
    EXPECT_EQ(std::string(data, got), content);
    look();
    stream.emergency_dump((room / "dump").c_str());
    EXPECT_EQ(room.Read("dump"), content);
}

TEST(SpoolStreamStore, IsFlushedWholeWhenALineIsOutAndTheDataGoesToDisk) {
    SpoolRoom room(16);
    ScannerStream stream("name", false);
    Put(stream, "first\nsecond\n");
    stream.seek(0, 0);
    EXPECT_EQ(NextLine(stream).text, "first");
    stream.seek(0, 0);
    EXPECT_EQ(NextLine(stream).text, "first");
    stream.write("", 0u);
    stream.seek(13, 0);
    Put(stream, "third\nfourth\n");
    EXPECT_EQ(room.Read("spool/name.in"), "first\nsecond\nthird\nfourth\n");
    stream.seek(0, 0);
    EXPECT_EQ(RestOfLines(stream), (Texts{"first", "second", "third", "fourth"}));
}

// A line is out when the write comes that no longer fits.
TEST(SpoolStreamStore, IsFlushedWholeByTheWriteItself) {
    for (bool by_setsize : {false, true}) {
        SpoolRoom room(16);
        ScannerStream stream("name", false);
        Put(stream, "first\nsecond\n");
        stream.seek(0, 0);
        EXPECT_EQ(NextLine(stream).text, "first");
        if (by_setsize)
            stream.setsize(20);
        else
            Put(stream, "12345678901234567890");
        EXPECT_EQ(room.Read("spool/name.in").substr(0, 6), "first\n");
    }
}

TEST(SpoolStreamStore, ShowsTheBufferedLayerThePoolsSizeAndJumpsToTheEnd) {
    SpoolRoom room(1024);
    FileStream stream(64);
    Put(stream, "abcdef");
    stream.seek(2, 0);
    unsigned position = 9, length = 9, limit = 9;
    EXPECT_NE(stream.stream_info(position, length, limit), nullptr);
    EXPECT_EQ(position, 2u);
    EXPECT_EQ(length, 6u);
    EXPECT_EQ(limit, 1024u);
    EXPECT_EQ(stream.seek(0, 1), 6);
    Put(stream, std::string(80, 'x'));
    EXPECT_NE(stream.stream_info(position, length, limit), nullptr);
    EXPECT_EQ(position, 0u);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(limit, 1024u);
}

// The pool's buffers are larger than this stream's memory; lines of every length around it are read from disk through
// it.
TEST(SpoolStreamStore, NeverReadsPastItsOwnMemory) {
    SpoolRoom room(1024);
    for (unsigned length = 28; length <= 36; ++length) {
        room.Write("file", "short\n" + std::string(length, 'x') + "\nlast\n" + std::string(200, 'y'));
        FileStream stream(32);
        ASSERT_EQ(stream.spool_from_disk((room / "file").c_str()), 0);
        EXPECT_EQ(NextLine(stream).text, "short");
        SpoolLine const line = NextLine(stream);
        if (length <= 30) {  // with its line end it fills the memory but for the byte that stays free
            EXPECT_EQ(line.length, static_cast<int>(length));
        } else {
            EXPECT_EQ(line.state, LINE_CLOSED) << length;
        }
    }
}

TEST(SpoolStreamStore, HandsOutMoreThanThePoolsSizeFromMemoryOfItsOwn) {
    SpoolRoom room(16);
    FileStream stream(4096);
    std::string content;
    for (int i = 0; i < 300; ++i) content += "line " + std::to_string(i) + '\n';
    Put(stream, content);
    stream.seek(0, 0);
    EXPECT_EQ(RestOfLines(stream).size(), 300u);
    stream.seek(0, 0);
    EXPECT_EQ(RestOfBlocks(stream), content);
    EXPECT_TRUE(room.Spooled().empty());
}

// What is left behind the last line end counts as a line that does not fit where it fills a buffer of the pool's size.
TEST(SpoolStreamStore, GivesALastPieceOfThePoolsSizeAsOverflow) {
    SpoolRoom room(16);
    for (unsigned const length : {14u, 15u, 16u}) {
        FileStream stream(64);
        std::string const last(length, 'x');
        Put(stream, "one\n" + last);
        stream.seek(0, 0);
        EXPECT_EQ(NextLine(stream).text, "one");
        SpoolLine const line = NextLine(stream);
        EXPECT_EQ(line.state, length == 15 ? LINE_OVERFLOW : LINE_CLOSED) << length;
        EXPECT_EQ(line.text, length == 15 ? last : "");
        EXPECT_EQ(NextLine(stream).state, LINE_CLOSED);
        stream.seek(0, 0);
        EXPECT_EQ(RestOfBlocks(stream), "one\n" + last);
    }
}

TEST(SpoolStreamStore, KeepsTheByteBehindALineThatDidNotFit) {
    SpoolRoom room(16);
    FileStream stream(64);
    Put(stream, std::string(15, 'x'));
    stream.seek(0, 0);
    stream.initialise_buffering();
    stream.seek(15, 0);
    stream.seek(0, 0);
    EXPECT_EQ(NextLine(stream, false).state, LINE_OVERFLOW);
    stream.seek(15, 0);
    Put(stream, "yz\n");
    EXPECT_EQ(ReadAll(stream), std::string(15, 'x') + "yz\n");

    FileStream other(64);
    Put(other, std::string(15, 'x'));
    other.seek(0, 0);
    other.initialise_buffering();
    Put(other, "yz\n");  // the buffered layer still knows of fifteen bytes
    EXPECT_EQ(NextLine(other, false).state, LINE_OVERFLOW);
    EXPECT_EQ(other.spool_to_disk((room / "saved").c_str()), 0);
    EXPECT_EQ(room.Read("saved"), std::string(15, 'x') + "yz\n");
}

TEST(SpoolStreamStore, WritesNoNulBehindMemoryThatIsFullToTheLastByte) {
    SpoolRoom room(16);
    for (unsigned own : {15u, 16u, 17u}) {  // around the pool's size
        FileStream stream(own);
        ASSERT_TRUE(stream.setsize(own));
        stream.seek(0, 0);
        EXPECT_NE(NextLine(stream).state, LINE_COMPLETE);
        stream.seek(0, 0);
        EXPECT_EQ(RestOfBlocks(stream), std::string(own, '\0'));
        EXPECT_EQ(stream.size(), own);
    }
}

TEST(SpoolStreamStore, GivesAForeignBufferWhatTheCursorPointsTo) {
    SpoolRoom room(64);
    ScannerStream stream("name", false);
    Put(stream, "first\nsecond\n");
    stream.seek(0, 0);
    EXPECT_EQ(NextLine(stream).text, "first");
    char data[64];
    EXPECT_EQ(stream.read(data, sizeof data), 0) << "the buffered layer is the reader";
    stream.seek(6, 0);
    ASSERT_EQ(stream.read(data, sizeof data), 7);
    EXPECT_EQ(std::string(data, 7), "second\n");
}

TEST(SpoolStreamStore, SurvivesASeekBeyondTheDataBetweenLines) {
    SpoolRoom room(64);
    ScannerStream stream("name", false);
    Put(stream, "a\nb");
    stream.seek(0, 0);
    EXPECT_EQ(NextLine(stream).text, "a");
    stream.seek(60, 0);
    EXPECT_EQ(NextLine(stream).state, LINE_CLOSED);
    EXPECT_EQ(RestOfBlocks(stream), "");
    stream.seek(0, 0);
    EXPECT_EQ(RestOfBlocks(stream), "a\nb");
}

TEST(SpoolStreamStore, RewindsToTheLineItHandedOut) {
    SpoolRoom room(64);
    ScannerStream stream("name", false);
    Put(stream, "first\nsecond\n");
    stream.seek(0, 0);
    char* line = nullptr;
    bool io_done = false;
    LINE_STATE_T state;
    ASSERT_EQ(stream.getline(line, true, io_done, state, true), 5);
    EXPECT_EQ(stream.rewind(line), 0);
    EXPECT_EQ(RestOfBlocks(stream), "first\nsecond\n");
}

TEST(SpoolStreamStore, CutsWhatTheBufferedLayerStillHolds) {
    SpoolRoom room(64);
    ScannerStream stream("name", false);
    Put(stream, "first\nsecond\n");
    stream.seek(0, 0);
    EXPECT_EQ(NextLine(stream).text, "first");
    EXPECT_TRUE(stream.setsize(8));
    EXPECT_EQ(RestOfBlocks(stream), "se");
    EXPECT_EQ(ReadAll(stream), "first\nse");
}

TEST(SpoolStreamStore, DropsTheCacheOfAFileThatIsCutBehindIt) {
    SpoolRoom room(64);
    ScannerStream stream("name", false);
    Put(stream, "first\nsecond\n" + std::string(80, 'x'));
    stream.seek(0, 0);
    EXPECT_EQ(NextLine(stream).text, "first");
    EXPECT_TRUE(stream.setsize(6));
    EXPECT_EQ(RestOfBlocks(stream), "");
    stream.seek(0, 0);
    EXPECT_EQ(RestOfBlocks(stream), "first\n");
}

}  // namespace
