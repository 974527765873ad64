// Which family a result goes to.
#include <velt/results/ScanResultTest.h>

using namespace VELT;
using namespace velt_testing;

namespace {

using ScanResult = ScanResultTest;

TEST_F(ScanResult, EachTypeHasItsKind) {
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

TEST_F(ScanResult, UnknownTypeIsRecordedWithoutAKind) {
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

TEST_F(ScanResult, ResultWithoutATypeIsRefused) {
    result.className = "SomeScanner";
    EXPECT_FALSE(Process());
    result.bag.NewProperty("E_SR_TYPE")->SetLong(1);  // of another type
    EXPECT_FALSE(Process());
    result.hasBag = false;
    EXPECT_FALSE(Process());
    EXPECT_FALSE(data.className);
    EXPECT_FALSE(data.type);
}

TEST_F(ScanResult, ScannerNamesItselfWhenItCan) {
    SetType(7);
    Process();
    EXPECT_FALSE(data.className);
    result.className = "KORAVScanner";
    Process();
    EXPECT_EQ(data.className, std::string("KORAVScanner"));
}

TEST_F(ScanResult, NameOfAnEarlierResultStaysWhereTheScannerHasNone) {
    data.className = std::string("Earlier");
    SetType(7);
    Process();
    EXPECT_EQ(data.className, std::string("Earlier"));
}

// A record may be used for more than one result.
TEST_F(ScanResult, FieldsThatAFamilyDoesNotTouchStayAsTheyWere) {
    events.AllowAll();
    ScannerData before;
    before.fileName = KORtk::Utf8Array("earlier.exe");
    before.infoType = 3;
    before.avEngine = std::string("4.0");
    before.avDats = std::string("20260101");
    before.spamEngine = std::string("1.0");
    before.spamScore = 2.5;
    for (unsigned long type = 1; type <= 7; ++type) {
        data = before;
        result.bag.Clear();
        SetType(type);
        Process();
        EXPECT_EQ(FileName(), "earlier.exe") << type;
        EXPECT_EQ(data.infoType, before.infoType) << type;
        EXPECT_EQ(data.avEngine, before.avEngine) << type;
        EXPECT_EQ(data.avDats, before.avDats) << type;
        EXPECT_EQ(data.spamEngine, before.spamEngine) << type;
        EXPECT_EQ(data.spamScore, before.spamScore) << type;
    }
}

// The families, each with a result that it reports.
class Families : public ScanResultTest {
protected:
    struct Family {
        char const* name;
        bool (*process)(Families&, char const* identity, IKORPropertyBag const* bag);
        QXlog::Event const& event;
        char const* counter;  // null: none
        bool countsFirst;
    };
    using FamilyCall = bool (ProcessScanResult::*)(Connection const&, char const*, IKORPropertyBag const*,
                                                   IKORScanResult const*, ScannerData&);

    template <FamilyCall family>
    static bool Of(Families& test, char const* identity, IKORPropertyBag const* bag) {
        test.result.infected = 1;
        return (test.process.*family)(test.session, identity, bag, &test.result, test.data);
    }
    static bool OfSpam(Families& test, char const* identity, IKORPropertyBag const* bag) {
        return test.process.ProcessAntiSpamResult(test.session, identity, bag, test.data);
    }
    static bool OfInfo(Families& test, char const* identity, IKORPropertyBag const* bag) {
        return test.process.ProcessInfoResult(test.session, identity, bag, test.data);
    }

    static std::vector<Family> All() {
        return {
            {"anti-virus", Of<&ProcessScanResult::ProcessAntiVirusResult>, events::VIRUS_FOUND, "virus_detected", true},
            {"content", Of<&ProcessScanResult::ProcessContentScanResult>, events::CONTENT_RULE_HIT,
             "content_filter_detected", true},
            {"format", Of<&ProcessScanResult::ProcessFormatResult>, events::FILE_FILTER_HIT, "file_filtering_detected",
             true},
            {"mail filter", Of<&ProcessScanResult::ProcessMailFilterResult>, events::MAIL_FILTER_HIT,
             "mail_filtering_detected", true},
            {"anti-spam", OfSpam, events::SPAM_FOUND, "spam_detected", false},
            {"information", OfInfo, events::INFO_RESULT_FIRST, nullptr, false}};
    }
    static unsigned long Total(char const* counter) { return QXStats::QXCounter(counter).value(); }
};

TEST_F(Families, TakeNoIdentityForTheEmptyOne) {
    SetULong("E_SR_INFORESULTTYPE", 1);
    for (Family const& family : All()) {
        events.Expect(family.event);
        family.process(*this, nullptr, &result.bag);
        EXPECT_EQ(TextAt(events.Bag(family.event), "scan_identity"), "") << family.name;
        EXPECT_EQ(TextAt(events.Bag(family.event), "connection.audit_id"), "A1") << family.name;
    }
}

TEST_F(Families, TakeNoBagForAnEmptyOne) {
    events.AllowAll();
    SetEngine();
    SetDouble("E_SR_AS_SCORE", 7.0);
    for (Family const& family : All()) {
        bool const reports = std::string(family.name) != "information";
        bool const answer = family.process(*this, "staff", nullptr);
        EXPECT_EQ(answer, reports && std::string(family.name) != "anti-spam") << family.name;
        EXPECT_EQ(events.Count(family.event), reports) << family.name;
        if (!reports) continue;
        EXPECT_FALSE(TextAt(events.Bag(family.event), "scan_host")) << family.name;
    }
    EXPECT_FALSE(data.avEngine);
    EXPECT_FALSE(data.spamScore);
}

TEST_F(Families, CountAndRecordWithoutAReportThatIsOff) {
    SetULong("E_SR_INFORESULTTYPE", 1);
    for (Family const& family : All()) {
        unsigned long const before = family.counter ? Total(family.counter) : 0;
        family.event.enable(false);
        family.process(*this, "staff", &result.bag);
        family.event.enable(true);
        if (!family.counter) continue;
        EXPECT_EQ(Total(family.counter), before + 1) << family.name;
    }
    EXPECT_EQ(session.asked, 0u);
    EXPECT_EQ(data.infoType, 1L);
}

// Who watches the counters while reports come in sees a finding counted before it is told of; only the anti-spam
// scanner's is counted behind.
TEST_F(Families, CountBeforeTheyReportButForTheAntiSpamScanner) {
    events.AllowAll();
    for (Family const& family : All()) {
        if (!family.counter) continue;
        unsigned long const before = Total(family.counter);
        unsigned long reported = 0;
        session.onReport = [&] { reported = Total(family.counter); };
        family.process(*this, "staff", &result.bag);
        EXPECT_EQ(reported, before + family.countsFirst) << family.name;
        EXPECT_EQ(Total(family.counter), before + 1) << family.name;
    }
}

TEST_F(Families, CountByTheDirectionOfTheSession) {
    events.AllowAll();
    for (bool const inbound : {false, true}) {
        session.SetInBound(inbound);
        for (Family const& family : All()) {
            if (!family.counter) continue;
            std::string const own = std::string(inbound ? "from_outside." : "from_inside.") + family.counter;
            std::string const other = std::string(inbound ? "from_inside." : "from_outside.") + family.counter;
            unsigned long const ownBefore = Total(own.c_str()), otherBefore = Total(other.c_str());
            family.process(*this, "staff", &result.bag);
            EXPECT_EQ(Total(own.c_str()), ownBefore + 1) << own;
            EXPECT_EQ(Total(other.c_str()), otherBefore) << other;
        }
    }
}

// "Cleaned" is a word of the anti-virus scanner's.
TEST_F(Families, LookForCleaningInTheAntiVirusScannersResultAlone) {
    events.Expect(events::VIRUS_CLEANED);
    result.cleaned = 2;
    for (Family const& family : All()) {
        bool const antiVirus = std::string(family.name) == "anti-virus";
        if (family.counter && !antiVirus) events.Expect(family.event);
        family.process(*this, "staff", &result.bag);
    }
}

}  // namespace
