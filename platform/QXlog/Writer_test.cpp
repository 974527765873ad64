#include <QXlog/Writer.h>

#include <gtest/gtest.h>

#include <future>
#include <vector>

namespace {

using QXlog::detail::Record;
using QXlog::detail::Writer;

Record Numbered(int number) {
    Record record;
    record.event = number;
    return record;
}

// A sink that stands still until it is let go.
class Gate {
public:
    void Deliver(Record& record) {
        std::unique_lock lock(m_mutex);
        m_waiting = true;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open; });
        m_seen.push_back(record.event);
    }
    void AwaitDelivery() {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_waiting; });
    }
    void Open() {
        std::lock_guard const lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    std::vector<int> Seen() {
        std::lock_guard const lock(m_mutex);
        return m_seen;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
    bool m_waiting = false;
    std::vector<int> m_seen;
};

class LogWriter : public ::testing::Test {
protected:
    Writer& Make(std::size_t size, bool drop) {
        m_writer = std::make_unique<Writer>(size, drop, [this](Record& record) { m_gate.Deliver(record); });
        return *m_writer;
    }
    Writer::Pushed Push(int number) {
        Record record = Numbered(number);
        return m_writer->Push(record);
    }
    void TearDown() override {
        m_gate.Open();
        m_writer->Finish();
    }
    Gate m_gate;
    std::unique_ptr<Writer> m_writer;
};

TEST_F(LogWriter, FinishWritesAllThatWasTakenInOrder) {
    Make(1000, false);
    std::vector<int> all;
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(Push(i), Writer::Pushed::Taken);
        all.push_back(i);
    }
    m_gate.Open();
    m_writer->Finish();
    EXPECT_EQ(m_gate.Seen(), all);
}

TEST_F(LogWriter, IsDrainedWhenAllIsWritten) {
    Make(1000, false);
    m_gate.Open();
    EXPECT_TRUE(m_writer->Drain(1, 1));
    for (int i = 0; i < 500; ++i) Push(i);
    EXPECT_TRUE(m_writer->Drain(10000, 1));
    EXPECT_EQ(m_gate.Seen().size(), 500u);
}

// Each record takes a good part of the time in which one has to be written.
TEST_F(LogWriter, SlowSinkIsWaitedForAndOneThatStandsIsNot) {
    Writer slow(1000, false, [this](Record& record) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        m_gate.Deliver(record);
    });
    Make(1, false);
    m_writer->Finish();
    for (int i = 0; i < 30; ++i) {
        Record record = Numbered(i);
        slow.Push(record);
    }
    EXPECT_FALSE(slow.Drain(100, 1000));
    m_gate.Open();
    EXPECT_FALSE(slow.Drain(100, 1));
    EXPECT_TRUE(slow.Drain(200, 1000));
    EXPECT_EQ(m_gate.Seen().size(), 30u);
    slow.Finish();
}

TEST_F(LogWriter, AFullQueueDropsWhenAskedTo) {
    Make(2, true);
    Push(0);
    m_gate.AwaitDelivery();  // the thread holds the first
    EXPECT_EQ(Push(1), Writer::Pushed::Taken);
    EXPECT_EQ(Push(2), Writer::Pushed::Taken);
    EXPECT_EQ(Push(3), Writer::Pushed::Dropped);
    m_gate.Open();
    m_writer->Finish();
    EXPECT_EQ(m_gate.Seen(), (std::vector{0, 1, 2}));
}

TEST_F(LogWriter, AFullQueueMakesTheReporterWaitOtherwise) {
    Make(1, false);
    Push(0);
    m_gate.AwaitDelivery();
    EXPECT_EQ(Push(1), Writer::Pushed::Taken);
    auto third = std::async(std::launch::async, [this] { return Push(2); });
    EXPECT_EQ(third.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    m_gate.Open();
    EXPECT_EQ(third.get(), Writer::Pushed::TakenAfterWait);
    m_writer->Finish();
    EXPECT_EQ(m_gate.Seen(), (std::vector{0, 1, 2}));
}

TEST_F(LogWriter, TellsWhoComesAfterTheEndSoThatNothingIsLost) {
    Make(4, false);
    m_gate.Open();
    m_writer->Finish();
    Record late = Numbered(9);
    EXPECT_EQ(m_writer->Push(late), Writer::Pushed::Ended);
    EXPECT_EQ(late.event, 9);
}

TEST_F(LogWriter, ManyReportersLoseNothing) {
    Make(8, false);
    m_gate.Open();
    std::vector<std::thread> reporters;
    for (int t = 0; t < 4; ++t)
        reporters.emplace_back([this] {
            for (int i = 0; i < 250; ++i) Push(i);
        });
    for (std::thread& reporter : reporters) reporter.join();
    m_writer->Finish();
    EXPECT_EQ(m_gate.Seen().size(), 1000u);
}

}  // namespace
