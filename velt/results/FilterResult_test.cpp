// What becomes of a result of the content, format and mail filter scanners.
#include <velt/results/ScanResultTest.h>

using namespace VELT;
using namespace velt_testing;

namespace {

using FilterResult = ScanResultTest;

TEST_F(FilterResult, ContentRuleIsCountedReportedAndRecorded) {
    events.Expect(events::CONTENT_RULE_HIT);
    SetType(2);
    SetEngine();
    SetComponent(L"body");
    result.infected = 1;
    result.infections = L"secret";
    EXPECT_TRUE(Process());
    EXPECT_EQ(Reason(), "secret");
    EXPECT_EQ(FileName(), "body");
    EXPECT_FALSE(data.avEngine);
    EXPECT_EQ(Reported(events::CONTENT_RULE_HIT),
              "connection={audit_id=A1} scan_identity=staff content_rules=secret file_name=body scan_host=scan1");
    ExpectCounted({"content_filter_detected", "from_outside.content_filter_detected"});
}

TEST_F(FilterResult, ContentResultWithoutItemsIsPassedOver) {
    SetType(2);
    SetComponent(L"body");
    EXPECT_TRUE(Process());
    EXPECT_FALSE(process.ProcessContentScanResult(session, "staff", &result.bag, &result, data));
    EXPECT_FALSE(data.reason);
    EXPECT_FALSE(data.fileName);
    ExpectCounted({});
}

TEST_F(FilterResult, ContentWithoutANamedComponentStandsForTheMessage) {
    events.Expect(events::CONTENT_RULE_HIT, 2);
    result.infected = 1;
    SetType(2);
    Process();
    EXPECT_EQ(Describe(events.Bag(events::CONTENT_RULE_HIT, 0)),
              "connection={audit_id=A1} scan_identity=staff content_rules=unknown");
    SetComponent(std::nullopt);
    Process();
    EXPECT_EQ(Describe(events.Bag(events::CONTENT_RULE_HIT, 1)),
              "connection={audit_id=A1} scan_identity=staff content_rules=unknown file_name=MIME Message");
    EXPECT_FALSE(data.fileName);
    EXPECT_EQ(Reason(), "unknown");
}

TEST_F(FilterResult, FormatResultIsCountedReportedAndRecorded) {
    events.Expect(events::FILE_FILTER_HIT);
    SetType(4);
    SetEngine();
    SetComponent(L"setup.exe");
    SetDescription(L"programs");
    EXPECT_TRUE(Process());
    EXPECT_EQ(Reason(), "programs");
    EXPECT_EQ(FileName(), "setup.exe");
    EXPECT_EQ(Reported(events::FILE_FILTER_HIT),
              "connection={audit_id=A1} scan_identity=staff description=programs file_name=setup.exe scan_host=scan1");
    ExpectCounted({"file_filtering_detected", "from_outside.file_filtering_detected"});
}

TEST_F(FilterResult, FormatAndMailFilterNameTheMessageWhereNoComponentHasAName) {
    events.Expect(events::FILE_FILTER_HIT, 2);
    events.Expect(events::MAIL_FILTER_HIT, 2);
    for (bool withComponent : {false, true}) {
        if (withComponent) SetComponent(std::nullopt);
        process.ProcessFormatResult(session, "staff", &result.bag, &result, data);
        process.ProcessMailFilterResult(session, "staff", &result.bag, &result, data);
        for (QXlog::Event const* event : {static_cast<QXlog::Event const*>(&events::FILE_FILTER_HIT),
                                          static_cast<QXlog::Event const*>(&events::MAIL_FILTER_HIT)}) {
            EXPECT_EQ(Describe(events.Bag(*event, withComponent)),
                      "connection={audit_id=A1} scan_identity=staff file_name=MIME Message");
        }
    }
    EXPECT_FALSE(data.fileName);
    EXPECT_FALSE(data.reason);
}

TEST_F(FilterResult, AllowedFormatLeavesNothingButItsKind) {
    SetType(4);
    SetDescription(L"programs");
    SetComponent(L"setup.exe");
    IKORProperty* const actions = result.bag.NewProperty("E_SR_ACTION");
    actions->AddNarrow("LOG");
    actions->AddNarrow("EFABRIC:ALLOWTHRU");
    EXPECT_TRUE(Process());
    EXPECT_EQ(data.kind, std::string("FF"));
    EXPECT_FALSE(data.reason);
    EXPECT_FALSE(data.fileName);
    EXPECT_FALSE(process.ProcessFormatResult(session, "staff", &result.bag, &result, data));
    ExpectCounted({});
}

TEST_F(FilterResult, OtherActionsDoNotAllowAFormat) {
    events.Expect(events::FILE_FILTER_HIT, 2);
    IKORProperty* const actions = result.bag.NewProperty("E_SR_ACTION");
    actions->AddNarrow("efabric:allowthru");
    actions->AddNarrow("EFABRIC:ALLOWTHRU2");
    EXPECT_TRUE(process.ProcessFormatResult(session, "staff", &result.bag, &result, data));
    EXPECT_TRUE(process.ProcessFormatResult(session, "staff", nullptr, &result, data));
}

TEST_F(FilterResult, OnlyTheFormatFamilyLooksAtActions) {
    events.Expect(events::MAIL_FILTER_HIT);
    SetType(3);
    SetEngine();
    SetDescription(L"too many recipients");
    result.bag.NewProperty("E_SR_ACTION")->SetNarrow("EFABRIC:ALLOWTHRU");
    EXPECT_TRUE(Process());
    EXPECT_EQ(Reason(), "too many recipients");
    EXPECT_EQ(Reported(events::MAIL_FILTER_HIT),
              "connection={audit_id=A1} scan_identity=staff description=too many recipients file_name=MIME Message "
              "scan_host=scan1");
    ExpectCounted({"mail_filtering_detected", "from_outside.mail_filtering_detected"});
}

TEST_F(FilterResult, DescriptionThatIsEmptyOrOfAnotherTypeIsNone) {
    events.AllowAll();
    data.reason = KORtk::Utf8Array("earlier");
    for (bool const empty : {true, false}) {
        if (empty) SetDescription(L"");
        if (!empty) SetULong("E_SR_DESCRIPTION_P", 5);
        EXPECT_TRUE(process.ProcessFormatResult(session, "staff", &result.bag, &result, data));
        EXPECT_TRUE(process.ProcessMailFilterResult(session, "staff", &result.bag, &result, data));
        EXPECT_EQ(Reason(), "earlier");
    }
    for (auto const& event : events.Events()) EXPECT_FALSE(TextAt(event.bag, "description"));
}

TEST_F(FilterResult, DescriptionIsThatOfTheResultAndNotOfTheBag) {
    events.AllowAll();
    KORPropertyBag other;
    other.NewProperty("E_SR_DESCRIPTION_P")->SetWide(L"of the other bag");
    SetDescription(L"of the result");
    for (auto const family : {&ProcessScanResult::ProcessFormatResult, &ProcessScanResult::ProcessMailFilterResult}) {
        data = ScannerData();
        EXPECT_TRUE((process.*family)(session, "staff", &other, &result, data));
        EXPECT_EQ(Reason(), "of the result");
    }
}

TEST_F(FilterResult, ContentRuleIsNamedByTheListAndNeverByADescription) {
    events.AllowAll();
    result.infected = 1;
    SetDescription(L"not asked for");
    EXPECT_TRUE(process.ProcessContentScanResult(session, "staff", &result.bag, &result, data));
    EXPECT_EQ(Reason(), "unknown");
    EXPECT_EQ(result.askedSeparator, L' ');
}

TEST_F(FilterResult, FormatIsReportedUnlessAnElementOfTheActionsAllowsIt) {
    events.AllowAll();
    IKORProperty* const actions = result.bag.NewProperty("E_SR_ACTION");
    EXPECT_TRUE(process.ProcessFormatResult(session, "staff", &result.bag, &result, data));  // there, and empty
    actions->AddNarrow("EFABRIC:ALLOWTHRU");
    actions->AddNarrow("DENY");
    EXPECT_FALSE(process.ProcessFormatResult(session, "staff", &result.bag, &result, data));  // the first of two
    EXPECT_EQ(events.Count(events::FILE_FILTER_HIT), 1u);
    ExpectCounted({"file_filtering_detected", "from_outside.file_filtering_detected"});
}

}  // namespace
