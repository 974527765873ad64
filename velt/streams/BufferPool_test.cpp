#include <gtest/gtest.h>
#include <sys/resource.h>
#include <velt/streams/BufferPool.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <set>
#include <thread>
#include <vector>

using namespace VELT;

TEST(BufferPool, ServesAnEmptyPoolByAllocatingAndKeepsWhatComesBack) {
    BufferPool pool(512, 0);
    unsigned size = 0;
    char* const first = pool.obtain_buffer(size);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(size, 512u);
    std::memset(first, 'x', size);
    pool.release_buffer(first);
    EXPECT_EQ(pool.obtain_buffer(size), first);
    pool.release_buffer(first);
}

TEST(BufferPool, MakesItsFirstBuffersAhead) {
    BufferPool pool(64, 3);
    EXPECT_EQ(pool.size(), 64u);
    unsigned size = 0;
    std::vector<char*> buffers;
    for (int i = 0; i < 3; ++i) buffers.push_back(pool.obtain_buffer(size));
    for (char* buffer : buffers) pool.release_buffer(buffer);
    std::vector<char*> again;
    for (int i = 0; i < 3; ++i) again.push_back(pool.obtain_buffer(size));
    EXPECT_EQ(again, buffers);
    for (char* buffer : again) pool.release_buffer(buffer);
}

TEST(BufferPool, TakesNoNull) {
    BufferPool pool(64, 0);
    pool.release_buffer(nullptr);
    unsigned size = 0;
    char* const buffer = pool.obtain_buffer(size);
    EXPECT_NE(buffer, nullptr);
    pool.release_buffer(buffer);
}

// First in, first out, over every fill of the queue and across its growth.
TEST(BufferPool, HandsOutTheBufferThatWaitedLongest) {
    BufferPool pool(16, 0);
    std::deque<char*> waiting;
    std::vector<char*> used;
    unsigned size = 0;
    for (int round = 0; round < 300; ++round) {
        for (int i = 0; i <= round % 7; ++i) {
            char* const buffer = pool.obtain_buffer(size);
            if (!waiting.empty()) {
                EXPECT_EQ(buffer, waiting.front());
                waiting.pop_front();
            }
            used.push_back(buffer);
        }
        for (int i = 0; i <= round % 5 && !used.empty(); ++i) {
            pool.release_buffer(used.back());
            waiting.push_back(used.back());
            used.pop_back();
        }
    }
    for (char* buffer : used) pool.release_buffer(buffer);
}

TEST(BufferPool, GrowsToTheHighestUseAndStaysThere) {
    BufferPool pool(16, 0);
    unsigned size = 0;
    std::set<char*> all;
    for (int i = 0; i < 1000; ++i) all.insert(pool.obtain_buffer(size));
    EXPECT_EQ(all.size(), 1000u);
    for (char* buffer : all) pool.release_buffer(buffer);
    std::set<char*> again;
    for (int i = 0; i < 1000; ++i) again.insert(pool.obtain_buffer(size));
    EXPECT_EQ(again, all);
    for (char* buffer : again) pool.release_buffer(buffer);
}

TEST(BufferPool, IsSharedByThreads) {
    BufferPool pool(64, 2);
    auto const work = [&pool](char mark) {
        for (int i = 0; i < 20000; ++i) {
            unsigned size = 0;
            char* const buffer = pool.obtain_buffer(size);
            std::memset(buffer, mark, size);
            if (std::count(buffer, buffer + size, mark) != size) ADD_FAILURE() << "two owners of one buffer";
            pool.release_buffer(buffer);
        }
    };
    std::vector<std::thread> threads;
    for (char mark = 'a'; mark < 'e'; ++mark) threads.emplace_back(work, mark);
    for (auto& thread : threads) thread.join();
}

#ifndef VELT_SANITIZED
namespace {

// While it lives there is no more memory to be had than these bytes of address space.
class NoMemory {
public:
    explicit NoMemory(rlim_t bytes) {
        ::getrlimit(RLIMIT_AS, &m_before);
        rlimit const small{std::min(m_before.rlim_max, bytes), m_before.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_AS, &small), 0);
    }
    ~NoMemory() { ::setrlimit(RLIMIT_AS, &m_before); }

private:
    rlimit m_before{};
};

}  // namespace

TEST(BufferPool, TellsItsSizeEvenWhenThereIsNoMemory) {
    NoMemory const none(512u << 20);
    unsigned size = 0;
    BufferPool pool(1u << 30, 2);
    EXPECT_EQ(pool.obtain_buffer(size), nullptr);
    EXPECT_EQ(size, 1u << 30);
}

TEST(BufferPool, HasTheBuffersThatItMadeAheadAndNoMore) {
    BufferPool pool(64u << 20, 3);
    NoMemory const none(1);
    unsigned size = 0;
    std::vector<char*> buffers;
    buffers.reserve(4);
    while (char* const buffer = pool.obtain_buffer(size)) buffers.push_back(buffer);
    EXPECT_EQ(buffers.size(), 3u);
    for (char* const buffer : buffers) pool.release_buffer(buffer);
}
#endif
