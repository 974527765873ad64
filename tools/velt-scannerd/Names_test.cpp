#include "Names.h"

#include <gtest/gtest.h>

namespace scannerd {
namespace {

TEST(Names, AreAsManyAsThereIsRoomFor) {
    Names names(2, 100);
    EXPECT_TRUE(names.Take("a"));
    EXPECT_TRUE(names.Take("b"));
    EXPECT_FALSE(names.Take("c"));
    EXPECT_TRUE(names.Take("a")) << "and those that are known stay so";
    EXPECT_TRUE(names.Take("b"));
}

TEST(Names, AreAsLongAsThereIsRoomFor) {
    Names names(100, 10);
    EXPECT_TRUE(names.Take("12345"));
    EXPECT_FALSE(names.Take("123456"));
    EXPECT_TRUE(names.Take("54321"));
    EXPECT_TRUE(names.Take(""));
    EXPECT_FALSE(names.Take("x"));
    EXPECT_TRUE(names.Take("12345"));
}

}  // namespace
}  // namespace scannerd
