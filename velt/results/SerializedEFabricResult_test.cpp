// Verdicts that are read from their text form, and what they answer.
#include <velt/results/SerializedEFabricResult.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cwchar>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <velt/results/SerialDecoding.h>
#include <velt/results/SerialTest.h>
#include <velt/runtime/Proxy.h>

using namespace VELT;
using namespace velt_testing;

namespace {

// The one result of a verdict whose section is this.
class Section {
public:
    explicit Section(std::string const& lines) : verdict(Read("msr.sr.result\n" + lines)) {
        long position = 0;
        if (verdict) result = verdict->FindFirstScanResult(position);
    }
    bool ok() const { return result != nullptr; }
    IKORProperty const* Property(char const* name) const {
        return static_cast<IKORPropertyBag const*>(result->GetPropertyBag())->GetProperty(name);
    }

    Verdict verdict;
    IKORScanResult const* result = nullptr;
};

// A text with one wait in it that runs out.
class StallingStream : public ScriptedStream {
public:
    StallingStream(std::string const& text, std::size_t at) : ScriptedStream({text.substr(0, at), text.substr(at)}) {}
    int read(char* data, unsigned length, unsigned* received) override {
        *received = 0;
        if (reads() == 1 && !std::exchange(m_stalled, true)) return ETIMEDOUT;
        return ScriptedStream::read(data, length, received);
    }

private:
    bool m_stalled = false;
};

std::wstring Names(SerializedEFabricResult const& verdict, int size) {
    std::wstring buffer(static_cast<std::size_t>(size) + 4, L'#');
    EXPECT_TRUE(verdict.GetInfectionNames(buffer.data(), size, L';'));
    EXPECT_EQ(buffer.substr(static_cast<std::size_t>(size)), L"####");
    return buffer.c_str();
}

}  // namespace

TEST(ReadVerdict, OfNoStreamIsTheEmptyOne) {
    for (Verdict const& verdict : {Verdict(SerializedEFabricResult::deserialize(nullptr)), Read(""), Read("\n"),
                                   Read("\r\nmsr.triggered sl 1\n")}) {
        ASSERT_NE(verdict, nullptr);
        long position = 7;
        EXPECT_FALSE(verdict->IsTriggered());
        EXPECT_FALSE(verdict->IsModified());
        EXPECT_EQ(verdict->FindFirstScanResult(position), nullptr);
        EXPECT_EQ(position, 0);
        EXPECT_EQ(verdict->FindNextScanResult(position), nullptr);
        EXPECT_EQ(verdict->GetMasterActionCode(), nullptr);
        EXPECT_EQ(verdict->GetMasterScanResult(), nullptr);
        EXPECT_EQ(verdict->GetScanContextStart(), nullptr);
        EXPECT_EQ(verdict->GetPolicyStatement(), nullptr);
        EXPECT_FALSE(verdict->DidActionOccur(""));
        EXPECT_EQ(Names(*verdict, 10), L"");
        wchar_t buffer[4];
        EXPECT_FALSE(verdict->GetInfectionDescription(buffer, 4));
        DynBuf<wchar_t> dynamic;
        EXPECT_FALSE(verdict->GetInfectionDescription(dynamic, ""));
    }
}

TEST(ReadVerdict, HasTheFieldsOfItsLines) {
    Verdict const verdict = Read(
        "# comment\nmsr.triggered sl 1\r\nmsr.modified  sb   1\nmsr.action ss 6\nRE\nACTmsr.infection_description ss "
        "3\n"
        "badmsr.infection_names A one\nmsr.infection_names Btwo\nmsr.infected_components c\nmsr.actions DROP\n"
        "msr.actions LOG\n");
    ASSERT_NE(verdict, nullptr);
    EXPECT_TRUE(verdict->IsTriggered());
    EXPECT_TRUE(verdict->IsModified());
    EXPECT_STREQ(verdict->GetMasterActionCode(), "RE\nACT");
    EXPECT_EQ(Names(*verdict, 20), L"A one;Btwo;");
    wchar_t buffer[20];
    EXPECT_TRUE(verdict->GetInfectionDescription(buffer, 4));
    EXPECT_STREQ(buffer, L"bad");
    EXPECT_FALSE(verdict->GetInfectionDescription(buffer, 3));
    EXPECT_TRUE(verdict->GetInfectedComponentNames(buffer, 20, L','));
    EXPECT_STREQ(buffer, L"c,");
    EXPECT_TRUE(verdict->DidActionOccur("LOG"));
    EXPECT_FALSE(verdict->DidActionOccur("LO"));
    EXPECT_FALSE(verdict->DidActionOccur("LOGS"));
    EXPECT_STREQ(Read("msr.master.action ss 1\nX")->GetMasterActionCode(), "X");
    EXPECT_STREQ(Read("msr.action ss 0\nmsr.triggered sl 1\n")->GetMasterActionCode(), "");
}

TEST(ReadVerdict, IsNoneWhereALineIsNotAsItShouldBe) {
    for (char const* text :
         {"msr.unknown sl 1\n", "unknown\n", "msr.triggered ss 1\n", "msr.triggered\n", "msr.modified sf 1\n",
          "msr.action sl 1\n", "msr.action ss 5\nabc", "msr.action ss -1\n", "msr.action ss 99999999999999\nabc",
          "msr.sr.result\nunknown 1\n", "msr.sr.result\ncleanstatus ss 1\n", "msr.sr.result\nerrorstatus sf 1\n",
          "msr.sr.result\ninfecteditems ss 1\n", "msr.sr.result\nclassname ss 3\nab",
          "msr.sr.result\ninfectionlist 2\nabcd", "msr.master.result\nproperty name sl 1\n",
          "msr.sr.result\nscanpolcontext unknown 1\n", "msr.triggered sl 1\nmsr.s"}) {
        // The last has no line end: it is no line.
        EXPECT_EQ(Read(text) == nullptr, std::string(text) != "msr.triggered sl 1\nmsr.s") << text;
    }
}

TEST(ReadVerdict, TrueIsAFirstByteOfOne) {
    for (char const* yes : {"1", "10", "1x"})
        EXPECT_TRUE(Read(std::string("msr.triggered sl ") + yes + "\n")->IsTriggered()) << yes;
    for (char const* no : {"0", "2", "-1", "true", ""})
        EXPECT_FALSE(Read(std::string("msr.triggered sl ") + no + "\n")->IsTriggered()) << no;
}

TEST(ReadVerdict, TheMasterIsNotAmongTheResults) {
    Verdict const verdict = Read(
        "msr.master.result\ninfecteditems sl 1\n\nmsr.sr.result\ninfecteditems sl 2\n\n"
        "msr.sr.result\ninfecteditems sl 3\n\nmsr.modified sl 1\n\n");
    ASSERT_NE(verdict, nullptr);
    EXPECT_EQ(verdict->GetMasterScanResult()->InfectedItems(), 1);
    long position = 9;
    EXPECT_EQ(verdict->FindFirstScanResult(position)->InfectedItems(), 2);
    EXPECT_EQ(verdict->FindNextScanResult(position)->InfectedItems(), 3);
    EXPECT_EQ(position, 1);
    EXPECT_EQ(verdict->FindNextScanResult(position), nullptr);
    EXPECT_TRUE(verdict->IsModified());
}

TEST(ReadVerdict, WritesNoNameThatDoesNotFit) {
    Verdict const verdict = Read("msr.infection_names abc\nmsr.infection_names \nmsr.infection_names de\n");
    std::vector<std::wstring> const fits = {L"",     L"",      L"",      L"",      L"",
                                            L"abc;", L"abc;;", L"abc;;", L"abc;;", L"abc;;de;"};
    for (int size = 1; size < 10; ++size)
        EXPECT_EQ(Names(*verdict, size), fits[static_cast<std::size_t>(size)]) << size;
    EXPECT_TRUE(verdict->GetInfectionNames(nullptr, 0, L';'));
}

TEST(ReadVerdict, WithoutNamesWritesTheirEndAlone) {
    Verdict const verdict = Read("\n");
    wchar_t buffer[] = L"####";
    EXPECT_TRUE(verdict->GetInfectionNames(buffer, 4, L';'));
    EXPECT_EQ(std::wstring(buffer, 4), std::wstring(L"\0###", 4));
    wchar_t other[] = L"####";
    EXPECT_TRUE(verdict->GetInfectedComponentNames(other, 1, L';'));
    EXPECT_EQ(std::wstring(other, 4), std::wstring(L"\0###", 4));
}

// However many names of one letter the wire brings, what is written ends within the buffer.
TEST(ReadVerdict, ManyShortNamesEndWithinTheBuffer) {
    std::string lines;
    for (int i = 0; i < 50; ++i) lines += "msr.infection_names a\n";
    Verdict const verdict = Read(lines);
    EXPECT_EQ(Names(*verdict, 8), L"a;a;a;");
    EXPECT_EQ(Names(*verdict, 9), L"a;a;a;a;");
    EXPECT_EQ(Names(*verdict, 2), L"");
}

TEST(ReadVerdict, ADescriptionHasASecondEndWhereThereIsRoom) {
    Verdict const verdict = Read(
        "msr.infection_description ss 3\nb\xe4"
        "d");
    for (int size : {4, 5, 6}) {
        std::wstring buffer(8, L'#');
        EXPECT_TRUE(verdict->GetInfectionDescription(buffer.data(), size));
        std::wstring const text{L'b', static_cast<wchar_t>(-28), L'd', L'\0'};  // bytes are signed
        EXPECT_EQ(buffer, text + (size > 4 ? std::wstring(1, L'\0') + L"###" : L"####")) << size;
    }
    std::wstring buffer(8, L'#');
    for (int size : {3, 0, -1}) EXPECT_FALSE(verdict->GetInfectionDescription(buffer.data(), size));
    EXPECT_EQ(buffer, L"########");
}

TEST(ReadVerdict, HasCommentsBetweenItsLinesAndNeverInsideAPayload) {
    Verdict const verdict = Read(
        "# a\nmsr.action ss 4\n# b\n#c\r\nmsr.sr.result\n# d\ninfecteditems sl 2\n#\nclassname ss 3\n#e\n"
        "property .t ss " +
        Wide(L"# f\n") + "# g\n\n# h\n\n");
    ASSERT_NE(verdict, nullptr);
    EXPECT_STREQ(verdict->GetMasterActionCode(), "# b\n");
    long position = 0;
    IKORScanResult const* const result = verdict->FindFirstScanResult(position);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result->InfectedItems(), 2);
    EXPECT_STREQ(result->GetScannerClassName(), "#e\n");
    EXPECT_STREQ(PropertyOf(*result->GetPropertyBag(), "t")->GetWide(), L"# f\n");
}

// A text that comes twice replaces the first, but for those that grow.
TEST(ReadVerdict, ALineThatComesAgainReplacesOrAdds) {
    Verdict const verdict = Read(
        "msr.action ss 1\nAmsr.action ss 1\nBmsr.infection_description ss 1\nxmsr.infection_description ss 1\ny"
        "msr.master.result\ninfecteditems sl 1\n\nmsr.master.result\nclassname ss 1\nAclassname ss 1\nB"
        "infectionlist " +
        Wide(L"one") + "infectionlist " + Wide(L"two") + "scanpolcontext scan_context_component_name " + Wide(L"c") +
        "scanpolcontext scan_context_component_name -1\n\n\n");
    ASSERT_NE(verdict, nullptr);
    EXPECT_STREQ(verdict->GetMasterActionCode(), "B");
    wchar_t buffer[9];
    EXPECT_TRUE(verdict->GetInfectionDescription(buffer, 9));
    EXPECT_STREQ(buffer, L"xy");
    IKORScanResult const& master = *verdict->GetMasterScanResult();
    EXPECT_EQ(master.InfectedItems(), 0);
    EXPECT_STREQ(master.GetScannerClassName(), "AB");
    EXPECT_STREQ(master.GetInfectionList(L' '), L"two");
    EXPECT_EQ(master.GetScanPolContext()->GetComponentName(), nullptr);
}

TEST(ReadVerdict, AMasterThatFailsIsNone) {
    Text source("msr.master.result\ninfecteditems sl 1\n\nmsr.master.result\ninfecteditems ss 1\n");
    bool ok = true;
    SerializedEFabricResult const verdict(&source.stream, ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(verdict.GetMasterScanResult(), nullptr);
}

TEST(ReadVerdict, ListsTheActionsThatFit) {
    Verdict const verdict = Read("msr.actions abc\nmsr.actions de\n");
    struct Case {
        unsigned size, written, count;
        char const* text;
    };
    for (Case const& one : {Case{0, 0, 0, ""}, Case{4, 0, 0, ""}, Case{5, 4, 1, "abc;"}, Case{7, 4, 1, "abc;"},
                            Case{8, 7, 2, "abc;de;"}, Case{99, 7, 2, "abc;de;"}}) {
        char buffer[128] = "#";
        unsigned size = one.size, count = 9;
        EXPECT_TRUE(verdict->GetActionList(buffer, size, ';', count));
        EXPECT_STREQ(buffer, one.text) << one.size;
        EXPECT_EQ(size, one.written) << one.size;
        EXPECT_EQ(count, one.count) << one.size;
    }
    unsigned size = 9, count = 7;
    EXPECT_TRUE(verdict->GetActionList(nullptr, size, ';', count));
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(count, 0u);
}

// What a scan server sends and what is left of it when the wire breaks read alike; the flag is the difference.
TEST(ReadVerdict, TellsWhetherItsEmptyLineWasThere) {
    std::string const whole = "msr.triggered sl 1\nmsr.action ss 1\nXmsr.master.result\ninfectionlist " + Wide(L"E") +
                              "cleanstatus sl 0\nproperty .t ss " + Wide(L"a") + "\n\n";
    bool ended = false;
    EXPECT_NE(Read(whole, &ended), nullptr);
    EXPECT_TRUE(ended);
    for (std::size_t cut = 0; cut < whole.size(); ++cut) {
        ended = true;
        Read(whole.substr(0, cut), &ended);
        EXPECT_FALSE(ended) << cut;
        ScriptedStream wire({whole.substr(0, cut)}, EndsWith::reset);
        ended = true;
        Verdict const verdict(SerializedEFabricResult::deserialize(&wire, &ended));
        EXPECT_FALSE(ended) << cut;
    }
    for (char const* empty : {"\n", "\r\n", "msr.action ss 1\n\r\n", "msr.sr.result\nend\n\n"}) {
        EXPECT_NE(Read(empty, &ended), nullptr) << empty;
        EXPECT_TRUE(ended) << empty;
    }
    EXPECT_EQ(Read("msr.unknown sl 1\n\n", &ended), nullptr);
    EXPECT_FALSE(ended);
    ended = true;
    EXPECT_NE(Verdict(SerializedEFabricResult::deserialize(nullptr, &ended)), nullptr);
    EXPECT_FALSE(ended);
}

// The empty line of a result that comes late would be taken for that of the verdict, without the results behind it.
TEST(ReadVerdict, ThatStalledIsCutWhateverComesLater) {
    std::string const whole = "msr.triggered sl 0\nmsr.sr.result\ncleanstatus sl 0\nproperty .t ss " + Wide(L"a\n\n") +
                              "\nmsr.sr.result\ninfectionlist " + Wide(L"E\n\n") + "\nmsr.triggered sl 1\n\n";
    for (std::size_t cut = 1; cut < whole.size(); ++cut) {
        StallingStream wire(whole, cut);
        bool ended = true;
        errno = 0;
        Verdict const verdict(SerializedEFabricResult::deserialize(&wire, &ended));
        EXPECT_FALSE(ended) << cut;
        EXPECT_EQ(errno, ETIMEDOUT) << cut;
    }
}

TEST(ReadSection, ThatStalledIsCutWhateverComesLater) {
    std::string const whole = "p.a sl 1\np.t ss " + Wide(L"a\n\n") + "p.b sl 2\n\r\n";
    for (std::size_t cut = 1; cut < whole.size(); ++cut) {
        StallingStream wire(whole, cut);
        KORPropertyBag bag;
        bool ended = true;
        SerializedEFabricResult::deserialize(&wire, "p", bag, &ended);
        EXPECT_FALSE(ended) << cut;
    }
}

TEST(ReadSection, ReplacesWhatTheBagHolds) {
    Text source("p.a sl 1\r\np.b<0>.c ss " + Wide(L"x") + "p.m ml 1\n# p.d sl 1\np.m ml 2\n\r\nleft\n");
    KORPropertyBag bag;
    bag.NewProperty("old");
    bool ended = false;
    SerializedEFabricResult::deserialize(&source.stream, "p", bag, &ended);
    EXPECT_TRUE(ended);
    EXPECT_EQ(bag.Size(), 3);
    EXPECT_EQ(LongOf(bag, "a"), 1);
    EXPECT_STREQ(PropertyOf(*PropertyOf(bag, "b")->GetBag(), "c")->GetWide(), L"x");
    EXPECT_EQ(PropertyOf(bag, "m")->GetCount(), 2u);
    char* rest = nullptr;
    ASSERT_EQ(source.stream.buffereddata(rest), 5);
    EXPECT_EQ(std::string(rest, 5), "left\n");
}

TEST(ReadSection, OfAnotherNameStopsAtItsFirstLineWhichIsLost) {
    Text source("conattr.a sl 1\nproperties.a sl 2\n\n");
    KORPropertyBag bag;
    bag.NewProperty("old");
    bool ended = true, other = false;
    SerializedEFabricResult::deserialize(&source.stream, "properties", bag, &ended, &other);
    EXPECT_EQ(bag.Size(), 0);
    EXPECT_FALSE(ended);
    EXPECT_TRUE(other);
    SerializedEFabricResult::deserialize(&source.stream, "properties", bag, &ended, &other);
    EXPECT_EQ(LongOf(bag, "a"), 2);
    EXPECT_TRUE(ended);
    EXPECT_FALSE(other);
}

TEST(ReadSection, SkipsALineThatOnlyBeginsWithItsName) {
    Text source("properties2.a sl 1\nproperties\nproperties .b sl 1\nproperties.c sl 3\n\n");
    KORPropertyBag bag;
    SerializedEFabricResult::deserialize(&source.stream, "properties", bag);
    EXPECT_EQ(bag.Size(), 1);
    EXPECT_EQ(LongOf(bag, "c"), 3);
}

TEST(ReadSection, OfNoStreamOnlyClearsTheBag) {
    KORPropertyBag bag;
    bag.NewProperty("old");
    bool ended = true;
    SerializedEFabricResult::deserialize(nullptr, "p", bag, &ended);
    EXPECT_EQ(bag.Size(), 0);
    EXPECT_FALSE(ended);
}

TEST(ReadSection, ThatIsCutIsNotEnded) {
    std::string const whole = "p.a sl 1\np.t ss " + Wide(L"a") + "\r\n";
    for (std::size_t cut = 0; cut < whole.size(); ++cut) {
        Text source(whole.substr(0, cut));
        KORPropertyBag bag;
        bool ended = true;
        SerializedEFabricResult::deserialize(&source.stream, "p", bag, &ended);
        EXPECT_FALSE(ended) << cut;
    }
}

TEST(ReadResult, HasTheFieldsOfItsSection) {
    Section const section("infectionlist " + Wide(L"Eicar \x20ac") +
                          "cleanstatus sl 2\n# comment\nerrorstatus sl 1\nclassname ss 5\nAV\nABinfecteditems sl 3\n"
                          "scanpolcontext  scan_context_string " +
                          Wide(L"a:b") + "scanpolcontext scan_context_component_name " + Wide(L"part") + "\n");
    ASSERT_TRUE(section.ok());
    EXPECT_STREQ(section.result->GetInfectionList(L'!'), L"Eicar \x20ac");
    EXPECT_STREQ(section.result->GetInfectionList(L' '), L"Eicar \x20ac");
    EXPECT_EQ(section.result->IsCleaned(), 2);
    EXPECT_TRUE(section.result->GetScanErrorStatus());
    EXPECT_STREQ(section.result->GetScannerClassName(), "AV\nAB");
    EXPECT_EQ(section.result->InfectedItems(), 3);
    IKORScanPolContextElement const* const place = section.result->GetScanPolContext();
    ASSERT_NE(place, nullptr);
    EXPECT_STREQ(place->GetComponentName(), L"part");
    wchar_t buffer[8];
    EXPECT_STREQ(place->GetScanContextString(buffer, 8, L' ', L':'), L"a:b");
    EXPECT_STREQ(place->GetScanContextString(buffer, 3, L' ', L':'), L"a:");
    EXPECT_EQ(place->GetParent(), nullptr);
}

TEST(ReadResult, WithoutALineHasNoSuchField) {
    Section const section("\n");
    ASSERT_TRUE(section.ok());
    EXPECT_EQ(section.result->GetInfectionList(L' '), nullptr);
    EXPECT_STREQ(section.result->GetScannerClassName(), "");
    EXPECT_EQ(section.result->GetScanPolContext(), nullptr);
    EXPECT_EQ(section.result->IsCleaned(), 0);
    EXPECT_EQ(section.result->GetPropertyBag()->Size(), 0);
    EXPECT_EQ(Section("infectionlist -1\n").result->GetInfectionList(L' '), nullptr);
    EXPECT_STREQ(Section("infectionlist 0\n\n").result->GetInfectionList(L' '), L"");
}

TEST(ReadResult, APlaceNeedsOneBlankAndMayHaveMore) {
    for (char const* blanks : {" ", "  ", " \t\x80 "}) {
        Section const section("scanpolcontext" + std::string(blanks) + "scan_context_string " + Wide(L"a") + "\n");
        ASSERT_TRUE(section.ok()) << blanks;
        wchar_t buffer[8];
        section.result->GetScanPolContext()->GetScanContextString(buffer, 8, L' ', L':');
        EXPECT_STREQ(buffer, L"a");
    }
    Section const section("scanpolcontext scan_context_string -1\n\n");
    wchar_t buffer[] = L"###";
    section.result->GetScanPolContext()->GetScanContextString(buffer, 0, L' ', L':');
    section.result->GetScanPolContext()->GetScanContextString(buffer, -1, L' ', L':');
    EXPECT_STREQ(buffer, L"###");
    section.result->GetScanPolContext()->GetScanContextString(buffer, 3, L' ', L':');
    EXPECT_STREQ(buffer, L"");
}

// What came of a wide text that was cut stays, with zeros behind it.
TEST(ReadResult, ACutListKeepsWhatCame) {
    Text source("infectionlist 3\n" + WideBytes(L"a") + std::string("b", 1));
    bool ok = true;
    ScanResult const result(&source.stream, true, ok);
    EXPECT_FALSE(ok);
    EXPECT_STREQ(result.GetInfectionList(L' '), L"ab");
}

TEST(ReadResult, EndsAtALineWithoutASpace) {
    EXPECT_EQ(Section("infecteditems sl 4\nend\nmsr.modified sl 1\n").result->InfectedItems(), 4);
    EXPECT_TRUE(Section("infecteditems sl 4\nend\nmsr.modified sl 1\n").verdict->IsModified());
}

TEST(ReadResult, APlaceIsThereEvenIfItsFieldFails) {
    Text source("scanpolcontext scan_context_string 5\nab");
    bool ok = true;
    ScanResult const result(&source.stream, true, ok);
    EXPECT_FALSE(ok);
    EXPECT_NE(result.GetScanPolContext(), nullptr);
    bool unread = true;
    ScanResult const empty(&source.stream, false, unread);
    EXPECT_FALSE(unread);
    EXPECT_EQ(empty.GetScanPolContext(), nullptr);
}

TEST(ReadResult, HasNothingForTheFrameworksOwnProcessing) {
    bool ok = false;
    auto* const alone = new ScanResult(nullptr, true, ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(alone->AddRef(), 0);
    alone->Init();
    struct : IAlertHandler {
        bool GetAlertText(char const*, std::wstring&) const override { return true; }
    } const alerts;
    alone->AddDescriptionProperty(alerts);
    alone->Finalise(nullptr, alerts, nullptr);
    EXPECT_EQ(alone->GetPropertyBag()->Size(), 0);
    Verdict const verdict(SerializedEFabricResult::deserialize(nullptr));
    verdict->ReportSpecificScanner("AV");
    verdict->ResetReportSpecificScanner();
    wchar_t buffer[] = L"#";
    alone->GetInfectionList(buffer, 2, L' ');
    EXPECT_STREQ(buffer, L"#");
    EXPECT_EQ(alone->GetInfectionList(L"a"), 0);
    EXPECT_EQ(alone->Release(), 0);  // nobody else holds it
    EXPECT_EQ(ScanResult::Release(new ScanResult(nullptr, true, ok)), 0);

    Section const section("scanpolcontext scan_context_component_name 0\n\n");
    IKORScanPolContextElement const& place = *section.result->GetScanPolContext();
    long position = 5;
    EXPECT_FALSE(place.IsChildOf(&place));
    EXPECT_EQ(place.GetComponentIndex(), 0);
    EXPECT_EQ(place.GetComponentType(), 0);
    EXPECT_EQ(place.GetParent(), nullptr);
    EXPECT_EQ(place.GetFirstChild(position), nullptr);
    EXPECT_EQ(place.GetNextChild(position), nullptr);
    EXPECT_FALSE(place.CheckInContext("a", true, true));
    EXPECT_EQ(place.GetInfectedStatus(), 0);
    EXPECT_FALSE(place.IsTopLevel());
    EXPECT_FALSE(place.StateReset());
}

namespace {

__attribute__((no_sanitize("undefined"))) long ReleaseQualified(ScanResult* result) {
    return result->ScanResult::Release();
}

}  // namespace

TEST(ReadResult, CanBeReleasedThoughThereIsNone) {
    ScanResult* volatile none = nullptr;
    EXPECT_EQ(ReleaseQualified(none), 0);
    EXPECT_EQ(ScanResult::Release(none), 0);
}

TEST(ReadResult, AWrongCleanStatusIsZero) {
    Text source("cleanstatus sl 2\ncleanstatus ss 1\n");
    bool ok = true;
    ScanResult const result(&source.stream, true, ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(result.IsCleaned(), 0);
    Text other("infecteditems sl 2\ninfecteditems ss 1\n");
    ScanResult const kept(&other.stream, true, ok);
    EXPECT_EQ(kept.InfectedItems(), 2);
}

TEST(ReadProperties, HaveTheirTypes) {
    Section const section("property .t ss " + Wide(L"w\x20ac") +
                          "property .l sl -5\nproperty .L sL 18446744073709551615\n" +
                          "property .f sf 2.500000\nproperty .b sb 1\nproperty .e ss 0\nproperty .x sq 3\n\n");
    ASSERT_TRUE(section.ok());
    EXPECT_STREQ(section.Property("t")->GetWide(), L"w\x20ac");
    EXPECT_STREQ(section.Property("e")->GetWide(), L"");
    long number = 0;
    unsigned long natural = 0;
    double real = 0;
    EXPECT_TRUE(section.Property("l")->GetLong(number));
    EXPECT_EQ(number, -5);
    EXPECT_TRUE(section.Property("b")->GetLong(number));
    EXPECT_EQ(number, 1);
    EXPECT_TRUE(section.Property("L")->GetULong(natural));
    EXPECT_EQ(natural, 18446744073709551615ul);
    EXPECT_TRUE(section.Property("f")->GetDouble(real));
    EXPECT_EQ(real, 2.5);
    EXPECT_EQ(section.Property("x")->GetType(), KORProp_None);
}

TEST(ReadProperties, OfSeveralElementsGrow) {
    Section const section("property .m ml 1\nproperty .m ml 2\nproperty .s sl 1\nproperty .s sl 2\nproperty .t ms " +
                          Wide(L"a") + "property .t ms " + Wide(L"b") + "property .L mL 3\nproperty .f mf 4\n\n");
    ASSERT_TRUE(section.ok());
    EXPECT_EQ(section.Property("m")->GetCount(), 2u);
    EXPECT_EQ(section.Property("s")->GetCount(), 1u);
    EXPECT_EQ(section.Property("t")->GetCount(), 2u);
    EXPECT_STREQ(section.Property("t")->GetWideAt(1), L"b");
    EXPECT_EQ(section.Property("L")->GetType(), KORProp_ULong);
    EXPECT_EQ(section.Property("f")->GetType(), KORProp_Double);
}

TEST(ReadProperties, NestByTheirPaths) {
    Section const section(
        "property .one<0>.a sl 1\nproperty .one<0>.b sl 2\nproperty .many.a sl 1\nproperty .many.a sl 2\n"
        "property .third<2>.a sl 9\nproperty .deep<0>.er.est sl 7\n\n");
    ASSERT_TRUE(section.ok());
    EXPECT_EQ(section.Property("one")->GetCount(), 1u);
    EXPECT_EQ(section.Property("one")->GetBag()->Size(), 2);
    EXPECT_EQ(section.Property("many")->GetCount(), 1u);
    long number = 0;
    section.Property("many")->GetBag()->GetProperty("a")->GetLong(number);
    EXPECT_EQ(number, 2);  // of several written without an index the last one stays
    EXPECT_EQ(section.Property("third")->GetCount(), 3u);
    EXPECT_EQ(section.Property("third")->GetBagAt(2)->Size(), 1);
    section.Property("deep")->GetBag()->GetProperty("er")->GetBag()->GetProperty("est")->GetLong(number);
    EXPECT_EQ(number, 7);
}

TEST(ReadProperties, ThatAreBrokenHarmNobody) {
    EXPECT_EQ(Section("property .t ss 5\nab").Property("t")->GetType(), KORProp_None);
    EXPECT_EQ(Section("property .t ss -5\n\n").Property("t")->GetType(), KORProp_None);
    EXPECT_EQ(Section("property .t sl 1\nproperty .t.a sl 1\n\n").Property("t")->GetType(), KORProp_Bag);
    EXPECT_EQ(Section("property .t sl 1\nproperty .t<1>.a sl 1\n\n").Property("t")->GetCount(), 2u);
    EXPECT_EQ(Section("property .t<x>.a sl 1\n\n").Property("t")->GetCount(), 1u);
    EXPECT_EQ(Section("property .t<>.a sl 1\n\n").Property("t")->GetCount(), 1u);
    EXPECT_EQ(Section("property .t<-7>.a sl 1\n\n").Property("t")->GetCount(), 1u);
    EXPECT_EQ(Section("property .t<2>.a sl 1\nproperty .t.b sl 1\n\n").Property("t")->GetBagAt(0)->Size(), 1);
    EXPECT_EQ(Section("property .nothing\nproperty .t sl 1\n\n").result->GetPropertyBag()->Size(), 1);
}

TEST(ReadProperties, TheSystemNameGetsThisProcesssInFront) {
    new Proxy;
    std::string host = "here", full = "here.example";
    Proxy::SetHostInformation(host, full);
    Section const section("property .QX_PROPERTIES<0>.QX_SYSTEM_NAME ss " + Wide(L"there") + "\n");
    ASSERT_TRUE(section.ok());
    EXPECT_STREQ(section.Property("QX_PROPERTIES")->GetBag()->GetProperty("QX_SYSTEM_NAME")->GetNarrow(), "here_there");
    ScriptedStream wire({});
    SerializedEFabricResult::serialize(&wire, section.verdict.get());
    Verdict const again = Read(wire.written());
    long position = 0;
    IKORProperty const* const outer =
        again->FindFirstScanResult(position)->GetPropertyBag()->GetProperty("QX_PROPERTIES");
    EXPECT_STREQ(outer->GetBag()->GetProperty("QX_SYSTEM_NAME")->GetNarrow(), "here_here_there");
    delete Proxy::s_pProxyInstance;
}

TEST(ReadProperties, TheSystemNameHasNothingInFrontWhereNoProxyIs) {
    ASSERT_EQ(Proxy::s_pProxyInstance, nullptr);
    Section const section("property .QX_PROPERTIES<0>.QX_SYSTEM_NAME ss " + Wide(L"there") + "\n");
    ASSERT_TRUE(section.ok());
    EXPECT_STREQ(section.Property("QX_PROPERTIES")->GetBag()->GetProperty("QX_SYSTEM_NAME")->GetNarrow(), "_there");
}

TEST(UnknownToken, IsToldToSyslogAsFarAsItCanBePrinted) {
    KeptSyslog const kept;
    EXPECT_EQ(Read("msr.\x1b[2Jn%s\xff\t" + std::string(300, 'x') + " sl 1\n"), nullptr);
    EXPECT_EQ(Read("msr.sr.result\nnothing 1\n"), nullptr);
    EXPECT_EQ(Read("msr.sr.result\nscanpolcontext place 1\n"), nullptr);
    ASSERT_EQ(kept.lines().size(), 3u);
    std::string const first = "30 SerializedEFabricResult.cpp:";
    EXPECT_EQ(kept.lines()[0].substr(0, first.size()), first);
    EXPECT_EQ(kept.lines()[0].substr(kept.lines()[0].find(" F")),
              " Failed to find token msr.?[2Jn%s??" + std::string(200 - 13, 'x'));
    EXPECT_EQ(kept.lines()[1].substr(kept.lines()[1].find(" F")), " Failed to find token nothing");
    EXPECT_EQ(kept.lines()[1].substr(0, 17), "30 ScanResult.cpp");
    EXPECT_EQ(kept.lines()[2].substr(kept.lines()[2].find(" F")), " Failed to find token place");
}

TEST(Tags, AreTwoCharactersBehindBlanks) {
    struct Case {
        char const* text;
        results::SerialType type;
        bool multi;
        char const* value;
    };
    using results::SerialType;
    for (Case const& one : {Case{"ss 5", SerialType::String, false, "5"},
                            Case{"\t\x80 ml  x", SerialType::Long, true, "x"}, Case{"sL", SerialType::ULong, false, ""},
                            Case{"xf1", SerialType::Double, true, "1"}, Case{"sb 1", SerialType::Long, false, "1"},
                            Case{"sq 1", SerialType::None, false, "q 1"}, Case{"s", SerialType::None, false, ""},
                            Case{"", SerialType::None, true, ""}, Case{"   ", SerialType::None, true, ""}}) {
        char const* text = one.text;
        results::SerialTag const tag = results::get_type(text);
        EXPECT_EQ(tag.type, one.type) << one.text;
        EXPECT_EQ(tag.multi, one.multi) << one.text;
        EXPECT_STREQ(text, one.value) << one.text;
    }
}
