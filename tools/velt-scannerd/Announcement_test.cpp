#include "Announcement.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <velt/scanning/RSMgrBackends.h>
#include <velt/scanning/RSMgrWire.h>

#include "ScannerdEvents.h"
#include "testing/EventCapture.h"
#include "testing/Sockets.h"
#include "testing/TempRoot.h"
#include "testing/Waiting.h"
#include "tools/velt-rmgrd/Manager.h"

namespace scannerd {
namespace {

using namespace velt_testing;
using rmgrd::Manager;

// A manager that can come and go, and the process that announces, here a thread.
class AnnouncementTest : public testing::Test {
protected:
    AnnouncementTest() {
        settings.socketPath = root / VELT::manager::kSocketPath;
        std::filesystem::create_directories(std::filesystem::path(settings.socketPath).parent_path());
        VELT::manager::Choose(nullptr);
        EXPECT_EQ(::pipe(ends), 0);
        facts = {{Loopback(4310), Loopback(4311, "0.0.0.0")}, "scanners", 8};
    }
    ~AnnouncementTest() override {
        EndMonitor();
        StopManager();
        ::close(ends[0]);
        VELT::manager::Choose(nullptr);
    }

    void StartManager() {
        managing = std::make_unique<Manager>(
            settings, [](auto&) { return ""; },
            [this](std::string const& line) {
                std::lock_guard const hold(lock);
                lines.push_back(line);
            });
        serving = std::thread([this] { managing->Run(); });
    }
    void StopManager() {
        if (!managing) return;
        managing->Stop();
        serving.join();
        managing.reset();
        std::lock_guard const hold(lock);
        lines.clear();
    }
    void StartAnnouncing() {
        announcing = std::thread([this] {
            Announcer announcer(facts);
            announcer.Round();
            announcer.Watch(ends[0]);
        });
    }
    void EndMonitor() {
        if (!announcing.joinable()) return;
        ::close(ends[1]);
        announcing.join();
    }
    bool IsTold(std::string const& line) {
        return Eventually([&] {
            std::lock_guard const hold(lock);
            return std::count(lines.begin(), lines.end(), line) == 1;
        });
    }
    bool AreUp() {
        return IsTold("server scanners at 127.0.0.1:4310 is up") && IsTold("server scanners at 127.0.0.1:4311 is up");
    }

    TempRoot root;
    EventCapture events;
    rmgrd::ManagerSettings settings;
    std::unique_ptr<Manager> managing;
    std::thread serving, announcing;
    Facts facts;
    int ends[2] = {-1, -1};
    std::mutex lock;  // guards what follows
    std::vector<std::string> lines;
};

}  // namespace

TEST_F(AnnouncementTest, StandsUntilTheMonitorEnds) {
    events.Expect(events::ANNOUNCED, 2);
    StartManager();
    StartAnnouncing();
    EXPECT_TRUE(AreUp());
    EndMonitor();
    EXPECT_TRUE(IsTold("server scanners at 127.0.0.1:4310 has gone"));
    EXPECT_TRUE(IsTold("server scanners at 127.0.0.1:4311 has gone"));
}

TEST_F(AnnouncementTest, IsMadeToAManagerThatComesLater) {
    events.Expect(events::ANNOUNCED, 2);
    StartAnnouncing();
    StartManager();
    EXPECT_TRUE(AreUp());
}

TEST_F(AnnouncementTest, IsMadeAgainToTheNextManager) {
    events.Expect(events::ANNOUNCED, 6);
    events.Expect(events::ANNOUNCEMENT_LOST, 4);
    StartManager();
    StartAnnouncing();
    EXPECT_TRUE(AreUp());
    for (int i = 0; i < 2; ++i) {
        StopManager();
        StartManager();
        EXPECT_TRUE(AreUp());
    }
}

TEST_F(AnnouncementTest, ThatIsRefusedIsReportedOnce) {
    facts.addresses = {Loopback(0)};
    events.Expect(events::ANNOUNCEMENT_FAILED, 1);
    StartManager();
    Announcer announcer(facts);
    for (int i = 0; i < 3; ++i) announcer.Round();
}

// A manager that agrees and then hangs up, whenever it is asked.
TEST_F(AnnouncementTest, IsNotMadeWithoutAPause) {
    facts.addresses.resize(1);
    events.Allow(events::ANNOUNCED);
    events.Allow(events::ANNOUNCEMENT_LOST);
    Fd const listener(::socket(AF_UNIX, SOCK_SEQPACKET, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, settings.socketPath.c_str());
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener.get(), 8), 0);
    std::atomic<int> setUps{0};
    std::thread agreeing([&] {
        for (int fd; (fd = ::accept(listener.get(), nullptr, nullptr)) >= 0;) {
            Fd const client(fd);
            VELT::manager::Question question{};
            VELT::manager::Answer const yes{};
            while (::recv(fd, &question, sizeof question, 0) > 0) {
                ::send(fd, &yes, sizeof yes, MSG_NOSIGNAL);
                setUps += question.request == VELT::manager::kSetup;
                if (question.request == VELT::manager::kAvailable) break;
            }
        }
    });
    auto const before = std::chrono::steady_clock::now();
    StartAnnouncing();
    EXPECT_TRUE(Eventually([&] { return setUps >= 3; }));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(1000));
    EndMonitor();
    ::shutdown(listener.get(), SHUT_RDWR);
    agreeing.join();
}

}  // namespace scannerd
