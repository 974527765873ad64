#include "testing/EventCapture.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

using velt_testing::EventCapture;
using First = QXlog::EventT<992001, QXlog::ReasonT<1>>;
using Second = QXlog::EventT<992001, QXlog::ReasonT<2>>;

constexpr KORlog::Key kOuter{"outer"}, kInner{"inner"};

void Report(QXlog::Event const& event, KORlog::InfoBag const& bag = {}) {
    if (QXlog::detail::is_loggable(event))
        QXlog::detail::get_qxtarget().sendlog(KORlog::sev::no_sev, KORtk::Here(), event, "", bag);
}

TEST(EventCaptures, PassWhenWhatWasExpectedCame) {
    EventCapture events;
    events.Expect(First::value, 2);
    events.Expect(Second::value);
    for (QXlog::Event const* event :
         {static_cast<QXlog::Event const*>(&First::value), static_cast<QXlog::Event const*>(&Second::value),
          static_cast<QXlog::Event const*>(&First::value)})
        Report(*event);
    EXPECT_EQ(events.Names(), (std::vector<std::string>{"992001:1", "992001:2", "992001:1"}));
}

TEST(EventCaptures, FailForAnEventThatWasNotExpected) {
    EXPECT_NONFATAL_FAILURE(
        {
            EventCapture events;
            Report(First::value);
        },
        "event 992001:1 was not expected");
}

TEST(EventCaptures, FailForOneTooMany) {
    EXPECT_NONFATAL_FAILURE(
        {
            EventCapture events;
            events.Expect(First::value);
            Report(First::value);
            Report(First::value);
        },
        "event 992001:1 was not expected");
}

TEST(EventCaptures, FailForAnExpectedEventThatDidNotCome) {
    EXPECT_NONFATAL_FAILURE(
        {
            EventCapture events;
            events.Expect(First::value, 2);
            Report(First::value);
        },
        "expected event 992001:1 did not come");
}

TEST(EventCaptures, LetAllowedEventsCome) {
    EventCapture events;
    events.Allow(First::value);
    Report(First::value);
    EXPECT_EQ(events.Count(First::value), 1u);
    EXPECT_EQ(events.Count(Second::value), 0u);
}

TEST(EventCaptures, GiveTheBags) {
    EventCapture events;
    events.AllowAll();
    Report(First::value, kOuter(kInner("x")));
    Report(First::value, kOuter(5));
    EXPECT_EQ(velt_testing::TextAt(events.Bag(First::value), "outer.inner"), "x");
    EXPECT_EQ(velt_testing::NumberAt(events.Bag(First::value, 1), "outer"), 5);
    EXPECT_EQ(velt_testing::TextAt(events.Bag(First::value), "outer.none"), std::nullopt);
    EXPECT_EQ(velt_testing::Describe(events.Bag(First::value)), "outer={inner=x}");
    EXPECT_NONFATAL_FAILURE(events.Bag(Second::value), "event 992001:2 did not come");
}

TEST(EventCaptures, WaitForEventsOfOtherThreads) {
    EventCapture events;
    events.Expect(First::value);
    std::thread other([] { Report(First::value); });
    EXPECT_TRUE(events.WaitFor(First::value));
    other.join();
    EXPECT_FALSE(events.WaitFor(Second::value, 1, std::chrono::milliseconds(1)));
}

TEST(EventCaptures, LeaveThingsAsTheyWere) {
    {
        EventCapture outer;
        outer.Expect(First::value);
        {
            EventCapture inner;
            inner.Expect(Second::value);
            Report(Second::value);
        }
        Report(First::value);
    }
    EXPECT_FALSE(QXlog::detail::is_loggable(First::value));
}

TEST(EventCaptures, ForgetOnDemand) {
    EventCapture events;
    events.Expect(Second::value);
    Report(First::value);
    events.Clear();
    EXPECT_TRUE(events.Events().empty());
}

}  // namespace
