// How often a process measures itself: fopen is counted by the test, so this is a program of its own.
#include <cstdio>
#include <string>
#include <string_view>

#include <velt/Config.h>
#include <velt/logging/Events.h>
#include <velt/runtime/MemCheck.h>
#include <velt/runtime/RuntimeTest.h>
#include <velt/runtime/ServiceLoop.h>

namespace {

unsigned s_measured = 0;
std::string s_statusFile;  // what the process is shown for its status

}  // namespace

extern "C" std::FILE* __real_fopen(char const* path, char const* mode);

extern "C" std::FILE* __wrap_fopen(char const* path, char const* mode) {
    if (path != std::string_view("/proc/self/status")) return __real_fopen(path, mode);
    ++s_measured;
    return __real_fopen(s_statusFile.c_str(), mode);
}

namespace {

using VELT::MemCheck;
using VELT::ServiceLoop;

// A process whose limit is 1000 kB, and which may look at itself every second.
class MemMeasureTest : public velt_testing::ProxyFixture {
protected:
    MemMeasureTest() {
        MemCheck::initialise(&m_proxy->m_config);
        MemCheck::s_Size = 1000;
        MemCheck::s_Rate = MemCheck::s_Timer = 1;
        s_measured = 0;
        s_statusFile = m_root / "status";
        ServiceLoop::shutdown = false;
    }
    ~MemMeasureTest() override { ServiceLoop::shutdown = false; }
    void Status(std::string const& text) { m_root.Write("status", text); }
    unsigned MeasuredIn(unsigned seconds) {
        s_measured = 0;
        for (unsigned i = 0; i < seconds; ++i) MemCheck::Check();
        return s_measured;
    }

    velt_testing::EventCapture m_events;
};

TEST_F(MemMeasureTest, NoneIsTakenWithoutALimitOrWithoutARate) {
    Status("VmData:\t 5000 kB\n");
    MemCheck::s_Size = 0;
    EXPECT_EQ(MeasuredIn(5), 0u);
    MemCheck::s_Size = 1000;
    MemCheck::s_Rate = 0;
    EXPECT_EQ(MeasuredIn(5), 0u);
    EXPECT_FALSE(ServiceLoop::shutdown);
}

TEST_F(MemMeasureTest, OneIsTakenPerRate) {
    Status("VmData:\t 5 kB\n");
    EXPECT_EQ(MeasuredIn(5), 5u);
    MemCheck::s_Rate = MemCheck::s_Timer = 3;
    EXPECT_EQ(MeasuredIn(2), 0u);
    EXPECT_EQ(MeasuredIn(1), 1u);
    EXPECT_EQ(MeasuredIn(9), 3u);
    EXPECT_FALSE(ServiceLoop::shutdown);
}

TEST_F(MemMeasureTest, NoneIsTakenByAProcessThatStopsAlready) {
    Status("VmData:\t 5000 kB\n");
    unsigned long const before = velt_testing::CounterValue("recycle.mem");
    ServiceLoop::shutdown = true;
    EXPECT_EQ(MeasuredIn(3), 0u);
    EXPECT_EQ(velt_testing::CounterValue("recycle.mem"), before);
}

TEST_F(MemMeasureTest, SizeOfTheLimitStaysAndOneAboveStops) {
    Status("VmData:\t 1000 kB\n");
    EXPECT_EQ(MeasuredIn(1), 1u);
    EXPECT_FALSE(ServiceLoop::shutdown);
    Status("VmData:\t 1001 kB\n");
    m_events.Expect(VELT::events::RECYCLE_MEMORY);
    EXPECT_EQ(MeasuredIn(3), 1u) << "after that one the process stops";
    EXPECT_TRUE(ServiceLoop::shutdown);
}

TEST_F(MemMeasureTest, ProcessWithoutASizeIsNeverStopped) {
    MemCheck::s_Size = 1;
    Status("Name:\tgate\nVmStk:\t 5000 kB\n");
    EXPECT_EQ(MeasuredIn(3), 3u);
    s_statusFile = m_root / "nowhere";
    EXPECT_EQ(MeasuredIn(3), 3u);
    EXPECT_FALSE(ServiceLoop::shutdown);
}

}  // namespace
