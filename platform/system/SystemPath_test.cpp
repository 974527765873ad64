#include <system/SystemPath.h>

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

TEST(SystemPaths, AreAsGivenWithoutARoot) {
    ::unsetenv("VELT_ROOT");
    EXPECT_EQ(SystemPath("/config/x"), "/config/x");
}

TEST(SystemPaths, StandBelowTheRoot) {
    ::setenv("VELT_ROOT", "/tmp/root", 1);
    EXPECT_EQ(SystemPath("/config/x"), "/tmp/root/config/x");
    ::unsetenv("VELT_ROOT");
}

}  // namespace
