// What becomes of a result of the anti-spam scanner.
#include <velt/results/ScanResultTest.h>

using namespace VELT;
using namespace velt_testing;

namespace {

using AntiSpamResult = ScanResultTest;

TEST_F(AntiSpamResult, ActionThresholdWinsOverTheThreshold) {
    events.Expect(events::SPAM_BELOW_THRESHOLD);
    SetDouble("E_SR_AS_SCORE", 5.0);
    SetDouble("E_SR_AS_THRESHOLD", 3.0);
    SetDouble("E_SR_AS_ACTION_THRESHOLD", 8.0);
    EXPECT_TRUE(Spam());
    EXPECT_EQ(data.spamScore, 5.0);
    EXPECT_EQ(events.Names(), std::vector<std::string>{"180002:206"});
    ExpectCounted({"spam_belowthreshold", "from_outside.spam_belowthreshold"});
}

TEST_F(AntiSpamResult, LowerActionThresholdWinsToo) {
    events.Expect(events::SPAM_FOUND);
    SetDouble("E_SR_AS_SCORE", 5.0);
    SetDouble("E_SR_AS_THRESHOLD", 8.0);
    SetDouble("E_SR_AS_ACTION_THRESHOLD", 3.0);
    EXPECT_TRUE(Spam());
}

TEST_F(AntiSpamResult, ScoreAtTheThresholdIsSpam) {
    events.Expect(events::SPAM_FOUND);
    SetDouble("E_SR_AS_SCORE", 5.0);
    SetDouble("E_SR_AS_THRESHOLD", 5.0);
    EXPECT_TRUE(Spam());
    EXPECT_EQ(events.Names(), std::vector<std::string>{"180002:161"});
    ExpectCounted({"spam_detected", "from_outside.spam_detected"});
}

TEST_F(AntiSpamResult, ResultWithoutScoreAndThresholdIsSpamWithoutAScore) {
    events.Expect(events::SPAM_FOUND, 2);
    EXPECT_FALSE(Spam());
    SetULong("E_SR_AS_SCORE", 5);  // of another type
    EXPECT_FALSE(Spam());
    EXPECT_FALSE(data.spamScore);
    EXPECT_FALSE(data.reason);
    EXPECT_EQ(Describe(events.Bag(events::SPAM_FOUND, 1)), "connection={audit_id=A1} scan_identity=staff");
}

TEST_F(AntiSpamResult, SpamIsReportedWithItsRules) {
    events.Expect(events::SPAM_FOUND);
    SetType(5);
    SetEngine();
    SetDouble("E_SR_AS_SCORE", 6.5);
    SetDouble("E_SR_AS_THRESHOLD", 5.25);
    AddRule("FROM_NOBODY", 4.25);
    AddRule("ALL_CAPS", 2.0);
    EXPECT_TRUE(Process());
    EXPECT_EQ(Reason(), "FROM_NOBODY=4.25, ALL_CAPS=2");
    EXPECT_EQ(data.spamEngine, std::string("5.2"));
    EXPECT_FALSE(data.avEngine);
    KORlog::InfoBag const bag = events.Bag(events::SPAM_FOUND);
    EXPECT_EQ(TextAt(bag, "spam_rules_broken"), "FROM_NOBODY=4.25, ALL_CAPS=2");
    EXPECT_EQ(TextAt(bag, "spam_engine_version"), "5.2");
    EXPECT_EQ(TextAt(bag, "spam_rules_version"), "20261121");
    EXPECT_EQ(TextAt(bag, "scan_host"), "scan1");
    EXPECT_NE(bag.find("spam_score"), nullptr);
    EXPECT_NE(bag.find("spam_threshold_score"), nullptr);
    EXPECT_EQ(bag.find("spam_action_threshold_score"), nullptr);
}

TEST_F(AntiSpamResult, RuleWithoutAScoreEndsTheList) {
    events.AllowAll();
    AddRule("FIRST", 1.0);
    result.bag.GetProperty("E_SR_INFECTIONNAME")->AddNarrow("SECOND");
    result.bag.GetProperty("E_SR_INFECTIONNAME")->AddNarrow("THIRD");
    Spam();
    EXPECT_EQ(Reason(), "FIRST=1");
}

TEST_F(AntiSpamResult, ScoreWithoutANameIsSkippedWithoutASeparator) {
    events.AllowAll();
    AddRule("FIRST", 1.5);
    result.bag.GetProperty("E_SR_AS_INFECTION_SCORE")->AddDouble(2.5);  // beyond the names: no name
    Spam();
    EXPECT_EQ(Reason(), "FIRST=1.5");
}

TEST_F(AntiSpamResult, RulesNeedBothOfTheirLists) {
    events.AllowAll();
    result.bag.NewProperty("E_SR_INFECTIONNAME")->AddNarrow("FIRST");
    Spam();
    EXPECT_FALSE(data.reason);
    result.bag.NewProperty("E_SR_AS_INFECTION_SCORE");  // there, and empty
    Spam();
    EXPECT_EQ(Reason(), "");
}

TEST_F(AntiSpamResult, ThresholdThatIsAbsentIsZero) {
    events.Expect(events::SPAM_BELOW_THRESHOLD);
    events.Expect(events::SPAM_FOUND, 2);
    SetDouble("E_SR_AS_SCORE", -0.5);
    EXPECT_TRUE(Spam());
    SetDouble("E_SR_AS_SCORE", 0.0);
    EXPECT_TRUE(Spam());
    SetULong("E_SR_AS_THRESHOLD", 9);  // of another type
    EXPECT_TRUE(Spam());
}

TEST_F(AntiSpamResult, ScoreThatIsAbsentIsBelowAnyThreshold) {
    events.Expect(events::SPAM_BELOW_THRESHOLD);
    SetDouble("E_SR_AS_ACTION_THRESHOLD", 0.5);
    EXPECT_FALSE(Spam());
    ExpectCounted({"spam_belowthreshold", "from_outside.spam_belowthreshold"});
}

TEST_F(AntiSpamResult, BothThresholdsAreReported) {
    events.Expect(events::SPAM_FOUND);
    SetDouble("E_SR_AS_SCORE", 9.5);
    SetDouble("E_SR_AS_THRESHOLD", 3.0);
    SetDouble("E_SR_AS_ACTION_THRESHOLD", 8.0);
    EXPECT_TRUE(Spam());
    KORlog::InfoBag const bag = events.Bag(events::SPAM_FOUND);
    EXPECT_NE(bag.find("spam_score"), nullptr);
    EXPECT_NE(bag.find("spam_threshold_score"), nullptr);
    EXPECT_NE(bag.find("spam_action_threshold_score"), nullptr);
}

TEST_F(AntiSpamResult, ScoresOfRulesAreWrittenAsAStreamWritesThem) {
    events.AllowAll();
    AddRule("A", 0.1234567);
    AddRule("B", -2.0);
    AddRule("C", 1e10);
    AddRule("D", 0.0);
    Spam();
    EXPECT_EQ(Reason(), "A=0.123457, B=-2, C=1e+10, D=0");
}

TEST_F(AntiSpamResult, EarlierReasonStaysWithoutBothLists) {
    events.AllowAll();
    data.reason = KORtk::Utf8Array("earlier");
    result.bag.NewProperty("E_SR_AS_INFECTION_SCORE")->AddDouble(1.0);
    Spam();
    EXPECT_EQ(Reason(), "earlier");
    EXPECT_FALSE(TextAt(events.Bag(events::SPAM_FOUND), "spam_rules_broken"));
}

}  // namespace
