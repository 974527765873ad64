#include <velt/runtime/MemCheck.h>

#include <fstream>
#include <limits>

#include <testing/FakePolicyStore.h>
#include <velt/Config.h>
#include <velt/logging/Events.h>
#include <velt/runtime/RuntimeTest.h>
#include <velt/runtime/ServiceLoop.h>

namespace {

using VELT::MemCheck;
using VELT::ServiceLoop;
using velt_testing::CounterValue;
using Value = velt_testing::FakeValue;

class MemCheckTest : public velt_testing::ProxyFixture {
protected:
    MemCheckTest() {
        VELT::Config::initialise(&m_store);
        ServiceLoop::shutdown = false;
    }
    ~MemCheckTest() override {
        ServiceLoop::shutdown = false;
        VELT::Config::initialise(nullptr);
    }

    void Configure(unsigned limit, unsigned rate) {
        m_store.Put("base", "process", "MemoryLimit", Value::Unsigned(limit));
        m_store.Put("base", "process", "MemoryLimitRate", Value::Unsigned(rate));
        MemCheck::initialise(&m_proxy->m_config);
    }
    // The limit is laid so far below this process's own size; nothing is measured where no number reaches that far.
    bool LayLimitBelowSize(unsigned by) {
        VELT::GetProcSize();  // its buffer is part of the size from here on
        m_size = VELT::GetProcSize();
        if (m_size > std::numeric_limits<unsigned>::max()) return false;
        MemCheck::setMemSize(static_cast<unsigned>(m_size) - by);
        return true;
    }
    static void Seconds(unsigned count) {
        for (unsigned i = 0; i < count; ++i) MemCheck::Check();
    }
    std::string StatusFile(std::string const& text) {
        std::string const name = m_root.path() + "/status";
        std::ofstream(name) << text;
        return name;
    }

    velt_testing::FakePolicyStore m_store;
    velt_testing::EventCapture m_events;
    unsigned long m_size = 0;
};

TEST_F(MemCheckTest, LimitAndRateHaveDefaults) {
    MemCheck::initialise(&m_proxy->m_config);
    EXPECT_EQ(MemCheck::s_Size, 75000u);
    EXPECT_EQ(MemCheck::s_Rate, 30u);
    EXPECT_EQ(MemCheck::s_Timer, 30u);
}

TEST_F(MemCheckTest, LimitTakesAllThatItsTypeHolds) {
    Configure(4294967295u, 65535);
    EXPECT_EQ(MemCheck::s_Size, 4294967295u);
    EXPECT_EQ(MemCheck::s_Rate, 65535u);
    Configure(0, 65536);
    EXPECT_EQ(MemCheck::s_Size, 0u);
    EXPECT_EQ(MemCheck::s_Rate, 65535u);
}

TEST_F(MemCheckTest, CounterIsMadeOnce) {
    Configure(1, 1);
    QXStats::QXCounter* const counter = MemCheck::s_Counter;
    ASSERT_NE(counter, nullptr);
    Configure(1, 1);
    EXPECT_EQ(MemCheck::s_Counter, counter);
}

TEST_F(MemCheckTest, AnotherLimitLeavesTheRestAlone) {
    Configure(1, 7);
    Seconds(3);
    MemCheck::setMemSize(12);
    EXPECT_EQ(MemCheck::s_Size, 12u);
    EXPECT_EQ(MemCheck::s_Rate, 7u);
    EXPECT_EQ(MemCheck::s_Timer, 4u);
}

TEST_F(MemCheckTest, NothingIsMeasuredWithoutALimitOrWithoutARate) {
    Configure(0, 1);
    Seconds(3);
    EXPECT_EQ(MemCheck::s_Timer, 1u);
    EXPECT_FALSE(ServiceLoop::shutdown);
    Configure(1, 0);
    Seconds(3);
    EXPECT_EQ(MemCheck::s_Timer, 0u);
    EXPECT_FALSE(ServiceLoop::shutdown);
}

TEST_F(MemCheckTest, SizeOfTheLimitStaysAndOneAboveIsRecycled) {
    unsigned long const before = CounterValue("recycle.mem");
    Configure(1, 1);
    if (!LayLimitBelowSize(0)) GTEST_SKIP() << "the size of this process is above every limit";
    Seconds(1);
    EXPECT_FALSE(ServiceLoop::shutdown);
    ASSERT_TRUE(LayLimitBelowSize(1));
    m_events.Expect(VELT::events::RECYCLE_MEMORY);
    Seconds(1);
    EXPECT_TRUE(ServiceLoop::shutdown);
    EXPECT_EQ(CounterValue("recycle.mem"), before + 1);
    KORlog::InfoBag const bag = m_events.Bag(VELT::events::RECYCLE_MEMORY);
    EXPECT_EQ(velt_testing::NumberAt(bag, "velt_memory_size"), static_cast<long>(m_size));
    EXPECT_EQ(velt_testing::NumberAt(bag, "velt_memory_size_limit"), static_cast<long>(m_size) - 1);
}

TEST_F(MemCheckTest, FirstMeasurementComesAfterTheRateAndEachNextOneAfterAnother) {
    Configure(1, 30);
    m_events.Expect(VELT::events::RECYCLE_MEMORY, 2);
    for (int round = 0; round < 2; ++round) {
        Seconds(29);
        EXPECT_FALSE(ServiceLoop::shutdown);
        Seconds(1);
        EXPECT_TRUE(ServiceLoop::shutdown);
        EXPECT_EQ(MemCheck::s_Timer, 30u);
        ServiceLoop::shutdown = false;
    }
}

// What goes over the limit just after a measurement has a whole round before it is seen.
TEST_F(MemCheckTest, GrowthAfterAMeasurementIsSeenAtTheNext) {
    if (!LayLimitBelowSize(0)) GTEST_SKIP() << "the size of this process is above every limit";
    Configure(4294967295u, 30);
    Seconds(30);
    MemCheck::setMemSize(1);
    Seconds(29);
    EXPECT_FALSE(ServiceLoop::shutdown);
    m_events.Expect(VELT::events::RECYCLE_MEMORY);
    Seconds(1);
    EXPECT_TRUE(ServiceLoop::shutdown);
}

TEST_F(MemCheckTest, ProcessThatStopsAlreadyReportsNothing) {
    unsigned long const before = CounterValue("recycle.mem");
    Configure(1, 1);
    ServiceLoop::shutdown = true;
    Seconds(3);
    EXPECT_EQ(CounterValue("recycle.mem"), before);
    EXPECT_EQ(MemCheck::s_Timer, 1u);
}

TEST_F(MemCheckTest, StopsWithoutLogging) {
    QXlog::detail::noLogging();
    Configure(1, 1);
    Seconds(1);
    EXPECT_TRUE(ServiceLoop::shutdown);
    EXPECT_EQ(m_events.Count(VELT::events::RECYCLE_MEMORY), 0u);
}

TEST_F(MemCheckTest, SizeIsThatOfTheStatusFile) {
    EXPECT_GT(VELT::GetProcSize(), 0u);
    EXPECT_EQ(VELT::DataSizeIn(StatusFile("Name:\tgate\nVmData:\t   1234 kB\nVmStk:\t 132 kB\n").c_str()), 1234u);
    EXPECT_EQ(VELT::DataSizeIn(StatusFile("VmData:\t 37654321000 kB\n").c_str()), 37654321000u);
    EXPECT_EQ(VELT::DataSizeIn(StatusFile("VmData:7\n").c_str()), 7u);
}

// A process whose size cannot be told is never recycled.
TEST_F(MemCheckTest, SizeThatCannotBeToldIsNone) {
    EXPECT_EQ(VELT::DataSizeIn("/nowhere/status"), 0u);
    EXPECT_EQ(VELT::DataSizeIn(StatusFile("Name:\tgate\nVmStk:\t 132 kB\n").c_str()), 0u);
    EXPECT_EQ(VELT::DataSizeIn(StatusFile("").c_str()), 0u);
    EXPECT_EQ(VELT::DataSizeIn(StatusFile(" VmData:\t 5 kB\nvmdata:\t 6 kB\n").c_str()), 0u);
    EXPECT_EQ(VELT::DataSizeIn(StatusFile(std::string(511, 'x') + "\nVmData:\t 8 kB\n").c_str()), 8u);
}

}  // namespace
