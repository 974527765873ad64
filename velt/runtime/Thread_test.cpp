#include <velt/runtime/Thread.h>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <velt/errors/Failures.h>

namespace {

std::size_t OwnStackBytes() {
    pthread_attr_t attributes;
    ::pthread_getattr_np(::pthread_self(), &attributes);
    std::size_t bytes = 0;
    ::pthread_attr_getstacksize(&attributes, &bytes);
    ::pthread_attr_destroy(&attributes);
    return bytes;
}

class StackProbe : public VELT::ThreadRunner {
public:
    explicit StackProbe(int stackSize) { StartThread(stackSize); }
    void ThreadMain() override { m_bytes = OwnStackBytes(); }
    std::size_t Bytes() {
        Join();
        return m_bytes;
    }

private:
    std::size_t m_bytes = 0;
};

std::size_t DefaultStackBytes() {
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    std::size_t bytes = 0;
    ::pthread_attr_getstacksize(&attributes, &bytes);
    ::pthread_attr_destroy(&attributes);
    return bytes;
}

TEST(ThreadStack, SizeThatTheSystemRejectsLeavesItsDefault) {
    for (int const bytes : {0, 128, 8192}) EXPECT_EQ(StackProbe(bytes).Bytes(), DefaultStackBytes()) << bytes;
}

TEST(ThreadStack, SizeIsBytesWithoutScaling) {
#ifdef VELT_SANITIZED
    GTEST_SKIP() << "a sanitizer enlarges small stacks";
#endif
    EXPECT_EQ(StackProbe(65536).Bytes(), 65536u);
}

TEST(ThreadStart, FailureTellsTextAndErrorNumber) {
#ifdef VELT_SANITIZED
    GTEST_SKIP() << "a sanitizer needs its address space";
#endif
    rlimit before{};
    ::getrlimit(RLIMIT_AS, &before);
    rlimit const tight{1UL << 30, before.rlim_max};
    ::setrlimit(RLIMIT_AS, &tight);
    try {
        StackProbe probe(0x7fff0000);
        probe.Join();
        ADD_FAILURE() << "a thread with a stack of 2 GiB was started in 1 GiB";
    } catch (VELT::FWException<VELT::fw_exception_tag::resource> const& failure) {
        EXPECT_EQ(failure.error, EAGAIN);
        EXPECT_EQ(failure.what(), "StartThread failed to create a thread: " + std::string(std::strerror(EAGAIN)) +
                                      " (" + std::to_string(EAGAIN) + ")");
    }
    ::setrlimit(RLIMIT_AS, &before);
}

TEST(ThreadHandles, HandleOfNoThreadIsMinusOne) {
    unsigned long handle = 0;
    VELT::InitThreadHandle(handle);
    EXPECT_EQ(handle, static_cast<unsigned long>(-1));
    EXPECT_FALSE(VELT::ThreadHandlesEqual(handle, VELT::GetCurrentThreadId()));
    EXPECT_TRUE(VELT::ThreadHandlesEqual(VELT::GetCurrentThreadId(), VELT::GetCurrentThreadId()));
}

TEST(ThreadKeys, HoldAValuePerThread) {
    pthread_key_t key;
    ASSERT_EQ(VELT::PthreadKeyCreate(&key, nullptr), 0);
    int value = 0;
    EXPECT_EQ(VELT::Thread::ThreadSetSpecific(static_cast<int>(key), &value), 0);
    EXPECT_EQ(VELT::PthreadGetSpecific(key), &value);
    EXPECT_EQ(VELT::PthreadKeyDelete(key), 0);
}

TEST(ThreadMutex, TrylockTellsWhetherItWasFree) {
    pthread_mutex_t mutex;
    ASSERT_EQ(VELT::PthreadMutexInit(&mutex), 0);
    EXPECT_EQ(VELT::PthreadMutexTrylock(&mutex), 0);
    EXPECT_EQ(VELT::PthreadMutexTrylock(&mutex), EBUSY);
    ::pthread_mutex_unlock(&mutex);
    ::pthread_mutex_destroy(&mutex);
}

class FdLimit : public ::testing::Test {
protected:
    FdLimit() { ::getrlimit(RLIMIT_NOFILE, &m_before); }
    ~FdLimit() override { ::setrlimit(RLIMIT_NOFILE, &m_before); }
    rlimit Now() const {
        rlimit now{};
        ::getrlimit(RLIMIT_NOFILE, &now);
        return now;
    }
    rlimit m_before{};
};

TEST_F(FdLimit, WithinBothLimitsChangesNothing) {
    EXPECT_EQ(VELT::SetFdLimit(static_cast<int>(m_before.rlim_cur)), 0);
    EXPECT_EQ(Now().rlim_cur, m_before.rlim_cur);
    EXPECT_EQ(Now().rlim_max, m_before.rlim_max);
}

TEST_F(FdLimit, SoftLimitIsRaisedAndTheHardOneLeftAlone) {
    rlimit const low{64, m_before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    EXPECT_EQ(VELT::SetFdLimit(100), 0);
    EXPECT_EQ(Now().rlim_cur, 100u);
    EXPECT_EQ(Now().rlim_max, m_before.rlim_max);
}

TEST_F(FdLimit, HardLimitIsRaisedWhereThatIsAllowed) {
    rlimit const less{64, m_before.rlim_max - 1}, low{64, 128};  // what cannot be taken back costs one descriptor
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &less), 0);
    if (::setrlimit(RLIMIT_NOFILE, &m_before) != 0) {
        m_before.rlim_max = less.rlim_max;
        m_before.rlim_cur = std::min(m_before.rlim_cur, less.rlim_max);
        GTEST_SKIP() << "only the superuser may";
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    EXPECT_EQ(VELT::SetFdLimit(200), 0);
    EXPECT_EQ(Now().rlim_cur, 200u);
    EXPECT_EQ(Now().rlim_max, 200u);
}

TEST_F(FdLimit, FilesPerProcessAreAFixedNumber) { EXPECT_EQ(VELT::GetMaxFilesPerProcess(), 1024); }

}  // namespace
