#include <velt/runtime/Clock.h>

#include <gtest/gtest.h>
#include <poll.h>

#include <KORnet/Addr.h>

namespace {

using VELT::Clock;

TEST(ClockWithoutThread, AsksTheSystem) {
    Clock const clock(false);
    std::time_t const before = ::time(nullptr);
    std::time_t const told = Clock::getTime();
    EXPECT_GE(told, before);
    EXPECT_LE(told, ::time(nullptr));
}

TEST(ClockWithoutThread, CountsTheProxysTimeFromItsStart) {
    Clock const clock(false);
    std::time_t const told = Clock::getProxyTime();
    EXPECT_GE(told, 0);
    EXPECT_LE(told, 1);
}

TEST(ClockWithoutThread, WritesTheTimeAsAMailDate) {
    std::time_t const before = ::time(nullptr);
    std::string const date = Clock::getRFC822Time();
    EXPECT_TRUE(date == KORnet::rfc2822Date(before) || date == KORnet::rfc2822Date(::time(nullptr))) << date;
}

TEST(ClockWithThread, HasATimeFromTheFirstMomentAndMovesIt) {
    std::time_t const before = ::time(nullptr);
    static auto& clock = *new Clock(true);
    (void)clock;
    std::time_t const first = Clock::getTime();
    EXPECT_GE(first, before);
    for (int i = 0; i < 50 && Clock::getTime() == first; ++i) ::poll(nullptr, 0, 100);
    EXPECT_GT(Clock::getTime(), first);
    EXPECT_EQ(Clock::getProxyTime(), 0) << "nothing counts it, also after a second";
}

}  // namespace
