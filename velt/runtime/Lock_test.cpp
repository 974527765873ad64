#include <gtest/gtest.h>
#include <velt/runtime/Lock.h>

#include <thread>

using VELT::Lock;

namespace {

bool TryFromAnotherThread(Lock& lock) {
    bool got = false;
    std::thread([&] {
        got = lock.Try();
        if (got) lock.Release();
    }).join();
    return got;
}

}  // namespace

TEST(Lock, KeepsOthersOutWhileItIsHeld) {
    Lock lock;
    lock.Acquire();
    EXPECT_FALSE(TryFromAnotherThread(lock));
    lock.Release();
    EXPECT_TRUE(TryFromAnotherThread(lock));
}

TEST(Lock, TriedByItsOwnerSaysTrue) {
    Lock lock;
    lock.Acquire();
    EXPECT_TRUE(lock.Try());
    lock.Release();
    EXPECT_TRUE(TryFromAnotherThread(lock)) << "one release is enough";
}

TEST(Lock, ThatWasTriedHoldsButDoesNotKnowItsOwner) {
    Lock lock;
    EXPECT_TRUE(lock.Try());
    EXPECT_FALSE(lock.Try());
    EXPECT_FALSE(TryFromAnotherThread(lock));
    lock.Release();
    EXPECT_TRUE(TryFromAnotherThread(lock));
}

TEST(Lock, GuardsACountOfManyThreads) {
    Lock lock;
    int count = 0;
    auto const work = [&] {
        for (int i = 0; i < 20000; ++i) {
            lock.Acquire();
            ++count;
            lock.Release();
        }
    };
    std::thread one(work), two(work);
    one.join();
    two.join();
    EXPECT_EQ(count, 40000);
}
