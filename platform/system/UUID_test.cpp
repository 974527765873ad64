#include <system/UUID.h>

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

TEST(UUIDs, AreNeverTheSame) {
    std::set<std::string> seen;
    for (int i = 0; i < 10000; ++i) seen.insert(UUID::get());
    EXPECT_EQ(seen.size(), 10000u);
}

TEST(UUIDs, HaveTheUsualRandomForm) {
    std::string const text = UUID::get();
    ASSERT_EQ(text.size(), 36u);
    for (std::size_t i = 0; i < text.size(); ++i) {
        bool const dash = i == 8 || i == 13 || i == 18 || i == 23;
        EXPECT_EQ(text[i] == '-', dash);
        EXPECT_TRUE(dash || std::string("0123456789abcdef").find(text[i]) != std::string::npos);
    }
    EXPECT_EQ(text[14], '4');
}

}  // namespace
