#include "Probe.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <string>
#include <thread>

#include <velt/streams/BufferPool.h>
#include <velt/streams/TCPStream.h>

#include "ScriptedScanner.h"
#include "testing/Sockets.h"

using namespace rmgrd;
using namespace velt_testing;
using namespace VELT;

namespace {

constexpr char const* good = ScriptedScanner::ok;
constexpr char const* scanned = ScriptedScanner::scanned;

// Says its lines one after the other, each when it has heard what belongs before it.
class ProbeTest : public testing::Test {
protected:
    ProbeTest() { TCPStream::set_pool(&pool); }
    ~ProbeTest() override { TCPStream::set_pool(nullptr); }
    std::string Ask(std::string const& toSetUp, std::string const& toScan) {
        std::thread server([&] {
            Fd const peer(::accept(listener.fd(), nullptr, nullptr));
            std::string heard = ScriptedScanner::HearTo(peer.get(), ScriptedScanner::endOfFile);
            setUp = heard;
            if (toSetUp.empty()) return;
            ScriptedScanner::Say(peer.get(), toSetUp);
            scan = ScriptedScanner::HearTo(peer.get(), "get scan\n\n");
            ScriptedScanner::Say(peer.get(), toScan);
        });
        std::string const answer = Probe({"a", listener.address(), 0}, "the_policy", 2000);
        server.join();
        return answer;
    }
    // What is said of a server that says `piece` again and again, `pause` apart, until nobody listens.
    std::string AskWhoGoesOn(std::string const& piece, std::chrono::milliseconds pause) {
        std::thread server([&] {
            Fd const peer(::accept(listener.fd(), nullptr, nullptr));
            pollfd gone{peer.get(), POLLRDHUP, 0};
            while (::send(peer.get(), piece.data(), piece.size(), MSG_NOSIGNAL) > 0 &&
                   (pause.count() == 0 || ::poll(&gone, 1, static_cast<int>(pause.count())) == 0))
                continue;
        });
        std::string const answer = Probe({"a", listener.address(), 0}, "the_policy", 500);
        server.join();
        return answer;
    }
    BufferPool pool{16384, 0};
    Listener listener;
    std::string setUp, scan;
};

}  // namespace

TEST_F(ProbeTest, IsContentWithAServerThatFindsTheTestFile) {
    EXPECT_EQ(Ask(good, std::string(scanned) + ScriptedScanner::found), "");
    EXPECT_EQ(setUp.substr(0, 36), "get setup_scan\nprotocol probe\ntime 1");
    EXPECT_NE(setUp.find("\nsize 68\npolicy the_policy\n\n\r\nX5O!P%@AP"), setUp.npos);
    EXPECT_EQ(scan, "get scan\n\n");
}

// Where the finding decides what becomes of the item it is the verdict's master, and no other result has it.
TEST_F(ProbeTest, IsContentWithAFindingThatDecides) {
    EXPECT_EQ(
        Ask(good, std::string(scanned) + "msr.triggered sl 1\nmsr.action ss 4\nDENYmsr.master.result\nclassname ss 12\n"
                                         "KORAVScannerinfecteditems sl 1\n\n\n"),
        "");
    EXPECT_EQ(
        Ask(good, std::string(scanned) + "msr.master.result\nclassname ss 12\nKORAVScannerinfecteditems sl 0\n\n\n"),
        "does not find the test file");
}

TEST_F(ProbeTest, TellsWhyAServerIsNotFit) {
    EXPECT_EQ(Ask(good, std::string(scanned) + "\n"), "does not find the test file");
    EXPECT_EQ(Ask(good, std::string(scanned) + "msr.sr.result\nclassname ss 12\nKORAVScannerinfecteditems sl 0\n\n\n"),
              "does not find the test file");
    EXPECT_EQ(Ask(good, std::string(scanned) + "msr.sr.result\nclassname ss 11\nSpamScannerinfecteditems sl 1\n\n\n"),
              "does not find the test file");
    EXPECT_EQ(Ask(good, std::string(scanned) + "rubbish\n\n"), "gives no verdict that can be read");
    EXPECT_EQ(Ask(good, "State FAILED\n\n"), "refused the scan");
    EXPECT_EQ(Ask("State DENIED\n\n", ""), "refused the set-up");
    EXPECT_EQ(Ask("Other OK\n\n", ""), "refused the set-up");
    EXPECT_EQ(Ask("\n", ""), "no answer to the set-up");
    EXPECT_EQ(Ask("", ""), "no answer to the set-up");
    EXPECT_EQ(Ask(good, ""), "no answer to the scan");
    listener.Close();
    EXPECT_EQ(Probe({"a", listener.address(), 0}, "p", 2000), "cannot be connected to");
}

// Each byte comes in time, and the answer never.
TEST_F(ProbeTest, WaitsForNobodyWhoDrips) {
    EXPECT_EQ(AskWhoGoesOn("x", std::chrono::milliseconds(10)), "no answer to the set-up");
    EXPECT_EQ(AskWhoGoesOn("x y\n", std::chrono::milliseconds(10)), "refused the set-up");
    EXPECT_EQ(AskWhoGoesOn("State OK\n", std::chrono::milliseconds(10)), "no answer to the scan");
}

TEST_F(ProbeTest, ListensToNobodyWhoPours) {
    EXPECT_EQ(AskWhoGoesOn(std::string(65536, 'x'), std::chrono::milliseconds(0)), "no answer to the set-up");
}

// What is cut would read as clean, or as found, by chance.
TEST_F(ProbeTest, IsContentWithNoVerdictThatWasCut) {
    std::string const whole = ScriptedScanner::found;
    for (std::size_t cut = 0; cut < whole.size(); ++cut)
        EXPECT_NE(Ask(good, scanned + whole.substr(0, cut)), "") << "cut at " << cut;
}
