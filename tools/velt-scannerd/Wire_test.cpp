#include "Wire.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "testing/ScriptedStream.h"
#include "testing/Sockets.h"
#include "velt/streams/TCPStream.h"

using scannerd::Allowance;
using scannerd::Wire;
using velt_testing::EndsWith;
using velt_testing::ScriptedStream;
using velt_testing::SocketPair;
using End = scannerd::Wire::End;

namespace {

std::string NextLineOf(Wire& wire) {
    char* line = nullptr;
    VELT::LINE_STATE_T state = VELT::LINE_CLOSED;
    bool done = false;
    int const length = wire.getline(line, true, done, state, true);
    return length > 0 ? std::string(line, static_cast<std::size_t>(length)) : "";
}

constexpr Allowance kAmple{1000, 60000, 60000};

TEST(Wire, HandsOutWhatThePeerSays) {
    ScriptedStream peer({"one\ntw", "o\n"});
    Wire wire(peer, nullptr);
    wire.Begin(kAmple);
    EXPECT_EQ(NextLineOf(wire), "one");
    EXPECT_EQ(NextLineOf(wire), "two");
    EXPECT_EQ(NextLineOf(wire), "");
    EXPECT_EQ(wire.end(), End::Closed);
}

TEST(Wire, TakesABlockOfTheSizeAllowedAndNoMore) {
    for (unsigned long most = 1; most < 8; ++most) {
        ScriptedStream peer({"a", "b", "c", "\n"});
        Wire wire(peer, nullptr);
        wire.Begin({most, 60000, 60000});
        EXPECT_EQ(NextLineOf(wire), most >= 4 ? "abc" : "") << most;
        EXPECT_EQ(wire.end(), most >= 4 ? End::None : End::TooMuch) << most;
    }
}

TEST(Wire, ReadsLittleAheadOfAContentAndTheContentAtOnce) {
    ScriptedStream peer({"get scan\n" + std::string(100000, 'x')}, EndsWith::close, 65536);
    Wire wire(peer, nullptr);
    wire.Begin({200000, 60000, 60000});
    EXPECT_EQ(NextLineOf(wire), "get scan");
    char* ahead = nullptr;
    int const held = wire.buffereddata(ahead);
    EXPECT_LT(held, 4096);
    wire.Begin({200000, 60000, 60000, true});
    std::string rest(100000 - static_cast<std::size_t>(held), '\0');
    unsigned got = 0;
    EXPECT_EQ(wire.read(rest.data(), static_cast<unsigned>(rest.size()), &got), 0);
    EXPECT_EQ(got, rest.size());
}

TEST(Wire, CountsWhatItHasReadAheadForTheNextBlock) {
    ScriptedStream peer({"one\ntwo", "three\n"});
    Wire wire(peer, nullptr);
    wire.Begin(kAmple);
    EXPECT_EQ(NextLineOf(wire), "one");
    wire.Begin({3, 60000, 60000});
    EXPECT_TRUE(wire.begun());
    EXPECT_EQ(NextLineOf(wire), "");
    EXPECT_EQ(wire.end(), End::TooMuch);
}

TEST(Wire, StaysAtItsEnd) {
    ScriptedStream peer({"x"}, EndsWith::reset);
    Wire wire(peer, nullptr);
    wire.Begin(kAmple);
    EXPECT_EQ(NextLineOf(wire), "");
    EXPECT_EQ(wire.end(), End::Broken);
    peer.Say("more\n");
    wire.Begin(kAmple);
    unsigned got = 0;
    char room[8];
    EXPECT_EQ(wire.read(room, sizeof room, &got), ECONNABORTED);
    EXPECT_EQ(wire.end(), End::Broken);
}

class WireOnASocket : public testing::Test {
protected:
    WireOnASocket() : m_ends(SocketPair()), m_stream(m_ends.first.release()) {
        static VELT::BufferPool& pool = *new VELT::BufferPool(4096, 1);
        VELT::TCPStream::set_pool(&pool);
    }
    void Send(std::string const& text) {
        EXPECT_EQ(::send(m_ends.second.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }

    std::pair<velt_testing::Fd, velt_testing::Fd> m_ends;
    VELT::TCPStream m_stream;
};

TEST_F(WireOnASocket, EndsWhenNothingCame) {
    Wire wire(m_stream, nullptr);
    wire.Begin({1000, 20, 60000});
    EXPECT_EQ(NextLineOf(wire), "");
    EXPECT_EQ(wire.end(), End::Silent);
    EXPECT_FALSE(wire.begun());
}

// A peer that says a byte now and then gains no time by it.
TEST_F(WireOnASocket, EndsWhenTheRestDoesNotCome) {
    Wire wire(m_stream, nullptr);
    Send("half a line");
    wire.Begin({1000, 60000, 20});
    EXPECT_EQ(NextLineOf(wire), "");
    EXPECT_EQ(wire.end(), End::Silent);
    EXPECT_TRUE(wire.begun());
}

TEST_F(WireOnASocket, LeavesWhenTheProcessStopsAndNothingHasCome) {
    std::atomic<bool> stopping{false};
    Wire wire(m_stream, &stopping);
    wire.Begin({1000, 600000, 600000, false, 0});
    std::thread stopper([&] { stopping = true; });
    EXPECT_EQ(NextLineOf(wire), "");
    EXPECT_EQ(wire.end(), End::Stopping);
    stopper.join();
}

TEST_F(WireOnASocket, HearsOutWhoeverHasBegunThoughTheProcessStops) {
    std::atomic<bool> stopping{true};
    Wire wire(m_stream, &stopping);
    Send("be");
    wire.Begin({1000, 600000, 600000, false, 0});
    std::thread speaker([&] {
        velt_testing::Listener const wait;  // a moment's work
        Send("gun\n");
    });
    EXPECT_EQ(NextLineOf(wire), "begun");
    EXPECT_EQ(wire.end(), End::None);
    speaker.join();
}

TEST_F(WireOnASocket, DoesNotLeaveWhereItMayNot) {
    std::atomic<bool> stopping{true};
    Wire wire(m_stream, &stopping);
    wire.Begin({1000, 30, 30});
    EXPECT_EQ(NextLineOf(wire), "");
    EXPECT_EQ(wire.end(), End::Silent);
}

TEST(Wire, GathersWhatIsWrittenUntilItIsToGo) {
    ScriptedStream peer({});
    Wire wire(peer, nullptr);
    unsigned lengths[] = {3, 4};
    char const* pieces[] = {"one", "two\n"};
    unsigned sent = 0;
    EXPECT_EQ(wire.writev(2, lengths, pieces, &sent), 0);
    EXPECT_EQ(sent, 7u);
    EXPECT_EQ(peer.written(), "");
    EXPECT_TRUE(wire.Flush());
    EXPECT_EQ(peer.written(), "onetwo\n");
}

TEST(Wire, LetsALargeBodyThroughAsItComes) {
    ScriptedStream peer({});
    Wire wire(peer, nullptr);
    std::string const block(100000, 'x');
    unsigned sent = 0;
    EXPECT_EQ(wire.write(block.data(), 100000, &sent), 0);
    EXPECT_EQ(peer.written().size(), 100000u);
}

TEST_F(WireOnASocket, TellsThatWhatWasWrittenDidNotGo) {
    Wire wire(m_stream, nullptr);
    m_ends.second.Close();
    unsigned sent = 0;
    EXPECT_EQ(wire.write("x", 1, &sent), 0);
    EXPECT_FALSE(wire.Flush());
    EXPECT_TRUE(wire.lost());
    EXPECT_NE(wire.write("x", 1, &sent), 0);
}

TEST(Wire, DiscardsUpToTheEnd) {
    ScriptedStream peer({"this", "and that"});
    Wire wire(peer, nullptr);
    wire.Discard(kAmple);
    EXPECT_EQ(wire.end(), End::Closed);
}

}  // namespace
