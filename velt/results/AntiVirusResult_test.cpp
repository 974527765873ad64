// What becomes of a result of the anti-virus scanner.
#include <velt/results/ScanResultTest.h>

using namespace VELT;
using namespace velt_testing;

namespace {

using AntiVirusResult = ScanResultTest;

TEST_F(AntiVirusResult, VirusIsCountedReportedAndRecorded) {
    events.Expect(events::VIRUS_FOUND);
    SetType(1);
    SetEngine();
    SetComponent(L"invoice.exe");
    result.infected = 2;
    result.infections = L"Eicar Other";
    EXPECT_TRUE(Process());
    EXPECT_EQ(result.askedSeparator, L' ');
    EXPECT_EQ(Reason(), "Eicar Other");
    EXPECT_EQ(FileName(), "invoice.exe");
    EXPECT_EQ(data.avEngine, std::string("5.2"));
    EXPECT_EQ(data.avDats, std::string("20261121"));
    EXPECT_FALSE(data.spamEngine);
    EXPECT_EQ(Reported(events::VIRUS_FOUND),
              "connection={audit_id=A1} scan_identity=staff virus_names=Eicar Other file_name=invoice.exe "
              "scan_host=scan1 av_engine_version=5.2 av_dat_version=20261121");
    ExpectCounted({"virus_detected", "from_outside.virus_detected"});
}

TEST_F(AntiVirusResult, CleanedVirusIsReportedAsSuch) {
    events.Expect(events::VIRUS_CLEANED);
    events.Expect(events::VIRUS_FOUND, 2);
    SetType(1);
    for (int cleaned : {1, 2, 3}) {
        result.cleaned = cleaned;
        EXPECT_TRUE(Process());
    }
    EXPECT_EQ(events.Names()[1], "180000:145");
}

TEST_F(AntiVirusResult, VirusWithoutANameIsUnknownToTheReportToo) {
    events.Expect(events::VIRUS_FOUND);
    SetType(1);
    result.infected = 1;
    SetDescription(L"not asked for");
    Process();
    EXPECT_EQ(Reason(), "unknown");
    EXPECT_EQ(Reported(events::VIRUS_FOUND), "connection={audit_id=A1} scan_identity=staff virus_names=unknown");
}

TEST_F(AntiVirusResult, VirusResultWithoutItemsTakesItsDescription) {
    events.Expect(events::VIRUS_FOUND);
    SetType(1);
    SetDescription(L"encrypted");
    result.infections = L"not asked for";
    Process();
    EXPECT_EQ(Reason(), "encrypted");
    EXPECT_EQ(Reported(events::VIRUS_FOUND), "connection={audit_id=A1} scan_identity=staff virus_names=encrypted");
}

TEST_F(AntiVirusResult, VirusResultThatSaysNothingIsCountedAndUnknownToTheRecordAlone) {
    events.Expect(events::VIRUS_FOUND, 3);
    SetType(1);
    EXPECT_TRUE(Process());
    SetDescription(L"");
    EXPECT_TRUE(Process());
    result.bag.GetProperty("E_SR_DESCRIPTION_P")->SetULong(5);  // of another type
    EXPECT_TRUE(Process());
    EXPECT_EQ(Reason(), "unknown");
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(Describe(events.Bag(events::VIRUS_FOUND, i)), "connection={audit_id=A1} scan_identity=staff");
    }
    std::vector<std::string> counted(3, "virus_detected");
    counted.insert(counted.end(), 3, "from_outside.virus_detected");
    ExpectCounted(counted);
}

TEST_F(AntiVirusResult, UnnamedInfectedComponentHasNoFileName) {
    events.Expect(events::VIRUS_FOUND);
    SetType(1);
    SetComponent(std::nullopt);
    Process();
    EXPECT_FALSE(data.fileName);
    EXPECT_EQ(Reported(events::VIRUS_FOUND), "connection={audit_id=A1} scan_identity=staff");
}

TEST_F(AntiVirusResult, FamilyReadsTheEngineFromTheBagItIsGivenAndTheTextFromTheResult) {
    events.Expect(events::VIRUS_FOUND);
    SetEngine();
    SetDescription(L"of the result");
    KORPropertyBag other;
    other.NewProperty("E_SR_DESCRIPTION_P")->SetWide(L"of the other bag");
    EXPECT_TRUE(process.ProcessAntiVirusResult(session, nullptr, &other, &result, data));
    EXPECT_EQ(Reason(), "of the result");
    EXPECT_FALSE(data.avEngine);
    EXPECT_EQ(Reported(events::VIRUS_FOUND), "connection={audit_id=A1} scan_identity= virus_names=of the result");
    EXPECT_TRUE(process.ProcessInfoResult(session, nullptr, nullptr, data) == false);
}

TEST_F(AntiVirusResult, EngineFactsOfAnotherTypeAreAbsent) {
    events.Expect(events::VIRUS_FOUND, 2);
    auto* const facts = new KORPropertyBag;
    facts->NewProperty("QX_ENGINE")->SetULong(5);
    facts->NewProperty("QX_DATS")->SetNarrow("1");
    result.bag.NewProperty("QX_PROPERTIES")->SetBag(facts);
    SetType(1);
    Process();
    EXPECT_FALSE(data.avEngine);
    EXPECT_EQ(data.avDats, std::string("1"));
    result.bag.GetProperty("QX_PROPERTIES")->SetNarrow("no bag");
    data = ScannerData();
    Process();
    EXPECT_FALSE(data.avDats);
}

TEST_F(AntiVirusResult, DirectionChoosesTheSecondCounter) {
    events.AllowAll();
    ScannedSession outbound{false};
    SetType(1);
    EXPECT_TRUE(process.ProcessScannerTypes(outbound, "staff", &result, data, false));
    ExpectCounted({"virus_detected", "from_inside.virus_detected"});
}

TEST_F(AntiVirusResult, EventThatIsOffIsCountedAndRecordedAndLooksNothingUp) {
    events::VIRUS_FOUND.enable(false);
    SetType(1);
    result.infected = 1;
    result.infections = L"Eicar";
    EXPECT_TRUE(Process());
    events::VIRUS_FOUND.enable(true);
    EXPECT_EQ(session.asked, 0u);
    EXPECT_EQ(Reason(), "Eicar");
    ExpectCounted({"virus_detected", "from_outside.virus_detected"});
}

TEST_F(AntiVirusResult, EmptyNameOfAComponentIsAName) {
    events.Expect(events::VIRUS_FOUND);
    SetType(1);
    SetComponent(L"");
    Process();
    EXPECT_EQ(FileName(), "");
    EXPECT_EQ(Reported(events::VIRUS_FOUND), "connection={audit_id=A1} scan_identity=staff file_name=");
}

TEST_F(AntiVirusResult, AnswersTrueWhateverItHolds) {
    events.AllowAll();
    EXPECT_TRUE(process.ProcessAntiVirusResult(session, "staff", nullptr, &result, data));
    result.hasBag = false;
    EXPECT_TRUE(process.ProcessAntiVirusResult(session, "staff", nullptr, &result, data));
    EXPECT_EQ(Reason(), "unknown");
}

}  // namespace
