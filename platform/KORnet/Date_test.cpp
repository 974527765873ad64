#include <KORnet/Date.h>

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <limits>
#include <string>

namespace {

class Dates : public ::testing::Test {
protected:
    ~Dates() override { ::unsetenv("TZ"); }
    std::string In(char const* zone, std::time_t time) {
        ::setenv("TZ", zone, 1);
        return KORnet::rfc2822Date(time);
    }
};

TEST_F(Dates, AreInLocalTimeWithItsOffset) {
    EXPECT_EQ(In("UTC0", 0), "Thu, 01 Jan 1970 00:00:00 +0000");
    EXPECT_EQ(In("CET-1", 1057053157), "Tue, 01 Jul 2003 10:52:37 +0100");
    EXPECT_EQ(In("NST3:30", 1057053157), "Tue, 01 Jul 2003 06:22:37 -0330");
}

TEST_F(Dates, AreEnglishWhateverTheLocale) {
    std::setlocale(LC_ALL, "");
    EXPECT_EQ(In("UTC0", 951782400), "Tue, 29 Feb 2000 00:00:00 +0000");
    std::setlocale(LC_ALL, "C");
}

TEST_F(Dates, ATimeBeyondTheCalendarHasNone) { EXPECT_EQ(In("UTC0", std::numeric_limits<std::time_t>::max()), ""); }

}  // namespace
