#include <KORtk/Once.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using KORtk::OnceInit;

TEST(Once, RunsOnceAndEndsInOne) {
    OnceInit::state_t state{0};
    int runs = 0;
    for (int i = 0; i < 3; ++i) KORtk::call_once(state, OnceInit::key, [&] { ++runs; });
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(state.load(), 1);
}

TEST(Once, IsInProgressWhileItRuns) {
    OnceInit::state_t state{0};
    KORtk::call_once(state, OnceInit::key, [&] {
        EXPECT_NE(state.load(), 0);
        EXPECT_NE(state.load(), 1);
    });
}

TEST(Once, RunsAgainAfterARunThatThrew) {
    OnceInit::state_t state{0};
    EXPECT_THROW(KORtk::call_once(state, OnceInit::key, [] { throw std::runtime_error("x"); }), std::runtime_error);
    EXPECT_EQ(state.load(), 0);
    int runs = 0;
    KORtk::call_once(state, OnceInit::key, [&] { ++runs; });
    EXPECT_EQ(runs, 1);
}

TEST(Once, KeepsNothingInAnObjectThatIsNotBuilt) {
    OnceInit::state_t state{0};
    int runs = 0;
    for (int i = 0; i < 2; ++i) KORtk::call_once(state, 0, [&] { ++runs; });
    EXPECT_EQ(runs, 2);
    EXPECT_EQ(state.load(), 0);
}

TEST(Once, AllWhoComeMeanwhileWaitForTheOneRun) {
    OnceInit::state_t state{0};
    std::atomic<int> runs{0}, arrived{0};
    int value = 0;  // written by the run, read by all after it
    std::vector<std::thread> callers;
    for (int i = 0; i < 8; ++i) {
        callers.emplace_back([&] {
            ++arrived;
            KORtk::call_once(state, OnceInit::key, [&] {
                while (arrived < 8) std::this_thread::yield();
                ++runs;
                value = 42;
            });
            EXPECT_EQ(value, 42);
        });
    }
    for (std::thread& caller : callers) caller.join();
    EXPECT_EQ(runs, 1);
}

}  // namespace
