#include <QXlog/QXlog.h>
#include <QXlog/Registry.h>

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

namespace {

using WithReason = QXlog::EventT<990001, QXlog::ReasonT<68>>;
using Sibling = QXlog::EventT<990001, QXlog::ReasonT<69>>;
using Alone = QXlog::EventT<990004>;

class Reader : public KORlog::Target {
public:
    Reader() : m_before(QXlog::detail::exchange_qxtarget(this)) {}
    ~Reader() override { QXlog::detail::exchange_qxtarget(m_before); }
    std::string useableSeverities() const override { return severities; }
    void write(KORlog::sev::Severity, KORtk::Location const&, QXlog::Event const&, std::string const&,
               KORlog::InfoBag const&) override {
        ++written;
    }
    std::string severities = "all";
    int written = 0;

private:
    KORlog::Target* m_before;
};

class LaterEvent final : public QXlog::Event {
public:
    LaterEvent(int id, int reason) : Event(id, reason), m_reason(reason) {}
    QXlog::Reason const* reason() const override { return &m_reason; }

private:
    QXlog::Reason m_reason;
};

bool On(QXlog::Event const& event) { return QXlog::detail::is_loggable(event); }

class EventSwitches : public ::testing::Test {
protected:
    void TearDown() override {
        QXlog::detail::Registry::Get().SetRules({});
        QXlog::detail::allowLogging(true);
    }
    void Rules(QXlog::detail::SwitchRules rules) { QXlog::detail::Registry::Get().SetRules(std::move(rules)); }
    Reader m_reader;
};

TEST(Events, AreWrittenAsNumberAndReason) {
    EXPECT_EQ(WithReason::value.asString(), "990001:68");
    EXPECT_EQ(WithReason::value.id(), 990001);
    EXPECT_EQ(WithReason::value.reason()->number(), 68);
}

TEST(Events, WithoutAReasonAreWrittenAsTheNumberAlone) {
    EXPECT_EQ(Alone::value.asString(), "990004");
    EXPECT_EQ(Alone::value.reason(), nullptr);
}

TEST(Events, AreNeverDestroyed) { EXPECT_TRUE(std::is_trivially_destructible_v<WithReason>); }

TEST(Events, AreOffWhileNobodyReads) {
    EXPECT_FALSE(On(WithReason::value));
    Reader reader;
    EXPECT_TRUE(On(WithReason::value));
}

TEST_F(EventSwitches, AreOnUnlessSaidOtherwise) {
    EXPECT_TRUE(On(WithReason::value));
    EXPECT_TRUE(On(Alone::value));
}

TEST_F(EventSwitches, ARuleOnOneReasonLeavesTheOthers) {
    Rules({true, {{990001, 68, false, false}}});
    EXPECT_FALSE(On(WithReason::value));
    EXPECT_TRUE(On(Sibling::value));
}

TEST_F(EventSwitches, ARuleOnTheNumberTakesEveryReasonAndNone) {
    Rules({true, {{990001, 0, true, false}, {990004, 0, true, false}}});
    EXPECT_FALSE(On(WithReason::value));
    EXPECT_FALSE(On(Sibling::value));
    EXPECT_FALSE(On(Alone::value));
}

TEST_F(EventSwitches, TheLastRuleThatFitsWins) {
    Rules({false, {{990001, 0, true, false}, {990001, 69, false, true}}});
    EXPECT_FALSE(On(WithReason::value));
    EXPECT_TRUE(On(Sibling::value));
    EXPECT_FALSE(On(Alone::value));
}

TEST_F(EventSwitches, RulesHoldForEventsThatAreBuiltLater) {
    Rules({true, {{990009, 5, false, false}}});
    auto const& off = *new LaterEvent(990009, 5);  // events live for ever
    auto const& on = *new LaterEvent(990009, 6);
    EXPECT_FALSE(On(off));
    EXPECT_TRUE(On(on));
}

TEST_F(EventSwitches, NoLoggingTurnsAllOffNowAndLater) {
    QXlog::detail::noLogging();
    EXPECT_FALSE(On(WithReason::value));
    EXPECT_FALSE(On(*new LaterEvent(990010, 1)));
    Rules({});
    EXPECT_FALSE(On(WithReason::value));
}

TEST_F(EventSwitches, ATargetWithoutSeveritiesIsNotWrittenTo) {
    m_reader.severities.clear();
    QXlog::detail::get_qxtarget().sendlog(KORlog::sev::no_sev, KORtk::Here(), WithReason::value, "", {});
    EXPECT_EQ(m_reader.written, 0);
    m_reader.severities = "any";
    QXlog::detail::get_qxtarget().sendlog(KORlog::sev::no_sev, KORtk::Here(), WithReason::value, "", {});
    EXPECT_EQ(m_reader.written, 1);
}

TEST(EventTexts, AreFoundByNumberAndReason) {
    static constexpr QXlog::EventText kRows[] = {{990001, 68, "first"}, {990004, QXlog::kNoReason, "alone"}};
    QXlog::RegisterTexts(kRows, 2);
    EXPECT_STREQ(QXlog::FindText(990001, 68), "first");
    EXPECT_STREQ(QXlog::FindText(990004, QXlog::kNoReason), "alone");
    EXPECT_EQ(QXlog::FindText(990001, 70), nullptr);
}

}  // namespace
