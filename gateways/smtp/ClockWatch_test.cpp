#include "ClockWatch.h"

#include <gtest/gtest.h>

namespace smtp {
namespace {

TEST(ClockWatch, TellsOnceOfEachTimeThatTheClockIsSetBack) {
    ClockWatch watch;
    EXPECT_FALSE(watch.WasSetBack(1000000, 10)) << "the first look";
    EXPECT_FALSE(watch.WasSetBack(1000005, 15));
    EXPECT_TRUE(watch.WasSetBack(900006, 16));
    EXPECT_FALSE(watch.WasSetBack(900007, 17));
    EXPECT_TRUE(watch.WasSetBack(1, 18));
}

TEST(ClockWatch, TakesNoNoticeOfAClockThatIsSetForward) {
    ClockWatch watch;
    watch.WasSetBack(1000000, 10);
    EXPECT_FALSE(watch.WasSetBack(2000000, 11));
    EXPECT_TRUE(watch.WasSetBack(1000002, 12)) << "back again: what was touched meanwhile lies ahead";
}

TEST(ClockWatch, AddsUpWhatIsTooLittleByItself) {
    ClockWatch watch;
    watch.WasSetBack(1000000, 0);
    unsigned told = 0;
    for (int step = 1; step <= 120; ++step) told += watch.WasSetBack(1000000, step);
    EXPECT_EQ(told, 2u);
}

}  // namespace
}  // namespace smtp
