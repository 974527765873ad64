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

TEST(ClockJump, IsWhatTheClockWasSetBy) {
    ClockJump jump(1000000, 10);
    EXPECT_EQ(jump.Take(1000005, 15), 0);
    EXPECT_EQ(jump.Take(1086406, 16), 86400);
    EXPECT_EQ(jump.Take(1086407, 17), 0) << "it was told";
    EXPECT_EQ(jump.Take(1000008, 18), -86400);
}

TEST(ClockJump, AddsUpWhatIsTooLittleByItself) {
    ClockJump jump(1000000, 0);
    EXPECT_EQ(jump.Take(1000040, 1), 0);
    EXPECT_EQ(jump.Take(1000080, 2), 78);
}

}  // namespace
}  // namespace smtp
