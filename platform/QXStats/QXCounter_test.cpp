#include <QXStats/CounterTable.h>
#include <QXStats/QXCounter.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "testing/TempRoot.h"

namespace {

using QXStats::CounterTable;
using QXStats::QXCounter;

class Counters : public ::testing::Test {
protected:
    // As a tool sees them, from outside.
    std::map<std::string, unsigned long> Seen(std::string const& proxy) {
        std::map<std::string, unsigned long> seen;
        CounterTable const* const table = CounterTable::Open(CounterTable::FilePath(proxy));
        if (!table) return seen;
        for (CounterTable::Value const& value : table->Read()) seen[value.name] = value.value;
        return seen;
    }
    template <class Body>
    void InChild(Body body) {
        pid_t const child = ::fork();
        if (child == 0) {
            body();
            ::_exit(0);
        }
        int status = -1;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
    }
    velt_testing::TempRoot m_root;
};

TEST_F(Counters, CountBeforeThereIsATable) {
    QXCounter counter("early");
    EXPECT_EQ(counter++, 0u);
    EXPECT_EQ(counter++, 1u);
    EXPECT_EQ((++counter).value(), 3u);
    EXPECT_EQ(counter.name(), "early");
}

TEST_F(Counters, OfOneNameAreOneCounter) {
    QXCounter first("same"), second("same");
    first++;
    second++;
    EXPECT_EQ(first.value(), 2u);
}

TEST_F(Counters, TakeTheirCountIntoTheTable) {
    QXCounter early("carried");
    early++;
    QXCounter::initialise("carry");
    early++;
    EXPECT_EQ(Seen("carry")["carried"], 2u);
    QXCounter late("late");
    late++;
    EXPECT_EQ(Seen("carry")["late"], 1u);
}

TEST_F(Counters, OfAChildOutliveIt) {
    QXCounter::initialise("family");
    QXCounter before("before");
    InChild([&] {
        before++;
        QXCounter made("made.by.child");
        made++;
    });
    InChild([&] {
        QXCounter made("made.by.child");
        made++;
    });
    EXPECT_EQ(before.value(), 1u);
    EXPECT_EQ(QXCounter("made.by.child").value(), 2u);
    EXPECT_EQ(Seen("family")["made.by.child"], 2u);
}

TEST_F(Counters, OfManyProcessesMeetInOneSlot) {
    QXCounter::initialise("crowd");
    std::vector<pid_t> children;
    for (int c = 0; c < 8; ++c) {
        pid_t const child = ::fork();
        if (child == 0) {
            for (int i = 0; i < 50; ++i) {
                QXCounter counter("crowd." + std::to_string(i));
                counter++;
            }
            ::_exit(0);
        }
        children.push_back(child);
    }
    for (pid_t const child : children) ::waitpid(child, nullptr, 0);
    for (int i = 0; i < 50; ++i) EXPECT_EQ(QXCounter("crowd." + std::to_string(i)).value(), 8u);
    EXPECT_EQ(CounterTable::Open(CounterTable::FilePath("crowd"))->Proxy(), "crowd");
}

TEST_F(Counters, LoseNoIncrementAmongThreads) {
    QXCounter::initialise("threads");
    QXCounter counter("threads.counter");
    unsigned long const before = counter.value();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 10000; ++i) counter++;
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(counter.value(), before + 40000);
}

TEST_F(Counters, GoOnWhereAnEarlierRunStopped) {
    InChild([] {
        QXCounter::initialise("again");
        QXCounter counter("again.counter");
        counter++;
    });
    InChild([] {
        QXCounter::initialise("again");
        QXCounter counter("again.counter");
        counter++;
    });
    EXPECT_EQ(Seen("again")["again.counter"], 2u);
}

TEST_F(Counters, WithoutRoomOrWithALongNameCountOnTheirOwn) {
    QXCounter::initialise("full");
    QXCounter tooLong(std::string(CounterTable::kNameRoom, 'x'));
    tooLong++;
    EXPECT_EQ(tooLong.value(), 1u);
    for (std::size_t i = 0; i < CounterTable::kSlots; ++i) {
        QXCounter filler("fill." + std::to_string(i));
        filler++;
    }
    QXCounter over("one.too.many");
    over++;
    EXPECT_EQ(over.value(), 1u);
    EXPECT_EQ(Seen("full").count("one.too.many"), 0u);
    EXPECT_LE(Seen("full").size(), CounterTable::kSlots);
}

}  // namespace
