#include "Farm.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <vector>

#include "testing/Sockets.h"

using namespace rmgrd;
using velt_testing::Loopback;

namespace {

ServerFacts Facts(std::string const& name, int capacity = 0, unsigned short port = 4310) {
    return {name, Loopback(port, "192.0.2.1"), capacity};
}

class FarmTest : public testing::Test {
protected:
    int Up(int capacity = 0) {
        int const resource = farm.Add(Facts("s", capacity));
        farm.SetHealthy(resource, true, now);
        return resource;
    }
    unsigned next = 0;
    double now = 1000;
    Farm farm{0, [this](unsigned below) { return next++ % below; }};
};
class SlowStart : public FarmTest {
protected:
    SlowStart() {
        farm = Farm(10, [this](unsigned below) { return next++ % below; });
    }
};

}  // namespace

TEST_F(FarmTest, WithoutServersHasNoneToOccupy) { EXPECT_EQ(farm.Occupy(now), 0); }

TEST_F(FarmTest, GivesNoWorkToAServerThatNobodyFoundHealthy) {
    int const resource = farm.Add(Facts("a"));
    EXPECT_FALSE(farm.IsUp(resource));
    EXPECT_EQ(farm.Occupy(now), 0);
    farm.SetHealthy(resource, true, now);
    EXPECT_TRUE(farm.IsUp(resource));
    EXPECT_EQ(farm.Occupy(now), resource);
    farm.SetHealthy(resource, false, now);
    EXPECT_FALSE(farm.IsUp(resource));
    EXPECT_EQ(farm.Occupy(now), 0);
}

TEST_F(FarmTest, GivesNoWorkToAnUnwillingServerThatIsStillUp) {
    int const resource = Up();
    farm.SetWilling(resource, false);
    EXPECT_EQ(farm.Occupy(now), 0);
    EXPECT_TRUE(farm.IsUp(resource));
    farm.SetWilling(resource, true);
    EXPECT_EQ(farm.Occupy(now), resource);
}

TEST_F(FarmTest, GivesNoServerMoreThanItHasRoomFor) {
    int const resource = Up(2);
    EXPECT_EQ(farm.Occupy(now), resource);
    EXPECT_EQ(farm.Occupy(now), resource);
    EXPECT_EQ(farm.Occupy(now), 0);
    farm.Leave(resource);
    EXPECT_EQ(farm.Occupy(now), resource);
}

TEST_F(FarmTest, LeavingMoreOftenThanOccupyingMakesNoRoom) {
    int const resource = Up(1);
    farm.Leave(resource);
    farm.Leave(99);
    EXPECT_EQ(farm.Occupy(now), resource);
    EXPECT_EQ(farm.Occupy(now), 0);
}

TEST_F(FarmTest, TakesTheLessLoadedOfTwo) {
    int const busy = Up(), idle = Up();
    farm.SetWilling(idle, false);
    for (int i = 0; i < 5; ++i) farm.Occupy(now);
    farm.SetWilling(idle, true);
    for (next = 0; next < 8; ++next) {
        EXPECT_EQ(farm.Occupy(now), idle) << "whichever comes first";
        farm.Leave(idle);
    }
    EXPECT_EQ(farm.servers().at(busy).occupied, 5);
}

TEST_F(FarmTest, LooksAtTwoDifferentServersOfMany) {
    std::set<int> taken;
    std::vector<int> all;
    for (int i = 0; i < 5; ++i) all.push_back(Up());
    for (unsigned first = 0; first < 5; ++first)
        for (unsigned second = 0; second < 4; ++second) {
            std::vector<unsigned> const told = {first, second};
            Farm other(0, [&, i = 0](unsigned) mutable { return told[static_cast<std::size_t>(i++)]; });
            for (int i = 0; i < 5; ++i) other.SetHealthy(other.Add(Facts("s")), true, now);
            taken.insert(other.Occupy(now));
        }
    EXPECT_EQ(taken.size(), 5u);
}

TEST_F(FarmTest, SpreadsTheWork) {
    std::map<int, int> work;
    for (int i = 0; i < 4; ++i) work[Up()] = 0;
    for (int i = 0; i < 400; ++i) ++work[farm.Occupy(now)];
    for (auto const& [resource, items] : work) EXPECT_NEAR(items, 100, 10) << resource;
}

TEST_F(FarmTest, HasANewSequenceWithEachChangeOfThoseThatAreUp) {
    int sequence = farm.sequence();
    int const resource = farm.Add(Facts("a"));
    EXPECT_EQ(farm.sequence(), sequence) << "it is not up yet";
    farm.SetHealthy(resource, true, now);
    EXPECT_NE(farm.sequence(), sequence);
    sequence = farm.sequence();
    farm.SetHealthy(resource, true, now);
    farm.SetWilling(resource, false);
    farm.Occupy(now);
    EXPECT_EQ(farm.sequence(), sequence);
    farm.SetHealthy(resource, false, now);
    EXPECT_NE(farm.sequence(), sequence);
    farm.SetHealthy(resource, true, now);
    sequence = farm.sequence();
    farm.Remove(resource);
    EXPECT_NE(farm.sequence(), sequence);
    EXPECT_FALSE(farm.IsUp(resource));
    EXPECT_NE(farm.Add(Facts("a")), resource) << "a number is never given twice";
}

TEST_F(FarmTest, KnowsNothingOfAResourceThatHasGone) {
    farm.SetHealthy(7, true, now);
    farm.SetWilling(7, true);
    farm.Remove(7);
    EXPECT_FALSE(farm.IsUp(7));
    EXPECT_EQ(farm.servers().size(), 0u);
}

TEST_F(SlowStart, GivesAServerThatCameUpItsShareByAndBy) {
    int const old = Up();
    now += 100;
    for (int i = 0; i < 3; ++i) farm.Occupy(now);
    int const fresh = Up();
    EXPECT_EQ(farm.Occupy(now), old) << "4 of the one are less than 1 of the other, which counts tenfold";
    farm.Leave(old);
    EXPECT_EQ(farm.Occupy(now + 10), fresh) << "it has its whole share";
    farm.Leave(fresh);
    EXPECT_EQ(farm.Occupy(now + 1.5), old);
    farm.Leave(old);
    EXPECT_EQ(farm.Occupy(now + 5), fresh);
}

TEST(FarmFacts, AreTheSameInAllFour) {
    ServerFacts const facts = Facts("a", 3);
    EXPECT_EQ(facts, Facts("a", 3));
    EXPECT_FALSE(facts == Facts("b", 3));
    EXPECT_FALSE(facts == Facts("a", 4));
    EXPECT_FALSE(facts == Facts("a", 3, 4311));
    EXPECT_EQ(PlaceOf(facts), "192.0.2.1:4310");
}
