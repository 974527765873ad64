#include <gtest/gtest.h>
#include <velt/streams/BufferedStream.h>

#include <cerrno>
#include <numeric>
#include <string>
#include <vector>

#include "testing/ScriptedStream.h"

using namespace VELT;
using velt_testing::EndsWith;
using velt_testing::ScriptedStream;
using Pieces = std::deque<std::string>;

namespace {

void ExpectLine(ScriptedStream& stream, std::string const& text, std::string const& why = "") {
    ScriptedStream::Line const line = stream.GetLine();
    EXPECT_EQ(line.state, LINE_COMPLETE) << why;
    EXPECT_EQ(line.length, static_cast<int>(text.size())) << why;
    EXPECT_EQ(line.text, text) << why;
}

void ExpectClosed(ScriptedStream& stream, int length) {
    ScriptedStream::Line const line = stream.GetLine();
    EXPECT_EQ(line.state, LINE_CLOSED);
    EXPECT_EQ(line.length, length);
}

// A stream on memory of its own, which holds all of its bytes when buffering starts.
class StoredStream : public BufferedStream {
public:
    StoredStream(std::string bytes, unsigned shownSize) : m_memory(std::move(bytes)), m_shownSize(shownSize) {
        m_length = static_cast<unsigned>(m_memory.size());
        m_memory.resize(std::max<std::size_t>(m_length + 1, shownSize));
        set_buffer_is_store(true);
    }
    int read(char*, unsigned, unsigned* received) override {
        ++reads;
        *received = 0;
        return 0;
    }
    int write(char const*, unsigned, unsigned*) override { return EBADF; }
    int writev(unsigned, unsigned*, char const**, unsigned*) override { return EBADF; }
    char* stream_info(unsigned& posn_, unsigned& size, unsigned& capacity) override {
        posn_ = 0;
        size = m_length;
        capacity = m_shownSize;
        return m_memory.data();
    }
    std::string Content() const { return m_memory.substr(0, m_length); }
    LINE_STATE_T GetLine(std::string& text) {
        bool io_done = false;
        char* line = nullptr;
        LINE_STATE_T state;
        int const length = getline(line, true, io_done, state, true);
        text = line && length > 0 ? std::string(line, static_cast<std::size_t>(length)) : "";
        return state;
    }

    int reads = 0;

private:
    std::string m_memory;
    unsigned m_length;
    unsigned m_shownSize;
};

}  // namespace

// The network may cut a line at any byte; the reader must not notice.
TEST(BufferedStreamLines, SurviveEveryCut) {
    std::string const wire = "RCPT TO:<a@b>\r\n\r\nDATA\r\n";
    for (std::size_t first = 0; first <= wire.size(); ++first)
        for (std::size_t second = first; second <= wire.size(); ++second) {
            Pieces pieces;
            for (auto const& piece : {wire.substr(0, first), wire.substr(first, second - first), wire.substr(second)})
                if (!piece.empty()) pieces.push_back(piece);
            ScriptedStream peer(pieces);
            std::string const why = "cut at " + std::to_string(first) + " and " + std::to_string(second);
            ExpectLine(peer, "RCPT TO:<a@b>", why);
            ExpectLine(peer, "", why);
            ExpectLine(peer, "DATA", why);
            ExpectClosed(peer, 0);
        }
}

TEST(BufferedStreamLines, SurviveEveryBufferSizeThatHoldsThem) {
    std::string const wire = "abcd\nefgh\n\nijkl\n";
    for (unsigned size = 6; size < 20; ++size)
        for (std::size_t cut = 0; cut < wire.size(); ++cut) {
            Pieces pieces{wire.substr(cut)};
            if (cut) pieces.push_front(wire.substr(0, cut));
            ScriptedStream peer(pieces, EndsWith::close, size);
            std::string const why = "buffer of " + std::to_string(size) + ", cut at " + std::to_string(cut);
            for (char const* expected : {"abcd", "efgh", "", "ijkl"}) ExpectLine(peer, expected, why);
        }
}

TEST(BufferedStreamLines, EndWithANulInPlace) {
    ScriptedStream peer({"one\r\ntwo\n"});
    bool io_done = false;
    char* line = nullptr;
    LINE_STATE_T state;
    ASSERT_EQ(peer.getline(line, true, io_done, state, true), 3);
    EXPECT_STREQ(line, "one");
    ASSERT_EQ(peer.getline(line, true, io_done, state, true), 3);
    EXPECT_STREQ(line, "two");
}

TEST(BufferedStreamLines, AreNotCopied) {
    ScriptedStream peer({"one\ntwo\n"});
    bool io_done = false;
    char* first = nullptr;
    char* second = nullptr;
    LINE_STATE_T state;
    peer.getline(first, true, io_done, state, true);
    peer.getline(second, true, io_done, state, true);
    EXPECT_EQ(second, first + 4);
}

TEST(BufferedStreamLines, KeepTheirReturnUnlessItIsToGo) {
    ScriptedStream peer({"one\r\ntwo\r\n"});
    EXPECT_EQ(peer.GetLine(false).text, "one\r");
    EXPECT_EQ(peer.GetLine(true).text, "two");
}

TEST(BufferedStreamLines, LoseOnlyOneReturn) {
    ScriptedStream peer({"one\r\r\n\rtwo\n"});
    EXPECT_EQ(peer.GetLine().text, "one\r");
    EXPECT_EQ(peer.GetLine().text, "\rtwo");
}

TEST(BufferedStreamLines, MayHoldNulBytes) {
    ScriptedStream peer({std::string("a\0b\n", 4)});
    EXPECT_EQ(peer.GetLine().text, std::string("a\0b", 3));
}

TEST(BufferedStreamLines, ReadOnlyWhenNoneIsAtHand) {
    ScriptedStream peer({"a\nb\nc\n"});
    for (int i = 0; i < 3; ++i) peer.GetLine();
    EXPECT_EQ(peer.reads(), 1);
}

TEST(BufferedStreamLines, OfferTheFreeRoomButOneByteToARead) {
    ScriptedStream peer({"abc", "d\n"}, EndsWith::close, 10);
    peer.GetLine();
    EXPECT_EQ(peer.asked(), (std::vector<unsigned>{9, 6}));
}

TEST(BufferedStreamOverflow, ComesAtOneByteLessThanTheBufferEvenWhenTheEndIsNext) {
    ScriptedStream peer({"1234567", "\nnext\n"}, EndsWith::close, 8);
    ScriptedStream::Line const head = peer.GetLine();
    EXPECT_EQ(head.state, LINE_OVERFLOW);
    EXPECT_EQ(head.length, 7);
    EXPECT_EQ(head.text, "1234567");
    EXPECT_EQ(peer.reads(), 1);
    ExpectLine(peer, "", "the line end that came next");
    ExpectLine(peer, "next");
}

TEST(BufferedStreamOverflow, SparesTheLongestLineThatFits) {
    ScriptedStream peer({"123456\n", "123456\r\n"}, EndsWith::close, 8);
    ExpectLine(peer, "123456");
    ScriptedStream::Line const line = peer.GetLine();
    EXPECT_EQ(line.state, LINE_OVERFLOW) << "the return counts";
    EXPECT_EQ(line.text, "123456");
}

// Each length around each size of buffer, in one piece and byte by byte.
TEST(BufferedStreamOverflow, IsDecidedByLengthAloneNotByArrival) {
    for (unsigned size = 2; size < 12; ++size)
        for (unsigned length = 0; length < 30; ++length) {
            std::string const text(length, 'x');
            for (bool const bytewise : {false, true}) {
                Pieces pieces;
                for (char const c : text + "\n") pieces.push_back(std::string(1, c));
                if (!bytewise) pieces = {text + "\n"};
                ScriptedStream peer(pieces, EndsWith::close, size);
                std::string got;
                ScriptedStream::Line line;
                while ((line = peer.GetLine()).state == LINE_OVERFLOW) {
                    EXPECT_EQ(line.text.size(), size - 1);
                    got += line.text;
                }
                EXPECT_EQ(line.state, LINE_COMPLETE);
                EXPECT_EQ(got + line.text, text) << "buffer " << size << " line " << length;
            }
        }
}

TEST(BufferedStreamOverflow, LeavesOutAReturnAtItsEndAndEndsWithANul) {
    ScriptedStream peer({"123456\r\nX\n"}, EndsWith::close, 8);
    bool io_done = false;
    char* line = nullptr;
    LINE_STATE_T state;
    ASSERT_EQ(peer.getline(line, true, io_done, state, true), 6);
    EXPECT_EQ(state, LINE_OVERFLOW);
    EXPECT_STREQ(line, "123456");
    peer.restore_saved_chr();
    EXPECT_EQ(std::string(line, 7), "123456\r") << "it is kept as the byte under the NUL";
    ExpectLine(peer, "");
    ExpectLine(peer, "X");
}

TEST(BufferedStreamOverflow, KeepsAReturnThatIsNotToGo) {
    ScriptedStream peer({"123456\r\n"}, EndsWith::close, 8);
    ScriptedStream::Line const line = peer.GetLine(false);
    EXPECT_EQ(line.state, LINE_OVERFLOW);
    EXPECT_EQ(line.text, "123456\r");
}

TEST(BufferedStreamOverflow, CannotBeRewound) {
    ScriptedStream peer({"12345678\n"}, EndsWith::close, 8);
    bool io_done = false;
    char* line = nullptr;
    LINE_STATE_T state;
    peer.getline(line, true, io_done, state, true);
    ASSERT_EQ(state, LINE_OVERFLOW);
    for (int at = 0; at <= 8; ++at) EXPECT_EQ(peer.rewind(line + at), -1) << at;
    ExpectLine(peer, "8", "the tail is still what comes next");
}

TEST(BufferedStreamOverflow, TailIsDroppedUpToTheNextLine) {
    for (unsigned tail = 0; tail < 40; ++tail) {
        ScriptedStream peer({"1234567" + std::string(tail, 't') + "\nnext\n"}, EndsWith::close, 8);
        ASSERT_EQ(peer.GetLine().state, LINE_OVERFLOW);
        EXPECT_TRUE(peer.empty_overflow());
        ExpectLine(peer, "next", "tail of " + std::to_string(tail));
    }
}

TEST(BufferedStreamOverflow, TailThatNeverEndsIsToldByFalse) {
    for (EndsWith const end : {EndsWith::close, EndsWith::silence, EndsWith::reset}) {
        ScriptedStream peer({"1234567890123456789"}, end, 8);
        ASSERT_EQ(peer.GetLine().state, LINE_OVERFLOW);
        EXPECT_FALSE(peer.empty_overflow());
    }
}

TEST(BufferedStreamOverflow, DoesNotSpinOnABufferWithoutRoom) {
    for (unsigned size : {0u, 1u}) {
        ScriptedStream peer({"abc\n"}, EndsWith::close, size);
        ExpectClosed(peer, 0);
        EXPECT_FALSE(peer.empty_overflow());
    }
}

TEST(BufferedStreamEnd, KeepsALastLineWithoutItsEndReadable) {
    ScriptedStream peer({"one\nlast"});
    ExpectLine(peer, "one");
    ExpectClosed(peer, 0);
    EXPECT_EQ(peer.Buffered(), "last");
    EXPECT_EQ(peer.GetBlock(), "last");
    EXPECT_EQ(peer.GetBlock(), "");
}

TEST(BufferedStreamEnd, SilenceIsATimeoutWithItsErrno) {
    ScriptedStream peer({"HEL"}, EndsWith::silence);
    ScriptedStream::Line const line = peer.GetLine();
    EXPECT_EQ(line.state, LINE_CLOSED);
    EXPECT_EQ(line.length, -1);
    EXPECT_EQ(line.error, ETIMEDOUT);
    peer.Say("O\n");
    ExpectLine(peer, "HELO", "what came before the silence is kept");
}

TEST(BufferedStreamOneRead, IsUsedUpByTheFirstRead) {
    ScriptedStream peer({"par", "tial\n"});
    bool io_done = false;
    ScriptedStream::Line line = peer.GetLine(false, io_done);
    EXPECT_TRUE(io_done);
    EXPECT_EQ(line.state, LINE_INCOMPLETE);
    EXPECT_EQ(line.length, -1);
    EXPECT_EQ(line.error, 0);
    EXPECT_EQ(peer.reads(), 1);
    io_done = false;
    line = peer.GetLine(false, io_done);
    EXPECT_EQ(line.state, LINE_COMPLETE);
    EXPECT_EQ(line.text, "partial");
}

TEST(BufferedStreamOneRead, ThatIsUsedUpLeavesErrnoZeroAndTheLineIncomplete) {
    ScriptedStream peer({"whole\n"});
    bool io_done = true;
    char* line = reinterpret_cast<char*>(&peer);
    LINE_STATE_T state = LINE_COMPLETE;
    errno = EIO;
    EXPECT_EQ(peer.getline(line, false, io_done, state, true), -1);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(state, LINE_INCOMPLETE);
    EXPECT_EQ(line, nullptr);
    char* data = nullptr;
    errno = EIO;
    EXPECT_EQ(peer.readdata(data, 10, false, io_done), -1);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(peer.reads(), 0);
}

TEST(BufferedStreamOneRead, IsNeitherNeededNorUsedUpByForce) {
    ScriptedStream peer({"a", "b\n", "c\n"});
    bool io_done = true;
    EXPECT_EQ(peer.GetLine(true, io_done).text, "ab");
    io_done = false;
    EXPECT_EQ(peer.GetLine(true, io_done).text, "c");
    EXPECT_FALSE(io_done);
}

TEST(BufferedStreamOneRead, ThatMeetsTheEndClosesTheLine) {
    ScriptedStream peer({"a"});
    bool io_done = false;
    EXPECT_EQ(peer.GetLine(false, io_done).state, LINE_INCOMPLETE);
    io_done = false;
    ScriptedStream::Line const line = peer.GetLine(false, io_done);
    EXPECT_EQ(line.state, LINE_CLOSED);
    EXPECT_EQ(line.length, 0);
}

TEST(BufferedStreamOneRead, IsNotUsedUpByAFailedRead) {
    ScriptedStream peer({}, EndsWith::reset);
    bool io_done = false;
    EXPECT_EQ(peer.GetLine(false, io_done).error, ECONNRESET);
    EXPECT_FALSE(io_done);
}

TEST(BufferedStreamBlocks, AreHandedOutBeforeAnyRead) {
    ScriptedStream peer({"line\nblock", "more"});
    ExpectLine(peer, "line");
    bool io_done = true;
    char* data = nullptr;
    EXPECT_EQ(peer.readdata(data, 3, false, io_done), 3);
    EXPECT_EQ(std::string(data, 3), "blo");
    EXPECT_EQ(peer.readdata(data, 100, false, io_done), 2);
    EXPECT_EQ(peer.reads(), 1);
    EXPECT_EQ(peer.GetBlock(), "more");
    EXPECT_EQ(peer.reads(), 2);
}

TEST(BufferedStreamBlocks, SurviveEveryLimitAndEveryBuffer) {
    std::string const wire = "the quick\nbrown fox\r\n";
    for (unsigned size = 2; size < 25; ++size)
        for (unsigned max = 1; max < 25; ++max) {
            ScriptedStream peer({wire}, EndsWith::close, size);
            std::string got;
            for (std::string block; !(block = peer.GetBlock(max)).empty(); got += block) EXPECT_LE(block.size(), max);
            EXPECT_EQ(got, wire);
        }
}

TEST(BufferedStreamBlocks, FailWithTheErrnoOfTheRead) {
    ScriptedStream peer({}, EndsWith::reset);
    bool io_done = false;
    char* data = nullptr;
    EXPECT_EQ(peer.readdata(data, 10, true, io_done), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST(BufferedStreamBlocks, AtHandAreShownAndStay) {
    ScriptedStream peer({"one\ntwo\nthree"});
    EXPECT_EQ(peer.Buffered(), "");
    EXPECT_EQ(peer.reads(), 0);
    ExpectLine(peer, "one");
    EXPECT_EQ(peer.Buffered(), "two\nthree");
    ExpectLine(peer, "two");
}

TEST(BufferedStreamBlocks, ThatEndInAReturnLendItToTheEmptyLineBehind) {
    ScriptedStream peer({"abc\r\nnext\n"});
    EXPECT_EQ(peer.GetBlock(4), "abc\r");
    ScriptedStream::Line const line = peer.GetLine();
    EXPECT_EQ(line.state, LINE_COMPLETE);
    EXPECT_EQ(line.length, -1);
    ExpectLine(peer, "next");
}

TEST(BufferedStreamBlocks, ThatEndInAReturnLeaveItAloneWhenItIsNotToGo) {
    ScriptedStream peer({"abc\r\nnext\n"});
    peer.GetBlock(4);
    EXPECT_EQ(peer.GetLine(false).length, 0);
}

TEST(BufferedStreamLook, SeesALineOnlyWhenItIsWholeAndAtHand) {
    ScriptedStream peer({"one\ntw", "o\n"});
    EXPECT_FALSE(peer.is_line_buffered());
    ExpectLine(peer, "one");
    EXPECT_FALSE(peer.is_line_buffered()) << "the line that was taken is not at hand";
    bool io_done = true;
    peer.GetLine(false, io_done);
    EXPECT_FALSE(peer.is_line_buffered());
    ExpectLine(peer, "two");
    EXPECT_FALSE(peer.is_line_buffered());
    EXPECT_EQ(peer.reads(), 2);
}

TEST(BufferedStreamLook, DoesNotSeeALineEndThatABlockTook) {
    std::string const wire = "one\ntwo";
    for (unsigned taken = 0; taken <= wire.size(); ++taken) {
        ScriptedStream peer({wire});
        ASSERT_EQ(peer.GetBlock(taken), wire.substr(0, taken));
        EXPECT_EQ(peer.is_line_buffered(), taken <= 3) << taken;
    }
}

TEST(BufferedStreamRewind, GivesTheLineBackAsItCame) {
    for (bool const strip : {false, true}) {
        ScriptedStream peer({"one\r\ntwo\r\n"});
        bool io_done = false;
        char* line = nullptr;
        LINE_STATE_T state;
        peer.getline(line, true, io_done, state, strip);
        EXPECT_EQ(peer.rewind(line), 0);
        EXPECT_EQ(std::string(line, 10), "one\r\ntwo\r\n") << "the byte under the NUL is back at once";
        EXPECT_TRUE(peer.is_line_buffered());
        EXPECT_EQ(peer.Buffered(), "one\r\ntwo\r\n");
        ExpectLine(peer, "one");
    }
}

TEST(BufferedStreamRewind, ReachesEveryByteOfTheBufferAndNoOther) {
    ScriptedStream peer({"one\ntwo\n"});
    bool io_done = false;
    char* line = nullptr;
    LINE_STATE_T state;
    peer.getline(line, true, io_done, state, true);
    for (int at = 0; at < 8; ++at) {
        EXPECT_EQ(peer.rewind(line + at), 0);
        EXPECT_EQ(peer.Buffered(), std::string("one\ntwo\n").substr(static_cast<std::size_t>(at)));
    }
    EXPECT_EQ(peer.rewind(line + 8), -1) << "one past the data";
    EXPECT_EQ(peer.rewind(line - 1), -1);
    EXPECT_EQ(peer.Buffered(), "\n") << "a refused rewind changes nothing";
}

TEST(BufferedStreamRewind, OfAStreamWithoutABufferFails) {
    ScriptedStream peer({});
    char elsewhere = 0;
    EXPECT_EQ(peer.rewind(&elsewhere), -1);
    EXPECT_EQ(peer.rewind(nullptr), -1);
}

TEST(BufferedStreamPlaces, AreSetWithoutACheck) {
    ScriptedStream peer({"abcdef", "gh\n"});
    peer.GetBlock(3);
    peer.seek_posn(1);
    EXPECT_EQ(peer.Buffered(), "bcdef");
    peer.seek_posn(1000);
    EXPECT_EQ(peer.Buffered(), "");
    EXPECT_FALSE(peer.is_line_buffered());
    ExpectLine(peer, "gh", "what lies before the place is not unread");
}

TEST(BufferedStreamPlaces, BehindTheDataAreKeptUntilTheDataReachThem) {
    ScriptedStream peer({"abcdefgh"});
    peer.GetBlock(1);
    for (unsigned place = 0; place <= 8; ++place) {
        peer.set_file_size(3);
        peer.seek_posn(static_cast<long>(place));
        peer.set_file_size(8);
        EXPECT_EQ(peer.Buffered(), std::string("abcdefgh").substr(std::min(place, 8u))) << place;
    }
}

// Each operation that moves or hands out begins with the byte under the NUL of the last line.
TEST(BufferedStreamPlaces, MovedIntoALineThatWasHandedOutFindItWhole) {
    enum Way { line, block, look };
    for (Way const way : {line, block, look})
        for (long place = 0; place < 4; ++place) {
            ScriptedStream peer({"one\ntwo\n"});
            ExpectLine(peer, "one");
            peer.seek_posn(place);
            auto const at = static_cast<std::size_t>(place);
            std::string const rest = std::string("one\ntwo\n").substr(at);
            if (way == line) {
                ExpectLine(peer, rest.substr(0, rest.find('\n')));
            } else {
                EXPECT_EQ(way == block ? peer.GetBlock() : peer.Buffered(), rest);
            }
        }
}

TEST(BufferedStreamPlaces, FarBehindTheDataHoldNothing) {
    ScriptedStream peer({"abcdef", "gh\n"});
    peer.GetBlock(3);
    peer.seek_posn(-1);
    EXPECT_EQ(peer.Buffered(), "");
    EXPECT_EQ(peer.GetBlock(), "gh\n");
}

TEST(BufferedStreamPlaces, FollowACutOfTheData) {
    ScriptedStream peer({"one\ntwo\n"});
    ExpectLine(peer, "one");
    peer.set_file_size(6);
    EXPECT_EQ(peer.Buffered(), "tw");
    peer.set_file_size(2);
    EXPECT_EQ(peer.Buffered(), "");
    peer.set_file_size(4);
    EXPECT_EQ(peer.Buffered(), "e\n") << "the place went down with the data";
    peer.seek_posn(0);
    EXPECT_EQ(peer.Buffered(), "on" + std::string("e\n")) << "the byte under the NUL is back";
}

TEST(BufferedStreamPlaces, CutBringsTheByteUnderTheNulBackAtOnce) {
    for (unsigned size = 0; size <= 8; ++size) {
        ScriptedStream peer({"one\ntwo\n"});
        bool io_done = false;
        char* line = nullptr;
        LINE_STATE_T state;
        peer.getline(line, true, io_done, state, true);
        peer.set_file_size(size);
        EXPECT_EQ(std::string(line, 8), "one\ntwo\n") << size;
    }
}

TEST(BufferedStreamPlaces, AreForgottenWithTheDataOrWithout) {
    ScriptedStream peer({"one\ntwo\n", "three\n"});
    ExpectLine(peer, "one");
    peer.invalidate_buffer(true);
    EXPECT_EQ(peer.Buffered(), std::string("one\0two\n", 8)) << "the saved byte is forgotten, not put back";
    peer.invalidate_buffer(false);
    EXPECT_EQ(peer.Buffered(), "");
    ExpectLine(peer, "three");
}

// A search that has begun must not hide a line end behind a place that was moved back.
TEST(BufferedStreamPlaces, MovedBackAreSearchedAgain) {
    ScriptedStream peer({"one\ntwo", "!\n"});
    bool io_done = false;
    char* line = nullptr;
    LINE_STATE_T state;
    peer.GetBlock(4);
    EXPECT_EQ(peer.getline(line, false, io_done = true, state, true), -1);  // compacts: "two" stands in front now
    char* data = nullptr;
    ASSERT_EQ(peer.buffereddata(data), 3);
    data[1] = '\n';
    ExpectLine(peer, "t");
    ASSERT_EQ(peer.rewind(data), 0);
    ExpectLine(peer, "t");
    ExpectLine(peer, "o!");
}

TEST(BufferedStreamBuffer, ThatCannotBeHadClosesEverything) {
    ScriptedStream peer({"abc\n"});
    peer.RefuseBuffer();
    ExpectClosed(peer, -1);
    char* data = reinterpret_cast<char*>(&peer);
    bool io_done = false;
    LINE_STATE_T state = LINE_COMPLETE;
    EXPECT_EQ(peer.getline(data, false, io_done, state, true), -1);
    EXPECT_EQ(state, LINE_CLOSED);
    EXPECT_EQ(data, nullptr);
    data = reinterpret_cast<char*>(&peer);
    EXPECT_EQ(peer.buffereddata(data), -1);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(peer.readdata(data, 1, true, io_done), -1);
    EXPECT_FALSE(peer.is_line_buffered());
    EXPECT_FALSE(peer.empty_overflow());
    EXPECT_EQ(peer.reads(), 0);
}

namespace {

// A stream whose pool appears only later.
class LateStream : public ScriptedStream {
public:
    using ScriptedStream::ScriptedStream;
    BufferPool* get_pool() override {
        ++asked;
        return asked > 1 ? ScriptedStream::get_pool() : nullptr;
    }
    int asked = 0;
};

}  // namespace

TEST(BufferedStreamBuffer, IsNotAskedForAgainUntilTheStreamIsReset) {
    LateStream peer({"abc\n"});
    ExpectClosed(peer, -1);
    ExpectClosed(peer, -1);
    EXPECT_EQ(peer.asked, 1);
    peer.reset_buffered_stream();
    ExpectLine(peer, "abc");
    EXPECT_EQ(peer.asked, 2);
}

TEST(BufferedStreamBuffer, IsTakenAtTheFirstReadAndGivenBackAtTheReset) {
    ScriptedStream peer({"one\n", "two\n"});
    BufferPool& pool = *peer.get_pool();
    ExpectLine(peer, "one");
    peer.reset_buffered_stream();
    unsigned size = 0;
    char* const given = pool.obtain_buffer(size);
    EXPECT_EQ(std::string(given, 3), "one") << "the very buffer of the stream";
    pool.release_buffer(given);
    ExpectLine(peer, "two", "a reset stream can be used again");
}

TEST(BufferedStreamBuffer, CanBeSetUpAheadAndOnlyOnce) {
    ScriptedStream peer({"one\n"});
    peer.initialise_buffering();
    peer.initialise_buffering();
    ExpectLine(peer, "one");
    EXPECT_EQ(peer.reads(), 1);
}

TEST(BufferedStreamBase, HasHarmlessHooks) {
    StoredStream stream("x", 8);
    BufferedStream& base = stream;
    EXPECT_EQ(base.get_file(), -1);
    EXPECT_EQ(base.get_pool(), nullptr);
    base.flush();
    base.close_io_stream();
    unsigned posn = 1, size = 2, capacity = 3;
    EXPECT_EQ(stream.BufferedStream::stream_info(posn, size, capacity), nullptr);
    EXPECT_EQ(posn + size + capacity, 6u);
}

TEST(BufferedStreamStore, IsReadInPlaceAndLeftWhole) {
    std::string const bytes = "L1\r\nL2\nL3";
    for (unsigned shown : {4u, 9u, 10u, 11u, 64u}) {
        StoredStream stream(bytes, shown);
        std::string text;
        EXPECT_EQ(stream.GetLine(text), LINE_COMPLETE);
        EXPECT_EQ(text, "L1");
        EXPECT_EQ(stream.GetLine(text), LINE_COMPLETE);
        EXPECT_EQ(text, "L2");
        EXPECT_EQ(stream.GetLine(text), LINE_CLOSED) << "an unfinished line is not moved";
        EXPECT_EQ(stream.Content(), bytes);
        char* rest = nullptr;
        EXPECT_EQ(stream.buffereddata(rest), 2);
        EXPECT_EQ(std::string(rest, 2), "L3");
    }
}

TEST(BufferedStreamStore, CanBeReadAgainFromEveryPlace) {
    std::string const bytes = "ab\ncd\nef\n";
    for (std::size_t at = 0; at <= bytes.size(); ++at) {
        StoredStream stream(bytes, 64);
        std::string text;
        stream.GetLine(text);
        stream.restore_saved_chr();
        stream.invalidate_buffer(true);
        stream.seek_posn(static_cast<long>(at));
        char* rest = nullptr;
        ASSERT_EQ(stream.buffereddata(rest), static_cast<int>(bytes.size() - at));
        EXPECT_EQ(std::string(rest, bytes.size() - at), bytes.substr(at));
    }
}

// Without this limit the count of the free room would wrap and a read could run over the memory.
TEST(BufferedStreamStore, ThatHoldsMoreThanItShowsOffersNoRoom) {
    StoredStream stream(std::string(100, 'x'), 10);
    std::string text;
    EXPECT_EQ(stream.GetLine(text), LINE_CLOSED);
    EXPECT_EQ(stream.reads, 0);
}
