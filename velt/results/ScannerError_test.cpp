// Results that say that a scanner failed.
#include <velt/results/ScanResultTest.h>

using namespace VELT;
using namespace velt_testing;

namespace {

using ScannerError = ScanResultTest;

TEST_F(ScannerError, ErrorOfLevelZeroGoesOnInSilence) {
    SetType(7);
    result.error = true;
    SetULong("E_SR_SCANERROR_LVL", 0);
    EXPECT_TRUE(Process());
    EXPECT_TRUE(events.Events().empty());
}

TEST_F(ScannerError, ErrorOfLevelOneIsReportedAndGoesOn) {
    events.Expect(events::SCANNER_ERROR);
    SetType(7);
    result.error = true;
    SetULong("E_SR_SCANERROR_LVL", 1);
    EXPECT_TRUE(Process());
}

TEST_F(ScannerError, ErrorOfAnyOtherLevelIsReportedAndStops) {
    events.Expect(events::SCANNER_ERROR, 6);
    SetType(1);
    result.error = true;
    EXPECT_FALSE(Process());  // no level at all
    for (unsigned long level : {2ul, 3ul, 4294967296ul, 4294967297ul}) {
        SetULong("E_SR_SCANERROR_LVL", level);
        EXPECT_FALSE(Process()) << level;
    }
    result.bag.GetProperty("E_SR_SCANERROR_LVL")->SetLong(1);  // of another type
    EXPECT_FALSE(Process());
    EXPECT_FALSE(data.type);
    ExpectCounted({});
}

TEST_F(ScannerError, ErrorWithoutABagStops) {
    events.Expect(events::SCANNER_ERROR);
    result.error = true;
    result.hasBag = false;
    EXPECT_FALSE(Process());
    EXPECT_EQ(Reported(events::SCANNER_ERROR), "connection={audit_id=A1}");
}

TEST_F(ScannerError, LevelWithoutTheErrorStatusIsNoError) {
    SetType(7);
    SetULong("E_SR_SCANERROR_LVL", 2);
    EXPECT_TRUE(Process());
}

TEST_F(ScannerError, Error15004StopsWhereItIsFatal) {
    events.Expect(events::SCANNER_ERROR, 2);
    SetType(7);
    result.error = true;
    SetULong("E_SR_SCANERROR_LVL", 1);
    SetULong("E_SR_SCANERROR_ID", 15004);
    EXPECT_TRUE(Process(false));
    EXPECT_FALSE(Process(true));
    EXPECT_EQ(events.Count(events::SCANNER_ERROR), 2u);
}

TEST_F(ScannerError, Error15004OfLevelZeroGoesOnEvenWhereItIsFatal) {
    SetType(7);
    result.error = true;
    SetULong("E_SR_SCANERROR_LVL", 0);
    SetULong("E_SR_SCANERROR_ID", 15004);
    EXPECT_TRUE(Process(true));
}

TEST_F(ScannerError, OtherErrorsAreNotFatalAtLevelOne) {
    events.Expect(events::SCANNER_ERROR);
    SetType(7);
    result.error = true;
    SetULong("E_SR_SCANERROR_LVL", 1);
    SetULong("E_SR_SCANERROR_ID", 15005);
    EXPECT_TRUE(Process(true));
}

TEST_F(ScannerError, ErrorIsReportedWithAllThatItSays) {
    events.Expect(events::SCANNER_ERROR);
    SetType(4);
    result.error = true;
    SetULong("E_SR_SCANERROR_LVL", 2);
    SetULong("E_SR_SCANERROR_ID", 17);
    SetDescription(L"broken");
    SetWide("E_SR_ERROR_ATTR_SRC_FILE", L"unpack.cpp");
    SetULong("E_SR_ERROR_ATTR_SRC_LINE", 88);  // any type, read as text
    EXPECT_FALSE(Process());
    EXPECT_EQ(Reported(events::SCANNER_ERROR),
              "connection={audit_id=A1} description=broken error_id=17 file_name=unpack.cpp value=88 scanner_names=4");
}

TEST_F(ScannerError, ThatDoesNotStopGoesOnToItsFamily) {
    for (unsigned long level : {0ul, 1ul}) {
        data = ScannerData();
        SetType(2);
        result.error = true;
        result.infected = 1;
        result.infections = L"secret";
        SetULong("E_SR_SCANERROR_LVL", level);
        if (level == 1) events.Expect(events::SCANNER_ERROR);
        events.Expect(events::CONTENT_RULE_HIT);
        EXPECT_TRUE(Process());
        EXPECT_EQ(data.kind, std::string("CF"));
        EXPECT_EQ(Reason(), "secret");
    }
}

TEST_F(ScannerError, NumberOfAnotherTypeIsNone) {
    events.Expect(events::SCANNER_ERROR, 2);
    SetType(7);
    result.error = true;
    SetULong("E_SR_SCANERROR_LVL", 1);
    EXPECT_TRUE(Process(true));
    result.bag.NewProperty("E_SR_SCANERROR_ID")->SetLong(15004);
    EXPECT_TRUE(Process(true));
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(Describe(events.Bag(events::SCANNER_ERROR, i)), "connection={audit_id=A1} scanner_names=7");
    }
}

TEST_F(ScannerError, FatalNumberStopsAtEveryLevelThatIsReported) {
    events.Expect(events::SCANNER_ERROR, 3);
    SetType(7);
    result.error = true;
    SetULong("E_SR_SCANERROR_ID", 15004);
    EXPECT_FALSE(Process(true));  // no level
    for (unsigned long level : {1ul, 2ul}) {
        SetULong("E_SR_SCANERROR_LVL", level);
        EXPECT_FALSE(Process(true)) << level;
    }
    EXPECT_FALSE(data.type);
}

TEST_F(ScannerError, DescriptionOfAnotherTypeIsNotReportedAndAnEmptyOneIs) {
    events.Expect(events::SCANNER_ERROR, 2);
    result.error = true;
    SetULong("E_SR_DESCRIPTION_P", 5);
    EXPECT_TRUE(process.isScannerError(session, &result, false));
    SetDescription(L"");
    EXPECT_TRUE(process.isScannerError(session, &result, false));
    EXPECT_EQ(Describe(events.Bag(events::SCANNER_ERROR, 0)), "connection={audit_id=A1}");
    EXPECT_EQ(Describe(events.Bag(events::SCANNER_ERROR, 1)), "connection={audit_id=A1} description=");
}

TEST_F(ScannerError, PlaceMayBeOfAnyType) {
    events.Expect(events::SCANNER_ERROR);
    result.error = true;
    result.bag.NewProperty("E_SR_ERROR_ATTR_SRC_FILE")->SetLong(-3);
    result.bag.NewProperty("E_SR_ERROR_ATTR_SRC_LINE")->SetWide(L"line 4");
    EXPECT_TRUE(process.isScannerError(session, &result, false));
    EXPECT_EQ(Reported(events::SCANNER_ERROR), "connection={audit_id=A1} file_name=-3 value=line 4");
}

TEST_F(ScannerError, IsTakenForOneThoughItsReportIsOff) {
    events::SCANNER_ERROR.enable(false);
    result.error = true;
    EXPECT_TRUE(process.isScannerError(session, &result, false));
    events::SCANNER_ERROR.enable(true);
    EXPECT_EQ(session.asked, 0u);
}

}  // namespace
