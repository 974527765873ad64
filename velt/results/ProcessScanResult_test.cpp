// What becomes of each scanner's result: the host's record, the report and the counters.
#include <QXlog/Names.h>
#include <eFabric/Property.h>
#include <eFabric/Result.h>
#include <gtest/gtest.h>

#include <boost/optional/optional_io.hpp>

#include <optional>
#include <string>
#include <vector>

#include <testing/EventCapture.h>
#include <velt/connection/Connection.h>
#include <velt/logging/Events.h>
#include <velt/results/ProcessScanResult.h>
#include <velt/results/ScanStats.h>
#include <velt/scanning/ScanContext.h>
#include <velt/streams/ScannerStream.h>

using velt_testing::Describe;
using velt_testing::EventCapture;
using namespace VELT;

namespace {

// A component with a name, or without one.
class FakeComponent final : public IKORScanPolContextElement {
public:
    bool IsChildOf(IKORScanPolContextElement const*) const override { return false; }
    long GetComponentIndex() const override { return 0; }
    int GetComponentType() const override { return 0; }
    wchar_t const* GetComponentName() const override { return name ? name->c_str() : nullptr; }
    wchar_t const* GetScanContextString(wchar_t*, int, wchar_t, wchar_t) const override { return nullptr; }
    IKORScanPolContextElement const* GetParent() const override { return nullptr; }
    IKORScanPolContextElement const* GetFirstChild(long&) const override { return nullptr; }
    IKORScanPolContextElement const* GetNextChild(long&) const override { return nullptr; }
    bool CheckInContext(char const*, bool, bool) const override { return false; }
    int GetInfectedStatus() const override { return 0; }
    bool IsTopLevel() const override { return true; }
    bool StateReset() const override { return true; }

    std::optional<std::wstring> name;
};

// A result whose every answer is a field.
class FakeResult final : public IKORScanResult {
public:
    long AddRef() override { return 1; }
    long Release() override { return 1; }
    void AddDescriptionProperty(IAlertHandler const&) override {}
    void Init() override {}
    void GetInfectionList(wchar_t*, int, wchar_t) const override {}
    long GetInfectionList(wchar_t const*) const override { return 0; }
    wchar_t const* GetInfectionList(wchar_t separator) const override {
        askedSeparator = separator;
        return infections ? infections->c_str() : nullptr;
    }
    int IsCleaned() const override { return cleaned; }
    int InfectedItems() const override { return infected; }
    char const* GetScannerClassName() const override { return className; }
    bool GetScanErrorStatus() const override { return error; }
    void Finalise(IKORScanPolContextElement const*, IAlertHandler const&, IKORPropertyBag const* const, ...) override {}
    IKORScanPolContextElement const* GetScanPolContext() const override { return component; }
    IKORPropertyBag* GetPropertyBag() const override { return hasBag ? &bag : nullptr; }

    mutable KORPropertyBag bag;
    mutable wchar_t askedSeparator = 0;
    std::optional<std::wstring> infections;
    int cleaned = 0;
    int infected = 0;
    char const* className = nullptr;
    bool error = false;
    bool hasBag = true;
    IKORScanPolContextElement const* component = nullptr;
};

class FakeVerdict final : public IScanResultHandler {
public:
    void ReportSpecificScanner(char const*) const override {}
    void ResetReportSpecificScanner() const override {}
    IKORScanResult const* FindFirstScanResult(long&) const override { return nullptr; }
    IKORScanResult const* FindNextScanResult(long&) const override { return nullptr; }
    bool IsModified() const override { return false; }
    bool IsTriggered() const override { return false; }
    bool GetInfectionDescription(wchar_t*, int) const override { return false; }
    bool GetInfectionDescription(DynBuf<wchar_t>&, char const*) const override { return false; }
    bool GetInfectionNames(wchar_t*, int, wchar_t) const override { return false; }
    bool GetInfectedComponentNames(wchar_t*, int, wchar_t) const override { return false; }
    char const* GetMasterActionCode() const override { return action; }
    IKORScanResult const* GetMasterScanResult() const override { return master; }
    bool DidActionOccur(char const*) const override { return false; }
    bool GetActionList(char*, unsigned&, char, unsigned&) const override { return false; }
    IKORScanPolContextElement const* GetScanContextStart() const override { return nullptr; }
    void const* GetPolicyStatement() const override { return nullptr; }

    char const* action = nullptr;
    IKORScanResult const* master = nullptr;
};

class Session final : public Connection {
public:
    explicit Session(bool inbound) { m_config.inbound = inbound; }
    void LogConnectionAttributes(KORlog::InfoBag& bag) const override {
        ++asked;
        bag |= QXlog::names::QXPROP_AUDIT_ID("A1");
    }
    mutable unsigned asked = 0;
};

class ScanResultTest : public testing::Test {
protected:
    ScanResultTest() {
        ProcessScanResult::Initialise();
        m_before = Counts();
    }

    // The bag of a result, as engines fill it.
    void SetType(unsigned long type) { result.bag.NewProperty("E_SR_TYPE")->SetULong(type); }
    void SetULong(char const* name, unsigned long value) { result.bag.NewProperty(name)->SetULong(value); }
    void SetDouble(char const* name, double value) { result.bag.NewProperty(name)->SetDouble(value); }
    void SetWide(char const* name, wchar_t const* value) { result.bag.NewProperty(name)->SetWide(value); }
    void SetDescription(wchar_t const* text) { SetWide("E_SR_DESCRIPTION_P", text); }
    void SetEngine() {
        auto* const facts = new KORPropertyBag;
        facts->NewProperty("QX_SYSTEM_NAME")->SetNarrow("scan1");
        facts->NewProperty("QX_ENGINE")->SetNarrow("5.2");
        facts->NewProperty("QX_DATS")->SetNarrow("20261121");
        result.bag.NewProperty("QX_PROPERTIES")->SetBag(facts);
    }
    void SetComponent(std::optional<std::wstring> name) {
        component.name = name;
        result.component = &component;
    }
    void AddRule(char const* name, double score) {
        IKORProperty const* names = std::as_const(result.bag).GetProperty("E_SR_INFECTIONNAME");
        if (!names) {
            result.bag.NewProperty("E_SR_INFECTIONNAME");
            result.bag.NewProperty("E_SR_AS_INFECTION_SCORE");
        }
        result.bag.GetProperty("E_SR_INFECTIONNAME")->AddNarrow(name);
        result.bag.GetProperty("E_SR_AS_INFECTION_SCORE")->AddDouble(score);
    }

    bool Process(bool fatal15004 = false) {
        return process.ProcessScannerTypes(session, "staff", &result, data, fatal15004);
    }
    bool Spam() { return process.ProcessAntiSpamResult(session, "staff", &result.bag, data); }
    bool Info() { return process.ProcessInfoResult(session, "staff", &result.bag, data); }
    std::string Reported(QXlog::Event const& event) { return Describe(events.Bag(event)); }
    std::string Reason() const { return data.reason ? data.reason->str() : "(unset)"; }
    std::string FileName() const { return data.fileName ? data.fileName->str() : "(unset)"; }

    static std::vector<unsigned long> Counts() {
        std::vector<unsigned long> counts;
        for (SCAN_STATS const* stats : {&s_Totals, &s_PolicyStats[0], &s_PolicyStats[1]}) {
            for (QXStats::QXCounter const* counter :
                 {stats->virus_detected, stats->spam_detected, stats->spam_belowthreshold,
                  stats->content_filter_detected, stats->mail_filtering_detected, stats->file_filtering_detected}) {
                counts.push_back(counter->value());
            }
        }
        return counts;
    }
    // Exactly these counters moved, each by one.
    void ExpectCounted(std::vector<std::string> const& names) {
        std::vector<std::string> moved;
        std::vector<unsigned long> const now = Counts();
        char const* const rows[] = {"virus_detected",          "spam_detected",           "spam_belowthreshold",
                                    "content_filter_detected", "mail_filtering_detected", "file_filtering_detected"};
        char const* const prefixes[] = {"", "from_inside.", "from_outside."};
        for (std::size_t i = 0; i < now.size(); ++i) {
            for (unsigned long n = m_before[i]; n < now[i]; ++n) {
                moved.push_back(std::string(prefixes[i / 6]) + rows[i % 6]);
            }
        }
        EXPECT_EQ(moved, names);
    }

    EventCapture events;
    Session session{true};
    FakeComponent component;
    FakeResult result;
    ScannerData data;
    ProcessScanResult process;

private:
    std::vector<unsigned long> m_before;
};

}  // namespace

// ---- dispatch

TEST_F(ScanResultTest, EachTypeHasItsKind) {
    events.AllowAll();
    char const* const kinds[] = {"AV", "CF", "MF", "FF", "AS", "IF"};
    for (unsigned long type = 1; type <= 6; ++type) {
        result.bag.Clear();
        data = ScannerData();
        SetType(type);
        EXPECT_TRUE(Process()) << type;
        EXPECT_EQ(data.type, type);
        EXPECT_EQ(data.kind, std::string(kinds[type - 1]));
    }
}

TEST_F(ScanResultTest, UnknownTypeIsRecordedWithoutAKind) {
    for (unsigned long type : {0ul, 7ul, 4294967297ul}) {
        result.bag.Clear();
        data = ScannerData();
        SetType(type);
        EXPECT_TRUE(Process());
        EXPECT_EQ(data.type, type);
        EXPECT_FALSE(data.kind);
    }
    ExpectCounted({});
}

TEST_F(ScanResultTest, ResultWithoutATypeIsRefused) {
    result.className = "SomeScanner";
    EXPECT_FALSE(Process());
    result.bag.NewProperty("E_SR_TYPE")->SetLong(1);  // of another type
    EXPECT_FALSE(Process());
    result.hasBag = false;
    EXPECT_FALSE(Process());
    EXPECT_FALSE(data.className);
    EXPECT_FALSE(data.type);
}

TEST_F(ScanResultTest, ScannerNamesItselfWhenItCan) {
    SetType(7);
    Process();
    EXPECT_FALSE(data.className);
    result.className = "KORAVScanner";
    Process();
    EXPECT_EQ(data.className, std::string("KORAVScanner"));
}

// ---- scanner errors

TEST_F(ScanResultTest, ErrorOfLevelZeroGoesOnInSilence) {
    SetType(7);
    result.error = true;
    SetULong("E_SR_SCANERROR_LVL", 0);
    EXPECT_TRUE(Process());
    EXPECT_TRUE(events.Events().empty());
}

TEST_F(ScanResultTest, ErrorOfLevelOneIsReportedAndGoesOn) {
    events.Expect(events::SCANNER_ERROR);
    SetType(7);
    result.error = true;
    SetULong("E_SR_SCANERROR_LVL", 1);
    EXPECT_TRUE(Process());
}

TEST_F(ScanResultTest, ErrorOfAnyOtherLevelIsReportedAndStops) {
    events.Expect(events::SCANNER_ERROR, 4);
    SetType(1);
    result.error = true;
    EXPECT_FALSE(Process());  // no level at all
    SetULong("E_SR_SCANERROR_LVL", 2);
    EXPECT_FALSE(Process());
    SetULong("E_SR_SCANERROR_LVL", 3);
    EXPECT_FALSE(Process());
    result.bag.GetProperty("E_SR_SCANERROR_LVL")->SetLong(1);  // of another type
    EXPECT_FALSE(Process());
    EXPECT_FALSE(data.type);
    ExpectCounted({});
}

TEST_F(ScanResultTest, ErrorWithoutABagStops) {
    events.Expect(events::SCANNER_ERROR);
    result.error = true;
    result.hasBag = false;
    EXPECT_FALSE(Process());
    EXPECT_EQ(Reported(events::SCANNER_ERROR), "connection={audit_id=A1}");
}

TEST_F(ScanResultTest, LevelWithoutTheErrorStatusIsNoError) {
    SetType(7);
    SetULong("E_SR_SCANERROR_LVL", 2);
    EXPECT_TRUE(Process());
}

TEST_F(ScanResultTest, Error15004StopsWhereItIsFatal) {
    events.Expect(events::SCANNER_ERROR, 2);
    SetType(7);
    result.error = true;
    SetULong("E_SR_SCANERROR_LVL", 1);
    SetULong("E_SR_SCANERROR_ID", 15004);
    EXPECT_TRUE(Process(false));
    EXPECT_FALSE(Process(true));
    EXPECT_EQ(events.Count(events::SCANNER_ERROR), 2u);
}

TEST_F(ScanResultTest, Error15004OfLevelZeroGoesOnEvenWhereItIsFatal) {
    SetType(7);
    result.error = true;
    SetULong("E_SR_SCANERROR_LVL", 0);
    SetULong("E_SR_SCANERROR_ID", 15004);
    EXPECT_TRUE(Process(true));
}

TEST_F(ScanResultTest, OtherErrorsAreNotFatalAtLevelOne) {
    events.Expect(events::SCANNER_ERROR);
    SetType(7);
    result.error = true;
    SetULong("E_SR_SCANERROR_LVL", 1);
    SetULong("E_SR_SCANERROR_ID", 15005);
    EXPECT_TRUE(Process(true));
}

TEST_F(ScanResultTest, ErrorIsReportedWithAllThatItSays) {
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

// ---- anti-virus

TEST_F(ScanResultTest, VirusIsCountedReportedAndRecorded) {
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

TEST_F(ScanResultTest, CleanedVirusIsReportedAsSuch) {
    events.Expect(events::VIRUS_CLEANED);
    events.Expect(events::VIRUS_FOUND, 2);
    SetType(1);
    for (int cleaned : {1, 2, 3}) {
        result.cleaned = cleaned;
        EXPECT_TRUE(Process());
    }
    EXPECT_EQ(events.Names()[1], "180000:145");
}

TEST_F(ScanResultTest, VirusWithoutANameIsUnknownToTheReportToo) {
    events.Expect(events::VIRUS_FOUND);
    SetType(1);
    result.infected = 1;
    SetDescription(L"not asked for");
    Process();
    EXPECT_EQ(Reason(), "unknown");
    EXPECT_EQ(Reported(events::VIRUS_FOUND), "connection={audit_id=A1} scan_identity=staff virus_names=unknown");
}

TEST_F(ScanResultTest, VirusResultWithoutItemsTakesItsDescription) {
    events.Expect(events::VIRUS_FOUND);
    SetType(1);
    SetDescription(L"encrypted");
    result.infections = L"not asked for";
    Process();
    EXPECT_EQ(Reason(), "encrypted");
    EXPECT_EQ(Reported(events::VIRUS_FOUND), "connection={audit_id=A1} scan_identity=staff virus_names=encrypted");
}

TEST_F(ScanResultTest, VirusResultThatSaysNothingIsCountedAndUnknownToTheRecordAlone) {
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
    EXPECT_EQ(s_Totals.virus_detected->value() - s_PolicyStats[0].virus_detected->value(),
              s_PolicyStats[1].virus_detected->value());
}

TEST_F(ScanResultTest, UnnamedInfectedComponentHasNoFileName) {
    events.Expect(events::VIRUS_FOUND);
    SetType(1);
    SetComponent(std::nullopt);
    Process();
    EXPECT_FALSE(data.fileName);
    EXPECT_EQ(Reported(events::VIRUS_FOUND), "connection={audit_id=A1} scan_identity=staff");
}

TEST_F(ScanResultTest, FamilyReadsTheEngineFromTheBagItIsGivenAndTheTextFromTheResult) {
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

TEST_F(ScanResultTest, EngineFactsOfAnotherTypeAreAbsent) {
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

TEST_F(ScanResultTest, DirectionChoosesTheSecondCounter) {
    events.AllowAll();
    Session outbound{false};
    SetType(1);
    EXPECT_TRUE(process.ProcessScannerTypes(outbound, "staff", &result, data, false));
    ExpectCounted({"virus_detected", "from_inside.virus_detected"});
}

TEST_F(ScanResultTest, EventThatIsOffIsCountedAndRecordedAndLooksNothingUp) {
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

// ---- content

TEST_F(ScanResultTest, ContentRuleIsCountedReportedAndRecorded) {
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

TEST_F(ScanResultTest, ContentResultWithoutItemsIsPassedOver) {
    SetType(2);
    SetComponent(L"body");
    EXPECT_TRUE(Process());
    EXPECT_FALSE(process.ProcessContentScanResult(session, "staff", &result.bag, &result, data));
    EXPECT_FALSE(data.reason);
    EXPECT_FALSE(data.fileName);
    ExpectCounted({});
}

TEST_F(ScanResultTest, ContentWithoutANamedComponentStandsForTheMessage) {
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

// ---- format and mail filter

TEST_F(ScanResultTest, FormatResultIsCountedReportedAndRecorded) {
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

TEST_F(ScanResultTest, FormatAndMailFilterNameTheMessageWhereNoComponentHasAName) {
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

TEST_F(ScanResultTest, AllowedFormatLeavesNothingButItsKind) {
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

TEST_F(ScanResultTest, OtherActionsDoNotAllowAFormat) {
    events.Expect(events::FILE_FILTER_HIT, 2);
    IKORProperty* const actions = result.bag.NewProperty("E_SR_ACTION");
    actions->AddNarrow("efabric:allowthru");
    actions->AddNarrow("EFABRIC:ALLOWTHRU2");
    EXPECT_TRUE(process.ProcessFormatResult(session, "staff", &result.bag, &result, data));
    EXPECT_TRUE(process.ProcessFormatResult(session, "staff", nullptr, &result, data));
}

TEST_F(ScanResultTest, OnlyTheFormatFamilyLooksAtActions) {
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

// ---- anti-spam

TEST_F(ScanResultTest, ActionThresholdWinsOverTheThreshold) {
    events.Expect(events::SPAM_BELOW_THRESHOLD);
    SetDouble("E_SR_AS_SCORE", 5.0);
    SetDouble("E_SR_AS_THRESHOLD", 3.0);
    SetDouble("E_SR_AS_ACTION_THRESHOLD", 8.0);
    EXPECT_TRUE(Spam());
    EXPECT_EQ(data.spamScore, 5.0);
    EXPECT_EQ(events.Names(), std::vector<std::string>{"180002:206"});
    ExpectCounted({"spam_belowthreshold", "from_outside.spam_belowthreshold"});
}

TEST_F(ScanResultTest, LowerActionThresholdWinsToo) {
    events.Expect(events::SPAM_FOUND);
    SetDouble("E_SR_AS_SCORE", 5.0);
    SetDouble("E_SR_AS_THRESHOLD", 8.0);
    SetDouble("E_SR_AS_ACTION_THRESHOLD", 3.0);
    EXPECT_TRUE(Spam());
}

TEST_F(ScanResultTest, ScoreAtTheThresholdIsSpam) {
    events.Expect(events::SPAM_FOUND);
    SetDouble("E_SR_AS_SCORE", 5.0);
    SetDouble("E_SR_AS_THRESHOLD", 5.0);
    EXPECT_TRUE(Spam());
    EXPECT_EQ(events.Names(), std::vector<std::string>{"180002:161"});
    ExpectCounted({"spam_detected", "from_outside.spam_detected"});
}

TEST_F(ScanResultTest, ResultWithoutScoreAndThresholdIsSpamWithoutAScore) {
    events.Expect(events::SPAM_FOUND, 2);
    EXPECT_FALSE(Spam());
    SetULong("E_SR_AS_SCORE", 5);  // of another type
    EXPECT_FALSE(Spam());
    EXPECT_FALSE(data.spamScore);
    EXPECT_FALSE(data.reason);
    EXPECT_EQ(Describe(events.Bag(events::SPAM_FOUND, 1)), "connection={audit_id=A1} scan_identity=staff");
}

TEST_F(ScanResultTest, SpamIsReportedWithItsRules) {
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
    EXPECT_EQ(velt_testing::TextAt(bag, "spam_rules_broken"), "FROM_NOBODY=4.25, ALL_CAPS=2");
    EXPECT_EQ(velt_testing::TextAt(bag, "spam_engine_version"), "5.2");
    EXPECT_EQ(velt_testing::TextAt(bag, "spam_rules_version"), "20261121");
    EXPECT_EQ(velt_testing::TextAt(bag, "scan_host"), "scan1");
    EXPECT_NE(bag.find("spam_score"), nullptr);
    EXPECT_NE(bag.find("spam_threshold_score"), nullptr);
    EXPECT_EQ(bag.find("spam_action_threshold_score"), nullptr);
}

TEST_F(ScanResultTest, RuleWithoutAScoreEndsTheList) {
    events.AllowAll();
    AddRule("FIRST", 1.0);
    result.bag.GetProperty("E_SR_INFECTIONNAME")->AddNarrow("SECOND");
    result.bag.GetProperty("E_SR_INFECTIONNAME")->AddNarrow("THIRD");
    Spam();
    EXPECT_EQ(Reason(), "FIRST=1");
}

TEST_F(ScanResultTest, ScoreWithoutANameIsSkippedWithoutASeparator) {
    events.AllowAll();
    AddRule("FIRST", 1.5);
    result.bag.GetProperty("E_SR_AS_INFECTION_SCORE")->AddDouble(2.5);  // beyond the names: no name
    Spam();
    EXPECT_EQ(Reason(), "FIRST=1.5");
}

TEST_F(ScanResultTest, RulesNeedBothOfTheirLists) {
    events.AllowAll();
    result.bag.NewProperty("E_SR_INFECTIONNAME")->AddNarrow("FIRST");
    Spam();
    EXPECT_FALSE(data.reason);
    result.bag.NewProperty("E_SR_AS_INFECTION_SCORE");  // there, and empty
    Spam();
    EXPECT_EQ(Reason(), "");
}

// ---- information

TEST_F(ScanResultTest, InformationIsReportedByItsType) {
    struct Row {
        unsigned long type;
        char const* event;  // empty: none
        bool answer;
    };
    constexpr Row rows[] = {
        {0, "", false}, {1, "180009:345", false}, {2, "180009:347", false}, {3, "180009:346", false}, {4, "", true},
        {5, "", true},  {6, "", false},           {100, "", false}};
    events.AllowAll();
    SetEngine();
    SetDescription(L"note");
    SetULong("E_SR_INFORESULTTYPE", 0);
    for (Row const& row : rows) {
        events.Clear();
        events.AllowAll();
        data = ScannerData();
        result.bag.GetProperty("E_SR_INFORESULTTYPE")->SetULong(row.type);
        EXPECT_EQ(Info(), row.answer) << row.type;
        EXPECT_EQ(data.infoType, static_cast<long>(row.type));
        EXPECT_EQ(Reason(), row.type == 5 ? "Disclaimer Added" : "(unset)");
        std::vector<std::string> const expected =
            *row.event ? std::vector<std::string>{row.event} : std::vector<std::string>{};
        EXPECT_EQ(events.Names(), expected) << row.type;
        for (auto const& event : events.Events()) {
            EXPECT_EQ(Describe(event.bag),
                      "connection={audit_id=A1} scan_identity=staff description=note scan_host=scan1");
        }
    }
    ExpectCounted({});
}

TEST_F(ScanResultTest, InformationWithoutATypeIsPassedOver) {
    EXPECT_FALSE(Info());
    result.bag.NewProperty("E_SR_INFORESULTTYPE")->SetLong(5);
    EXPECT_FALSE(Info());
    EXPECT_FALSE(data.infoType);
    EXPECT_FALSE(data.reason);
}

TEST_F(ScanResultTest, InformationBagHoldsOnlyWhatIsThere) {
    KORlog::InfoBag bag;
    process.FillInfoResultInfoBag(bag, nullptr, nullptr);
    EXPECT_EQ(Describe(bag), "scan_identity=");
}

// ---- the fallback scan

class FallBackTest : public ScanResultTest {
protected:
    FallBackTest() {
        SetType(4);
        SetWide("E_SR_DOS_TYPE", L"SIZE");
        verdict.action = "DENY";
        verdict.master = &result;
        output.result = &verdict;
    }
    bool Wanted() { return process.DoFallBackScan(&output); }

    FakeVerdict verdict;
    ScanOutput output;
};

TEST_F(FallBackTest, IsWantedWhenTheFormatScannerGaveUp) {
    EXPECT_TRUE(Wanted());
    result.bag.GetProperty("E_SR_DOS_TYPE")->SetWide(L"DEPTH");
    EXPECT_TRUE(Wanted());
    for (wchar_t const* other : {L"", L"size", L"SIZE ", L"OTHER"}) {
        result.bag.GetProperty("E_SR_DOS_TYPE")->SetWide(other);
        EXPECT_FALSE(Wanted()) << other;
    }
}

TEST_F(FallBackTest, NeedsAVerdictWithAMasterResult) {
    verdict.master = nullptr;
    EXPECT_FALSE(Wanted());
    output.result = nullptr;
    EXPECT_FALSE(Wanted());
    EXPECT_FALSE(process.DoFallBackScan(nullptr));
}

TEST_F(FallBackTest, IsForTheFormatScannerAlone) {
    for (unsigned long type : {0ul, 1ul, 3ul, 5ul}) {
        result.bag.GetProperty("E_SR_TYPE")->SetULong(type);
        EXPECT_FALSE(Wanted()) << type;
    }
    result.bag.GetProperty("E_SR_TYPE")->SetLong(4);
    EXPECT_FALSE(Wanted());
    result.hasBag = false;
    EXPECT_FALSE(Wanted());
}

TEST_F(FallBackTest, NeedsAnActionOrContent) {
    verdict.action = nullptr;
    EXPECT_FALSE(Wanted());
    ScannerStream stream(64u);
    output.output = &stream;
    EXPECT_FALSE(Wanted());
    stream.write("x", 1u);
    EXPECT_TRUE(Wanted());
}

TEST_F(FallBackTest, ReasonOfAnotherTypeIsNoReason) {
    result.bag.GetProperty("E_SR_DOS_TYPE")->SetULong(1);
    EXPECT_FALSE(Wanted());
}
