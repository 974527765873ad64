// How numbers, counts, paths and lines read that no encoder writes: as C's own functions read them, and never as a
// failure where the form has none.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cwchar>
#include <deque>
#include <string>
#include <vector>

#include <velt/results/SerialTest.h>

using namespace VELT;
using namespace velt_testing;

namespace {

std::string Line(char const* start, char const* rest) { return std::string(start) + rest + "\n"; }

// The one result of a verdict that has these lines in it.
class OneResult {
public:
    explicit OneResult(std::string const& lines) : m_verdict(Read("msr.sr.result\n" + lines + "\n\n")) {
        long position = 0;
        if (m_verdict) m_result = m_verdict->FindFirstScanResult(position);
    }
    IKORScanResult const* operator->() const { return m_result; }
    bool ok() const { return m_result != nullptr; }
    IKORProperty const* Property(char const* name) const { return PropertyOf(*m_result->GetPropertyBag(), name); }
    long Long(char const* name) const { return LongOf(*m_result->GetPropertyBag(), name); }

private:
    Verdict m_verdict;
    IKORScanResult const* m_result = nullptr;
};

template <class T>
struct Number {
    char const* text;
    T value;
};

}  // namespace

TEST(ReadNumbers, SignedOnesAreReadAsFarAsTheyGo) {
    for (Number<long> const& one : {Number<long>{"+5", 5},
                                    {"   7", 7},
                                    {"\t8", 8},
                                    {"-0", 0},
                                    {"007", 7},
                                    {"0x10", 0},
                                    {"12abc", 12},
                                    {"1.9", 1},
                                    {"", 0},
                                    {"abc", 0},
                                    {"+-5", 0},
                                    {"- 5", 0},
                                    {"99999999999999999999", LONG_MAX},
                                    {"-99999999999999999999", LONG_MIN}}) {
        for (char const* const tag : {"sl ", "ml ", "sb "}) {
            OneResult const result(Line("property .a ", (tag + std::string(one.text)).c_str()));
            ASSERT_TRUE(result.ok()) << one.text;
            EXPECT_EQ(result.Long("a"), one.value) << one.text;
        }
    }
}

TEST(ReadNumbers, UnsignedOnesWrapBelowZero) {
    for (Number<unsigned long> const& one : {Number<unsigned long>{"+5", 5},
                                             {"-1", ULONG_MAX},
                                             {"-5", ULONG_MAX - 4},
                                             {"12abc", 12},
                                             {"", 0},
                                             {"99999999999999999999", ULONG_MAX},
                                             {"-99999999999999999999", ULONG_MAX}}) {
        unsigned long value = 77;
        EXPECT_TRUE(OneResult(Line("property .a sL ", one.text)).Property("a")->GetULong(value));
        EXPECT_EQ(value, one.value) << one.text;
    }
}

TEST(ReadNumbers, RealOnesHaveAllFormsOfTheLanguage) {
    for (Number<double> const& one : {Number<double>{"+1.5", 1.5},
                                      {"1e3", 1000},
                                      {".5", .5},
                                      {"5.", 5},
                                      {"1,5", 1},
                                      {"1e", 1},
                                      {"0x1p4", 16},
                                      {"-0x10", -16},
                                      {"inf", INFINITY},
                                      {"-INFINITY", -INFINITY},
                                      {"1e400", INFINITY},
                                      {"1e-400", 0},
                                      {"4.9e-324", 4.9e-324},
                                      {"1.5xyz", 1.5},
                                      {"", 0},
                                      {"abc", 0},
                                      {"+-1", 0}}) {
        double value = 77;
        EXPECT_TRUE(OneResult(Line("property .a sf ", one.text)).Property("a")->GetDouble(value));
        EXPECT_EQ(value, one.value) << one.text;
    }
    double value = 77;
    OneResult("property .a sf -nan\n").Property("a")->GetDouble(value);
    EXPECT_TRUE(std::isnan(value));
}

// What is wider than the field loses its upper half.
TEST(ReadNumbers, OfAFieldAreCutToIt) {
    for (Number<int> const& one : {Number<int>{"+5", 5},
                                   {"12x", 12},
                                   {"", 0},
                                   {"abc", 0},
                                   {"-3", -3},
                                   {"2147483648", INT_MIN},
                                   {"4294967297", 1},
                                   {"99999999999999999999", -1}}) {
        EXPECT_EQ(OneResult(Line("infecteditems sl ", one.text))->InfectedItems(), one.value) << one.text;
        EXPECT_EQ(OneResult(Line("cleanstatus mb ", one.text))->IsCleaned(), one.value) << one.text;
    }
    for (char const* const text : {"infecteditems sL 3", "infecteditems 3", "infecteditems ", "cleanstatus sL 3"})
        EXPECT_FALSE(OneResult(Line(text, "")).ok()) << text;
}

TEST(ReadNumbers, AnErrorIsAFirstByteOfOne) {
    for (char const* const yes : {"sl 1", "sb   1", "ml 10"})
        EXPECT_TRUE(OneResult(Line("errorstatus ", yes))->GetScanErrorStatus()) << yes;
    for (char const* const no : {"sl 2", "sl -1", "sl 01", "sl +1", "sl ", "sl 1\nerrorstatus sl 0"})
        EXPECT_FALSE(OneResult(Line("errorstatus ", no))->GetScanErrorStatus()) << no;
}

TEST(ReadCounts, ThatAreNoneAreZero) {
    for (char const* const text : {"msr.action ss\n", "msr.action ss abc\n", "msr.master.action ms 0\n"})
        EXPECT_STREQ(Read(text)->GetMasterActionCode(), "") << text;
    for (char const* const text : {"msr.action ss +3\nabc", "msr.action xs 3junk\r\nabc", "msr.action \tss\x80 3\nabc"})
        EXPECT_STREQ(Read(text)->GetMasterActionCode(), "abc") << text;
    for (char const* const text : {"msr.action\n", "msr.action \n", "msr.action s\n", "msr.action 3\nabc"})
        EXPECT_EQ(Read(text), nullptr) << text;
    EXPECT_STREQ(OneResult("infectionlist abc\n")->GetInfectionList(L' '), L"");
    EXPECT_STREQ(OneResult("infectionlist \n")->GetInfectionList(L' '), L"");
    EXPECT_STREQ(OneResult("infectionlist  +2 junk\n" + WideBytes(L"ab"))->GetInfectionList(L' '), L"ab");
    EXPECT_STREQ(OneResult("property .a ss x\n").Property("a")->GetWide(), L"");
}

TEST(ReadPaths, TheLastSegmentIsAName) {
    EXPECT_EQ(OneResult("property .b<0> sl 1\n").Long("b<0>"), 1);
    EXPECT_EQ(LongOf(*OneResult("property .a.b<3> sl 1\n").Property("a")->GetBag(), "b<3>"), 1);
    EXPECT_EQ(LongOf(*OneResult("property .b<0>. sl 4\n").Property("b")->GetBag(), ""), 4);
    EXPECT_EQ(OneResult("property . sl 4\n").Long(""), 4);
    EXPECT_EQ(LongOf(*OneResult("property ..x sl 4\n").Property("")->GetBag(), "x"), 4);
    EXPECT_EQ(OneResult("property .<1>.x sl 4\n").Property("")->GetCount(), 2u);
    EXPECT_EQ(OneResult("property .a<1.x sl 3\n").Property("a")->GetCount(), 2u);
    EXPECT_EQ(OneResult("property .a\tsl 1\n").Property("a\tsl")->GetCount(), 0u);
    for (char const* const nothing : {".", ".a", ".a.b.c"})
        EXPECT_EQ(OneResult(Line("property ", nothing))->GetPropertyBag()->Size(), 0) << nothing;
}

TEST(ReadPaths, ElementsGrowToTheirIndexInAnyOrder) {
    OneResult const result(
        "property .a<2>.x sl 1\nproperty .a<0>.x sl 2\nproperty .a<5>.x sl 3\nproperty .a<5>.y sl 4\n"
        "property .a.z sl 5\nproperty .a<2>.y sl 6\n");
    IKORProperty const& several = *result.Property("a");
    ASSERT_EQ(several.GetCount(), 6u);
    EXPECT_EQ(LongOf(*several.GetBagAt(0), "x"), 2);
    EXPECT_EQ(LongOf(*several.GetBagAt(0), "z"), 5);
    EXPECT_EQ(several.GetBagAt(1)->Size(), 0);
    EXPECT_EQ(LongOf(*several.GetBagAt(2), "x"), 1);
    EXPECT_EQ(LongOf(*several.GetBagAt(2), "y"), 6);
    EXPECT_EQ(LongOf(*several.GetBagAt(5), "x"), 3);
    EXPECT_EQ(LongOf(*several.GetBagAt(5), "y"), 4);
}

TEST(ReadPaths, TheLastValueOfAPropertyCounts) {
    EXPECT_STREQ(OneResult("property .a sl 1\nproperty .a ss " + Wide(L"x")).Property("a")->GetWide(), L"x");
    EXPECT_EQ(OneResult("property .a ml 1\nproperty .a ml 2\nproperty .a sl 7\n").Property("a")->GetCount(), 1u);
    EXPECT_EQ(OneResult("property .a sl 1\nproperty .a ml 2\n").Property("a")->GetCount(), 2u);
    EXPECT_EQ(OneResult("property .a.b sl 1\nproperty .a sl 2\n").Long("a"), 2);
    EXPECT_EQ(OneResult("property .a sl 1\nproperty .a sq 2\n").Long("a"), 1);
    EXPECT_STREQ(OneResult("property .a ss " + Wide(L"ab") + "property .a ss -1\n").Property("a")->GetWide(), L"ab");
}

TEST(ReadLines, AWordEndsAtABlankAndNowhereElse) {
    KeptSyslog const kept;
    for (char const* const text :
         {" msr.triggered sl 1\n", "msr.triggered\tsl 1\n", "msr.triggere sl 1\n", "MSR.triggered sl 1\n", " # none\n"})
        EXPECT_EQ(Read(text), nullptr) << text;
    EXPECT_EQ(kept.lines().size(), 5u);
    EXPECT_TRUE(kept.lines()[0].ends_with(" Failed to find token "));
    EXPECT_FALSE(OneResult(" infecteditems sl 1\n").ok());
    EXPECT_FALSE(OneResult("infecteditemsX sl 1\n").ok());
    EXPECT_EQ(kept.lines().size(), 7u);
    EXPECT_FALSE(OneResult("infecteditems ss 1\n").ok());
    EXPECT_FALSE(OneResult("property a sl 1\n").ok());
    EXPECT_EQ(kept.lines().size(), 7u) << "a wrong tag is nothing to report";
}

TEST(ReadLines, ACommentWithoutABlankEndsNoResult) {
    EXPECT_EQ(OneResult("#\ninfecteditems sl 3\n")->InfectedItems(), 3);
    EXPECT_EQ(OneResult("#infected\r\ninfecteditems sl 3\n")->InfectedItems(), 3);
}

TEST(ReadLines, ANameIsTheRestOfItsLine) {
    Verdict const verdict =
        Read("msr.actions   A B  \r\nmsr.actions\nmsr.actions \nmsr.actions #x\nmsr.actions ss 3\n\n");
    ASSERT_NE(verdict, nullptr);
    char buffer[64];
    unsigned size = sizeof buffer, count = 0;
    EXPECT_TRUE(verdict->GetActionList(buffer, size, ';', count));
    EXPECT_STREQ(buffer, "A B  ;;;#x;ss 3;");
    EXPECT_EQ(count, 5u);
    EXPECT_TRUE(verdict->DidActionOccur(""));
    EXPECT_FALSE(verdict->DidActionOccur("A B"));
}

// The end of the payload is not taken for that of the line behind it.
TEST(ReadLines, AnEmptyOneBehindAReturnIsOne) {
    ScriptedStream verdictWire({"msr.action ss 2\nA\r\nrest"});
    bool ended = false;
    Verdict const verdict(SerializedEFabricResult::deserialize(&verdictWire, &ended));
    ASSERT_NE(verdict, nullptr);
    EXPECT_STREQ(verdict->GetMasterActionCode(), "A\r");
    EXPECT_TRUE(ended);
    EXPECT_EQ(verdictWire.Buffered(), "rest");
    ScriptedStream sectionWire({"p.t ss 1\n" + std::string("\0\0\0\r", 4) + "\nrest"});
    KORPropertyBag bag;
    SerializedEFabricResult::deserialize(&sectionWire, "p", bag, &ended);
    EXPECT_TRUE(ended);
    EXPECT_EQ(PropertyOf(bag, "t")->GetWide()[0], L'\x0d000000');
    EXPECT_EQ(sectionWire.Buffered(), "rest");
}

// The buffer is as small as the longest line; the network may cut anywhere.
TEST(ReadLines, SurviveEveryCut) {
    std::string const whole = "msr.triggered sl 1\r\nmsr.action ss 3\nB\r\nmsr.master.result\ninfectionlist " +
                              Wide(L"E F") + "# c\nclassname ss 3\nAV\rproperty .t ss " + Wide(L"#\n\r\n") +
                              "property .u<1>.v ml 2\n\nmsr.sr.result\ninfecteditems sl 4\n\n\r\n";
    for (std::size_t cut = 1; cut < whole.size(); ++cut) {
        ScriptedStream wire({whole.substr(0, cut), whole.substr(cut)}, EndsWith::reset, 32);
        bool ended = false;
        Verdict const verdict(SerializedEFabricResult::deserialize(&wire, &ended));
        ASSERT_NE(verdict, nullptr) << cut;
        EXPECT_TRUE(ended) << cut;
        EXPECT_STREQ(verdict->GetMasterActionCode(), "B\r\n") << cut;
        IKORScanResult const& master = *verdict->GetMasterScanResult();
        EXPECT_STREQ(master.GetInfectionList(L' '), L"E F") << cut;
        EXPECT_STREQ(master.GetScannerClassName(), "AV\r") << cut;
        EXPECT_STREQ(PropertyOf(*master.GetPropertyBag(), "t")->GetWide(), L"#\n\r\n") << cut;
        EXPECT_EQ(PropertyOf(*master.GetPropertyBag(), "u")->GetCount(), 2u) << cut;
        long position = 0;
        EXPECT_EQ(verdict->FindFirstScanResult(position)->InfectedItems(), 4) << cut;
    }
}

TEST(ReadResults, APlacesTextFillsTheBufferWithZeros) {
    OneResult const result("scanpolcontext scan_context_string " + Wide(L"ab"));
    std::wstring buffer(6, L'#');
    EXPECT_EQ(result->GetScanPolContext()->GetScanContextString(buffer.data(), 5, L'x', L'y'), buffer.data());
    EXPECT_EQ(buffer, std::wstring(L"ab\0\0\0#", 6));
    for (auto const& [size, text] : {std::pair{1, L"\0##"}, {2, L"a\0#"}, {3, L"ab\0"}}) {
        buffer.assign(3, L'#');
        result->GetScanPolContext()->GetScanContextString(buffer.data(), size, L'x', L'y');
        EXPECT_EQ(buffer, std::wstring(text, 3)) << size;
    }
}

TEST(ReadResults, WriteNothingWhereThereIsNoBuffer) {
    OneResult const result("scanpolcontext scan_context_string " + Wide(L"ab"));
    EXPECT_EQ(result->GetScanPolContext()->GetScanContextString(nullptr, 5, L' ', L':'), nullptr);
    Verdict const verdict = Read("msr.infection_description ss 3\nbadmsr.infection_names bad\n\n");
    EXPECT_FALSE(verdict->GetInfectionDescription(nullptr, 9));
    EXPECT_TRUE(verdict->GetInfectionNames(nullptr, 9, L';'));
}

TEST(ReadResults, AreNotThereBehindTheLastOrBeforeTheFirst) {
    Verdict const verdict = Read("msr.sr.result\ninfecteditems sl 1\n\nmsr.sr.result\ninfecteditems sl 2\n\n\n");
    long position = 1;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(verdict->FindNextScanResult(position), nullptr);
    for (long const wild : {-9L, LONG_MIN, LONG_MAX - 1}) {
        position = wild;
        EXPECT_EQ(verdict->FindNextScanResult(position), nullptr) << wild;
    }
    EXPECT_EQ(verdict->FindFirstScanResult(position)->InfectedItems(), 1);
    EXPECT_EQ(verdict->FindNextScanResult(position)->InfectedItems(), 2);
}
