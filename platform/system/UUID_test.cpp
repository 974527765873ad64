#include <system/UUID.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

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
    EXPECT_NE(std::string("89ab").find(text[19]), std::string::npos);
}

// Every process of a forking gateway names its sessions itself.
TEST(UUIDs, OfAChildAreNotItsParents) {
    UUID::get();
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    pid_t const child = ::fork();
    if (child == 0) {
        std::string const text = UUID::get();
        ::_exit(::write(ends[1], text.data(), text.size()) == 36 ? 0 : 1);
    }
    char text[37] = "";
    ASSERT_EQ(::read(ends[0], text, 36), 36);
    for (int i = 0; i < 100; ++i) EXPECT_NE(UUID::get(), text);
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST(UUIDs, OfThreadsDiffer) {
    std::set<std::string> seen;
    std::mutex mutex;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            for (int k = 0; k < 100; ++k) {
                std::string const text = UUID::get();
                std::lock_guard const hold(mutex);
                seen.insert(text);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(seen.size(), 800u);
}

}  // namespace
