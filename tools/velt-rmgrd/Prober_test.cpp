#include "Prober.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <limits>

#include "Now.h"
#include "testing/Child.h"
#include "testing/RefusedCalls.h"
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

// The system starts no thread in this child, and there is no way back: the next try fails like the first.
TEST_F(ProberTest, TriesAgainLaterWhereNoThreadCanBeStarted) {
    if (!CanRefuse()) GTEST_SKIP() << "the system refuses no calls";
    EXPECT_TRUE(InChild([this] {
        Make(60);
        RefuseCall(SYS_clone3, EAGAIN);
        RefuseCall(SYS_clone, EAGAIN);
        double const before = Now();
        prober->Start(1, facts);
        bool good = wakes == 1 && prober->TakeFindings().size() == 1;
        double const due = prober->NextRetry();
        good = good && due >= before + 60 && due <= Now() + 60;
        prober->Retry(due - 1);
        good = good && wakes == 1 && prober->NextRetry() == due;
        prober->Retry(due);
        good = good && wakes == 2 && prober->NextRetry() != due;
        prober->Stop(1);
        return good && prober->NextRetry() == kNever;
    }));
}
