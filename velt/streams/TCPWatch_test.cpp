#include <gtest/gtest.h>
#include <sys/resource.h>
#include <velt/streams/TCPStream.h>
#include <velt/streams/TCPWatch.h>

#include <cerrno>
#include <deque>
#include <string>

#include "testing/Sockets.h"

using namespace VELT;
using namespace velt_testing;

namespace {

// A number of watched streams and their peers.
class Watched {
public:
    explicit Watched(unsigned number) {
        for (unsigned i = 0; i < number; ++i) {
            auto ends = SocketPair();
            streams.emplace_back(ends.first.release());
            peers.push_back(std::move(ends.second));
            watch.Watch(&streams.back());
        }
    }
    void Say(unsigned which) { ASSERT_EQ(::send(peers[which].get(), "x", 1, 0), 1); }

    TCPWatch watch;
    std::deque<TCPStream> streams;
    std::deque<Fd> peers;
};

}  // namespace

TEST(TCPWatch, TellsWhichOfItsStreamsHaveNews) {
    Watched all(5);
    EXPECT_EQ(all.watch.Wait(0), 0);
    all.Say(1);
    all.peers[3].Close();
    EXPECT_EQ(all.watch.Wait(10000), 2);
    for (unsigned i = 0; i < 5; ++i) EXPECT_EQ(all.watch.HasTriggered(&all.streams[i]), i == 1 || i == 3) << i;
}

TEST(TCPWatch, TellsOfAnErrorAndOfAnEndWithoutInput) {
    TCPStream unconnected;
    unconnected.CreateSocket(AF_INET);  // has hung up
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    Fd(ends[0]).Close();
    TCPStream broken(ends[1]);  // in error
    TCPWatch watch;
    watch.Watch(&unconnected);
    watch.Watch(&broken);
    EXPECT_EQ(watch.Wait(0), 2);
    EXPECT_TRUE(watch.HasTriggered(&unconnected));
    EXPECT_TRUE(watch.HasTriggered(&broken));
}

TEST(TCPWatch, IgnoresASixtyFifthStream) {
    Watched all(70);
    for (unsigned i = 0; i < 70; ++i) all.Say(i);
    EXPECT_EQ(all.watch.Wait(0), 64);
    for (unsigned i = 0; i < 70; ++i) EXPECT_EQ(all.watch.HasTriggered(&all.streams[i]), i < 64) << i;
}

TEST(TCPWatch, LeavesOutNullAndClosedStreams) {
    TCPWatch watch;
    TCPStream closed;
    watch.Watch(nullptr);
    for (int i = 0; i < 100; ++i) watch.Watch(&closed);
    EXPECT_EQ(watch.Wait(0), 0);
    EXPECT_FALSE(watch.HasTriggered(nullptr));
    EXPECT_FALSE(watch.HasTriggered(&closed));
    auto ends = SocketPair();
    TCPStream open(ends.first.release());
    watch.Watch(&open);
    ASSERT_EQ(::send(ends.second.get(), "x", 1, 0), 1);
    EXPECT_EQ(watch.Wait(0), 1) << "those left out take no room";
}

TEST(TCPWatch, TriggersNothingBeforeItWaits) {
    Watched all(1);
    all.Say(0);
    EXPECT_FALSE(all.watch.HasTriggered(&all.streams[0]));
}

TEST(TCPWatch, WaitsOnThroughSignals) {
    Watched all(1);
    int const to = all.peers[0].get();
    Alarm alarm(4, [to] { (void)::send(to, "x", 1, MSG_NOSIGNAL); });
    EXPECT_EQ(all.watch.Wait(10000), 1);
    EXPECT_GE(Alarm::ticks(), 4);
}

TEST(TCPWatch, AnswersMinusOneWhenTheSystemRefuses) {
    Watched all(1);
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    rlimit const none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    int const result = all.watch.Wait(0);
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(result, -1);
}
