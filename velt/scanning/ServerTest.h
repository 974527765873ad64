// What the tests of scanner servers share: a resource manager's model, a limit of descriptors for each test, a time of
// day that the test moves, pauses that it takes note of, and both ends of connections to a scripted scanner process.
// The program is linked with what is wrapped in ServerTest.cpp. Owner: the test. Threads: the verbs are the test's.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "testing/EventCapture.h"
#include "testing/FailingNew.h"
#include "testing/ManagerModel.h"
#include "testing/SessionWorld.h"
#include "testing/Sockets.h"
#include "testing/Waiting.h"
#include "velt/connection/FixedTime.h"
#include "velt/scanning/ScannerServer.h"
#include "velt/streams/TCPStream.h"

namespace velt_testing {

// What sleep(3) was asked for. The threads of caches sleep until LetCacheThreadsLook; everybody else not at all.
std::vector<unsigned> Pauses();
void ForgetPauses();
unsigned CacheThreadsStarted();       // since the program began
std::size_t CacheThreadStackBytes();  // of the latest
void LetCacheThreadsLook();           // returns when each that there is has looked once more and sleeps again
void RefuseThreads(bool on);          // no more threads can be made

// The soft limit of descriptors while one lives.
class DescriptorLimit {
public:
    explicit DescriptorLimit(rlim_t limit) {
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &m_before), 0);
        rlimit const wanted{limit, m_before.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &wanted), 0);
    }
    ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &m_before); }
    DescriptorLimit(DescriptorLimit const&) = delete;
    DescriptorLimit& operator=(DescriptorLimit const&) = delete;

private:
    rlimit m_before;
};

class WaitingSession : public VELT::Connection {
public:
    bool ScannerCallback() override {
        ++callbacks;
        if (onCallback) onCallback();
        return true;
    }
    void LogConnectionAttributes(KORlog::InfoBag& bag) const override;

    int callbacks = 0;
    std::function<void()> onCallback;
};

// Runs with a limit at which handles cannot be moved up, and with one at which they are.
class LimitedTest : public testing::TestWithParam<rlim_t> {
protected:
    bool MovesUp() const { return GetParam() > 1024; }
    DescriptorLimit m_limit{GetParam()};
};

class ServerTest : public LimitedTest {
protected:
    ServerTest();
    ~ServerTest() override;

    static constexpr char const* stasis = "get stasis\n\n";
    static constexpr char const* wakeup = "get wakeup\n\n";
    static constexpr char const* good = "State OK\n\n";

    // The server of this id in the list of this test, which begins as a new one. Its resource has the same number.
    VELT::ScannerServer& Server(int id = 1);
    void NewList() { sequence = ++s_sequence; }

    // A connection whose peer is the test's.
    struct Wire {
        VELT::TCPStream* stream;
        Fd peer;
    };
    static Wire Connected(std::string const& answer);  // the peer has said this already
    Fd Kept(VELT::ScannerServer& server);              // the far end of one that the server keeps now
    static bool IsClosed(Fd const& peer);              // by our side
    static std::string Heard(Fd const& peer) { return ReadAvailable(peer.get()); }
    static void Say(Fd const& peer, std::string const& text);

    ManagerModel manager;
    SessionWorld world;
    FixedTime time;
    Listener listener;
    WaitingSession session;
    int sequence;

private:
    static inline int s_sequence = 1000;
};

}  // namespace velt_testing
