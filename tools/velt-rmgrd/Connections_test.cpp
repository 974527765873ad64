#include "Connections.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <set>
#include <system_error>
#include <thread>

#include "Now.h"
#include "testing/Child.h"
#include "testing/RefusedCalls.h"
#include "testing/Sockets.h"
#include "testing/TempRoot.h"

using namespace rmgrd;
using namespace velt_testing;
using namespace VELT::manager;

namespace {

constexpr int kLong = 30000;

// The connections of a socket below the test's root, whose turns the test takes itself, and what they told.
class ConnectionsTest : public testing::Test, public Connections::Host {
protected:
    ConnectionsTest() { Make(); }

    void Make() {
        connections.reset();
        connections = std::make_unique<Connections>(root / "socket", *this);
    }
    // Room is left for so many.
    void MakeWithRoomFor(unsigned count) {
        constexpr unsigned kRoom = 100;
        rlimit before{};
        ::getrlimit(RLIMIT_NOFILE, &before);
        rlimit const low{2 * kRoom, before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &low);
        EXPECT_NO_THROW(Make());
        ::setrlimit(RLIMIT_NOFILE, &before);
        while (others.size() < kRoom - count) others.push_back(Silent());
    }

    bool Take(Client& client, Question const& question) override {
        EXPECT_FALSE(client.ended);
        heard.push_back(question.request);
        numbers.push_back(client.number);
        if (onTake) onTake(client);
        return question.request != kIsUp;
    }
    void Leave(Client& client) override { left.push_back(client.number); }
    bool MayGo(Client const& client) override { return client.number == mayGo; }
    void Refused() override { ++refused; }

    Fd Connect() const {
        Fd fd(::socket(AF_UNIX, SOCK_SEQPACKET, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, (root / "socket").c_str());
        EXPECT_EQ(::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return fd;
    }
    // One that was let in and says nothing.
    Fd Silent() {
        Fd fd = Connect();
        connections->Turn(0);
        return fd;
    }
    static void Ask(Fd const& fd, std::uint32_t request) {
        Question question{};
        question.request = request;
        EXPECT_EQ(::send(fd.get(), &question, sizeof question, MSG_NOSIGNAL), static_cast<ssize_t>(sizeof question));
    }
    static bool IsHungUp(Fd const& fd) {
        pollfd one{fd.get(), 0, 0};
        return ::poll(&one, 1, 0) == 1 && (one.revents & POLLHUP);
    }
    std::uint64_t Number(Fd const& fd) {
        Ask(fd, kName);
        connections->Turn(0);
        connections->Turn(0);  // there is nothing more of it
        return numbers.empty() ? 0 : numbers.back();
    }
    void Forget() {
        heard.clear();
        numbers.clear();
        left.clear();
    }

    TempRoot root;
    std::vector<std::uint32_t> heard;
    std::vector<std::uint64_t> numbers, left;
    std::function<void(Client&)> onTake;
    std::uint64_t mayGo = 0;
    int refused = 0;
    std::vector<Fd> others;
    std::unique_ptr<Connections> connections;
};

using Requests = std::vector<std::uint32_t>;

}  // namespace

TEST_F(ConnectionsTest, PassOnWhatWasAskedBeforeAndAfterTheyAreLetIn) {
    Fd const early = Connect();
    Ask(early, kWait);
    connections->Turn(kLong);
    EXPECT_EQ(heard, Requests{kWait});
    Fd const late = Silent();
    connections->Turn(0);
    EXPECT_EQ(heard.size(), 1u);
    Ask(late, kName);
    connections->Turn(kLong);
    EXPECT_EQ(heard, (Requests{kWait, kName}));
    EXPECT_NE(numbers[0], numbers[1]);
}

TEST_F(ConnectionsTest, HearEachOnceHoweverManySpeakAtOnce) {
    std::vector<Fd> all;
    for (int i = 0; i < 200; ++i) all.push_back(Silent());
    for (Fd const& fd : all) Ask(fd, kName);
    while (heard.size() < all.size()) {
        std::size_t const before = heard.size();
        connections->Turn(0);
        ASSERT_GT(heard.size(), before);
    }
    connections->Turn(0);
    EXPECT_EQ(std::set<std::uint64_t>(numbers.begin(), numbers.end()).size(), all.size());
    EXPECT_EQ(heard.size(), all.size());
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end())) << "who spoke first is heard first";
}

// What is heard of one may end another, of whom something was to be heard in the same turn.
TEST_F(ConnectionsTest, HearNothingMoreOfOneThatEndedInTheSameTurn) {
    for (bool const closes : {false, true}) {
        Forget();
        Fd const first = Silent();
        Fd second = Silent();
        onTake = [this](Client& client) {
            connections->EndAll([&](Client const& one) { return one.number != client.number; });
        };
        Ask(first, kName);
        if (!closes) Ask(second, kName);
        if (closes) second.Close();
        connections->Turn(kLong);
        EXPECT_EQ(heard.size(), 1u);
        EXPECT_EQ(left.size(), 1u) << "once, though it " << (closes ? "closed" : "spoke");
        onTake = nullptr;
        Ask(first, kIsUp);
        connections->Turn(kLong);
        EXPECT_EQ(left.size(), 2u) << "and is hung up on for what does not fit";
        EXPECT_TRUE(IsHungUp(first));
    }
}

TEST_F(ConnectionsTest, LetInWhoComesInTheTurnInWhichAnotherEnded) {
    MakeWithRoomFor(3);
    Fd const first = Silent();
    Fd const old = Silent();
    Fd const third = Silent();
    std::uint64_t const number = Number(old);
    Forget();
    onTake = [&](Client&) { connections->EndAll([&](Client const& one) { return one.number == number; }); };
    Ask(first, kName);
    Ask(old, kSettings);
    Fd const young = Connect();
    connections->Turn(kLong);
    EXPECT_EQ(heard, Requests{kName});
    EXPECT_TRUE(IsHungUp(old));
    onTake = nullptr;
    Ask(young, kWait);
    connections->Turn(kLong);
    EXPECT_EQ(heard, (Requests{kName, kWait}));
    EXPECT_NE(numbers[1], number);
    EXPECT_EQ(refused, 0);
}

TEST_F(ConnectionsTest, MakeRoomByWhoMayGoAndRefuseOthersTellingItOnce) {
    MakeWithRoomFor(2);
    Fd const first = Silent();
    Fd const second = Silent();
    mayGo = Number(first);
    Fd const third = Silent();
    EXPECT_EQ(left, std::vector{mayGo});
    EXPECT_TRUE(IsHungUp(first));
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(IsHungUp(Silent()));
    EXPECT_EQ(refused, 1);
    mayGo = Number(second);
    Fd const fourth = Silent();
    EXPECT_FALSE(IsHungUp(fourth));
    EXPECT_TRUE(IsHungUp(Silent()));
    EXPECT_EQ(refused, 2) << "there was room meanwhile";
}

// Nobody would hear the answer.
TEST_F(ConnectionsTest, AreNotAskedByWhoHasClosed) {
    Fd fd = Silent();
    Ask(fd, kWait);
    fd.Close();
    connections->Turn(kLong);
    EXPECT_TRUE(heard.empty());
    EXPECT_EQ(left.size(), 1u);
}

TEST_F(ConnectionsTest, AnswerWhoWillSayNothingMoreAndThenHangUp) {
    Fd const fd = Silent();
    Ask(fd, kWait);
    ::shutdown(fd.get(), SHUT_WR);
    onTake = [&](Client& client) { connections->Send(client, Answer{7, 0, {}, {}}); };
    connections->Turn(kLong);
    EXPECT_EQ(heard, Requests{kWait});
    connections->Turn(kLong);
    connections->Turn(0);
    Answer answer{};
    ASSERT_EQ(::recv(fd.get(), &answer, sizeof answer, 0), static_cast<ssize_t>(sizeof answer));
    EXPECT_EQ(answer.result, 7);
    EXPECT_TRUE(IsHungUp(fd));
    EXPECT_EQ(left.size(), 1u);
}

TEST_F(ConnectionsTest, EndWhoDoesNotTakeItsAnswers) {
    Fd const fd = Silent();
    onTake = [&](Client& client) {
        for (int i = 0; i < 10000 && !client.ended; ++i) connections->Send(client, Answer{});
        EXPECT_TRUE(client.ended);
    };
    Ask(fd, kIsUp);
    connections->Turn(kLong);
    EXPECT_EQ(left.size(), 1u) << "once, though the question did not fit either";
}

TEST_F(ConnectionsTest, AreWokenByAnotherThread) {
    std::thread other([this] { connections->Wake(); });
    connections->Turn(kLong * 1000);
    other.join();
    connections->Wake();
    connections->Turn(kLong * 1000);
    double const before = Now();
    connections->Turn(10);
    EXPECT_GE(Now(), before + 0.01) << "nobody woke it again";
}

TEST_F(ConnectionsTest, LeaveTheQueueAloneForAMomentWhereNoDescriptorIsLeft) {
    Fd const silent = Silent();
    Fd const fd = Connect();
    Ask(fd, kWait);
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    rlimit const none{static_cast<rlim_t>(NextFd()), before.rlim_max};
    double const began = Now();
    ::setrlimit(RLIMIT_NOFILE, &none);
    connections->Turn(kLong);
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(heard.empty());
    Ask(silent, kName);
    connections->Turn(kLong);
    EXPECT_EQ(heard, Requests{kName}) << "the others are served meanwhile";
    while (heard.size() < 2 && Now() < began + 60) connections->Turn(kLong);
    EXPECT_EQ(heard.back(), kWait);
    EXPECT_GE(Now(), began + 0.1);
    EXPECT_EQ(refused, 0);
}

TEST_F(ConnectionsTest, RefuseWhomTheSystemDoesNotWatch) {
    if (!CanRefuse()) GTEST_SKIP() << "the system refuses no calls";
    EXPECT_TRUE(InChild([this] {
        Make();
        RefuseCallWith(SYS_epoll_ctl, 1, EPOLL_CTL_ADD, ENOSPC);
        for (int i = 0; i < 2; ++i) {
            Fd const fd = Connect();
            Ask(fd, kWait);
            connections->Turn(kLong);
            connections->Turn(0);
            if (!IsHungUp(fd)) return false;
        }
        return heard.size() == 2 && left == numbers && refused == 1;
    }));
}

TEST_F(ConnectionsTest, AreNotHadWithoutWhatTheyNeed) {
    if (!CanRefuse()) GTEST_SKIP() << "the system refuses no calls";
    connections.reset();
    for (long const call : {SYS_epoll_create1, SYS_eventfd2, SYS_epoll_ctl, SYS_socket, SYS_listen})
        EXPECT_TRUE(InChild([&] {
            RefuseCall(call, ENOMEM);
            try {
                Make();
            } catch (std::system_error const& failure) {
                return failure.code().value() == ENOMEM;
            }
            return false;
        })) << call;
}
