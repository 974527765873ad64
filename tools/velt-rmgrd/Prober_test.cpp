#include "Prober.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "Now.h"
#include "testing/Waiting.h"

using namespace rmgrd;
using namespace velt_testing;

namespace {

constexpr double kNever = std::numeric_limits<double>::max();

// A prober, and what it has found so far.
class ProberTest : public testing::Test {
protected:
    ProberTest() { facts.name = "a"; }

    bool Finds(int resource, std::string const& problem) {
        return Eventually([&] {
            for (Finding& one : prober->TakeFindings()) findings.push_back(std::move(one));
            for (Finding const& one : findings)
                if (one.resource == resource && one.problem == problem) return true;
            return false;
        });
    }
    void Make(int interval) {
        prober = std::make_unique<Prober>(
            [this](ServerFacts const& one) {
                ++looks;
                return one.name == "sick" ? "is sick" : "";
            },
            interval, [this] { ++wakes; });
    }

    std::atomic<int> looks{0}, wakes{0};
    ServerFacts facts;
    std::vector<Finding> findings;
    std::unique_ptr<Prober> prober;
};

// For as long as this lives no thread can be started: none has room for its stack.
class NoRoomForStacks {
public:
    NoRoomForStacks() {
        ::pthread_getattr_default_np(&m_before);
        ::pthread_getattr_default_np(&m_huge);
        EXPECT_EQ(::pthread_attr_setstacksize(&m_huge, std::size_t{1} << 50), 0);
        EXPECT_EQ(::pthread_setattr_default_np(&m_huge), 0);
    }
    ~NoRoomForStacks() {
        EXPECT_EQ(::pthread_setattr_default_np(&m_before), 0);
        ::pthread_attr_destroy(&m_huge);
        ::pthread_attr_destroy(&m_before);
    }
    NoRoomForStacks(NoRoomForStacks const&) = delete;
    NoRoomForStacks& operator=(NoRoomForStacks const&) = delete;

private:
    pthread_attr_t m_before, m_huge;
};

}  // namespace

TEST_F(ProberTest, TellsWhatItFindsOfEach) {
    Make(60);
    ServerFacts sick;
    sick.name = "sick";
    prober->Start(1, facts);
    prober->Start(2, sick);
    EXPECT_TRUE(Finds(1, ""));
    EXPECT_TRUE(Finds(2, "is sick"));
    EXPECT_EQ(findings.size(), 2u);
    EXPECT_EQ(wakes, 2);
    EXPECT_TRUE(prober->TakeFindings().empty()) << "each is taken once";
}

TEST_F(ProberTest, LooksNoMoreAtOneThatIsStopped) {
    Make(1);
    ServerFacts other;
    other.name = "sick";
    prober->Start(1, facts);
    EXPECT_TRUE(Finds(1, ""));
    prober->Stop(1);
    int const before = looks;
    prober->Start(2, other);
    EXPECT_TRUE(Eventually([&] { return looks >= before + 3; })) << "of the other, again and again";
    for (Finding const& one : prober->TakeFindings()) EXPECT_EQ(one.resource, 2);
}

TEST_F(ProberTest, LooksAtNobodyWhoComesBehindTheEnd) {
    Make(60);
    prober->BeginToEnd();
    prober->Start(1, facts);
    EXPECT_TRUE(prober->End(kPatienceSeconds));
    EXPECT_EQ(looks, 0);
}

TEST_F(ProberTest, EndsWhileALookGoesOnWhereItIsToldNotToWait) {
    Door begun, done;
    prober = std::make_unique<Prober>(
        [&](ServerFacts const&) {
            begun.Open();
            done.Wait();
            return "";
        },
        60, [] {});
    prober->Start(1, facts);
    begun.Wait();
    EXPECT_FALSE(prober->End(0));
    done.Open();
    EXPECT_TRUE(prober->End(kPatienceSeconds));
}

TEST_F(ProberTest, TriesAgainLaterWhereNoThreadCanBeStarted) {
    Make(60);
    std::string const problem = "cannot be probed, as no thread can be started";
    {
        NoRoomForStacks const none;
        double const before = Now();
        prober->Start(1, facts);
        EXPECT_TRUE(Finds(1, problem));
        double const due = prober->NextRetry();
        EXPECT_GE(due, before + 60);
        EXPECT_LE(due, Now() + 60);
        prober->Retry(due - 1);
        EXPECT_EQ(wakes, 1) << "it is not due yet";
        prober->Start(2, facts);
        prober->Retry(due);
        EXPECT_EQ(wakes, 3) << "the first alone is due";
        prober->Stop(2);
    }
    EXPECT_EQ(looks, 0);
    prober->Retry(prober->NextRetry());
    EXPECT_TRUE(Finds(1, ""));
    EXPECT_EQ(prober->NextRetry(), kNever) << "the other has been stopped";
}
