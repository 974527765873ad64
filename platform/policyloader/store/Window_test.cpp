#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include <policyloader/store/Window.h>

namespace policyloader {
namespace {

constexpr unsigned Mon = 0, Fri = 4, Sat = 5, Sun = 6;

unsigned At(unsigned hours, unsigned minutes) { return hours * 60 + minutes; }

// The days that are open at noon, Monday first.
std::string NoonDays(char const* text) {
    Window const window(text);
    std::string days;
    for (unsigned day = 0; day < 7; ++day) days += window.containsMinute(day, At(12, 0)) ? 'x' : '.';
    return days;
}

TEST(Windows, TakeDaysRangesAndLists) {
    EXPECT_EQ(NoonDays("mon"), "x......");
    EXPECT_EQ(NoonDays("mon-fri"), "xxxxx..");
    EXPECT_EQ(NoonDays("sat-sun"), ".....xx");
    EXPECT_EQ(NoonDays("fri-mon"), "x...xxx");
    EXPECT_EQ(NoonDays("Mon,WED,fri-Sat"), "x.x.xx.");
    EXPECT_EQ(NoonDays("tue-tue"), ".x.....");
    EXPECT_EQ(NoonDays("08:00-18:00"), "xxxxxxx");
}

TEST(Windows, ADayIsOpenFromMidnightToMidnight) {
    Window const window("sat");
    EXPECT_TRUE(window.containsMinute(Sat, 0));
    EXPECT_TRUE(window.containsMinute(Sat, At(23, 59)));
    EXPECT_FALSE(window.containsMinute(Sun, 0));
    EXPECT_FALSE(window.containsMinute(Fri, At(23, 59)));
}

TEST(Windows, ASpanTakesItsFirstMinuteAndNotItsLast) {
    Window const window(" mon-fri\t08:00-18:00 ");
    EXPECT_FALSE(window.containsMinute(Mon, At(7, 59)));
    EXPECT_TRUE(window.containsMinute(Mon, At(8, 0)));
    EXPECT_TRUE(window.containsMinute(Mon, At(17, 59)));
    EXPECT_FALSE(window.containsMinute(Mon, At(18, 0)));
    EXPECT_FALSE(window.containsMinute(Sat, At(9, 0)));
}

TEST(Windows, ASpanMayGoPastMidnightAndBelongsToTheDayItBegins) {
    Window const window("fri 22:00-06:00");
    EXPECT_TRUE(window.containsMinute(Fri, At(22, 0)));
    EXPECT_TRUE(window.containsMinute(Sat, At(5, 59)));
    EXPECT_FALSE(window.containsMinute(Sat, At(6, 0)));
    EXPECT_FALSE(window.containsMinute(Fri, At(5, 0)));
    EXPECT_FALSE(window.containsMinute(Sat, At(22, 0)));
    EXPECT_TRUE(Window("sun 23:00-00:30").containsMinute(Mon, 29));
}

TEST(Windows, TakeSeveralSpansAndTheEndOfTheDay) {
    Window const window("08:00-12:00,13:00-24:00");
    EXPECT_TRUE(window.containsMinute(Mon, At(11, 59)));
    EXPECT_FALSE(window.containsMinute(Mon, At(12, 30)));
    EXPECT_TRUE(window.containsMinute(Mon, At(23, 59)));
}

TEST(Windows, RefuseWhatIsNone) {
    for (auto const* const text : {"",
                                   " ",
                                   "monday",
                                   "mon-",
                                   "-fri",
                                   "mon-tue-wed",
                                   "mon,",
                                   "xyz",
                                   "8:00-9:00",
                                   "08:00",
                                   "08:00-",
                                   "08:00-25:00",
                                   "08:60-09:00",
                                   "24:01-01:00",
                                   "24:00-01:00",
                                   "08:00-08:00",
                                   "08:00-18:00 mon",
                                   "mon 08:00-18:00 x",
                                   "mon fri",
                                   "08:00-12:00,",
                                   "08.00-12.00",
                                   "mon 08:00-09:00-10:00"})
        EXPECT_THROW(Window{text}, WindowError) << text;
}

TEST(Windows, CountInLocalTime) {
    constexpr std::time_t Saturday2330Utc = 1610235000;  // 2021-01-09 23:30
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    EXPECT_TRUE(Window("sat 23:30-23:31").contains(Saturday2330Utc));
    EXPECT_TRUE(Window("sat 23:30-23:31").contains(Saturday2330Utc + 59));
    EXPECT_FALSE(Window("sat 23:30-23:31").contains(Saturday2330Utc + 60));
    ::setenv("TZ", "XXX-1", 1);  // one hour east
    ::tzset();
    EXPECT_TRUE(Window("sun 00:31-00:32").contains(Saturday2330Utc + 61));
    ::unsetenv("TZ");
    ::tzset();
}

class SummerTime : public ::testing::Test {
protected:
    SummerTime() {
        ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        ::tzset();
    }
    ~SummerTime() override {
        ::unsetenv("TZ");
        ::tzset();
    }
    static constexpr std::time_t March28 = 1616886000, October31 = 1635631200;  // of 2021, their midnight

    // How many minutes of 25 hours from `start` are open.
    static int OpenMinutes(char const* text, std::time_t start) {
        Window const window(text);
        int open = 0;
        for (int minute = 0; minute < 25 * 60; ++minute) open += window.contains(start + minute * 60);
        return open;
    }
};

TEST_F(SummerTime, LeavesOutTheHourThatDoesNotExist) {
    EXPECT_EQ(OpenMinutes("sun 02:00-03:00", March28), 0);
    EXPECT_EQ(OpenMinutes("sun 01:30-03:30", March28), 60);
    EXPECT_EQ(OpenMinutes("sat 22:00-04:00", March28), 3 * 60);
    EXPECT_EQ(OpenMinutes("sun", March28), 23 * 60);
}

TEST_F(SummerTime, CountsTheHourThatComesTwice) {
    EXPECT_EQ(OpenMinutes("sun 02:00-03:00", October31), 120);
    EXPECT_EQ(OpenMinutes("sun 01:30-03:30", October31), 180);
    EXPECT_EQ(OpenMinutes("sat 22:00-04:00", October31), 5 * 60);
    EXPECT_EQ(OpenMinutes("sun", October31), 25 * 60);
}

TEST(Windows, KnowTheTimesBeforeTheEpoch) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    EXPECT_TRUE(Window("wed 23:59-24:00").contains(-1));
    EXPECT_FALSE(Window("thu").contains(-1));
    ::unsetenv("TZ");
    ::tzset();
}

}  // namespace
}  // namespace policyloader
