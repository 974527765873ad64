// What is written of a verdict, a property bag and a place, and in how many writes.
#include <gtest/gtest.h>

#include <array>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <testing/DocExample.h>
#include <testing/SpoolRoom.h>
#include <velt/results/ScanResultTest.h>
#include <velt/results/SerialDecoding.h>
#include <velt/results/SerialTest.h>

using namespace VELT;
using namespace velt_testing;

namespace {

// Keeps each write on its own, and answers that it failed.
class Writes : public BufferedStream {
public:
    int read(char*, unsigned, unsigned* received) override { return *received = 0; }
    int write(char const* data, unsigned length, unsigned* sent) override {
        *sent = length;
        all.emplace_back(data, length);
        return EPIPE;
    }
    int writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) override {
        ++vectored;
        std::string line;
        for (unsigned i = 0; i < count; ++i) line.append(buffers[i], lengths[i]);
        return write(line.data(), static_cast<unsigned>(line.size()), sent);
    }
    std::string text() const {
        std::string joined;
        for (auto const& one : all) joined += one;
        return joined;
    }
    std::vector<std::string> all;
    unsigned vectored = 0;  // of these
};

std::string Written(IScanResultHandler const& verdict) {
    Writes stream;
    SerializedEFabricResult::serialize(&stream, &verdict);
    return stream.text();
}

std::string Written(IKORPropertyBag const& bag, char const* name = "p") {
    Writes stream;
    SerializedEFabricResult::serialize(&stream, name, &bag);
    return stream.text();
}

void ReadBack(IKORPropertyBag const& from, KORPropertyBag& to) {
    Text source(Written(from));
    bool ended = false;
    SerializedEFabricResult::deserialize(&source.stream, "p", to, &ended);
    EXPECT_TRUE(ended);
}

KORPropertyBag& BagIn(KORPropertyBag& bag, char const* name) {
    return static_cast<KORPropertyBag&>(*bag.NewPropertyBagProperty(name)->GetBag());
}

}  // namespace

TEST(WriteVerdict, ThatIsEmptyIsTwoLinesAndALineFeed) {
    Writes stream;
    SerializedEFabricResult::serialize(&stream, &static_cast<IScanResultHandler const&>(FakeVerdict()));
    EXPECT_EQ(stream.all, (std::vector<std::string>{"msr.triggered sl 0\n", "msr.modified sl 0\n", "\n"}));
}

TEST(WriteVerdict, HasTheMasterOnceThoughTheResultsGiveItToo) {
    FakeResult first, master, last;
    first.infected = 1;
    master.infected = 2;
    last.infected = 3;
    FakeVerdict verdict;
    verdict.triggered = verdict.modified = true;
    verdict.action = "BLOCK";
    verdict.master = &master;
    verdict.results = {&first, &master, &last};
    std::string const rest = "infectionlist 0\ncleanstatus sl 0\nerrorstatus sl 0\ninfecteditems sl ";
    EXPECT_EQ(Written(verdict), "msr.triggered sl 1\nmsr.modified sl 1\nmsr.action ss 5\nBLOCKmsr.master.result\n" +
                                    rest + "2\n\nmsr.sr.result\n" + rest + "1\n\nmsr.sr.result\n" + rest + "3\n\n\n");
}

TEST(WriteVerdict, HasAllOfAResultInThisOrder) {
    FakeComponent place;
    place.place = L"Object Part:a";
    place.name = L"a.exe";
    FakeResult result;
    result.infections = L"Eicar \x20ac";
    result.cleaned = -2;
    result.infected = 7;
    result.error = true;
    result.className = "AV";
    result.component = &place;
    result.bag.NewProperty("E_SR_TYPE")->SetULong(1);
    BagIn(result.bag, "QX_PROPERTIES").NewProperty("QX_ENGINE")->SetNarrow("5");
    FakeVerdict verdict;
    verdict.results = {&result};
    EXPECT_EQ(Written(verdict), "msr.triggered sl 0\nmsr.modified sl 0\nmsr.sr.result\ninfectionlist " +
                                    Wide(L"Eicar \x20ac") +
                                    "cleanstatus sl -2\nerrorstatus sl 1\nclassname ss 2\nAVinfecteditems sl 7\n"
                                    "property .E_SR_TYPE sL 1\nproperty .QX_PROPERTIES<0>.QX_ENGINE ss " +
                                    Wide(L"5") + "scanpolcontext  scan_context_string " + Wide(L"Object Part:a") +
                                    "scanpolcontext  scan_context_component_name " + Wide(L"a.exe") + "\n\n");
    EXPECT_EQ(result.askedSeparator, L' ');
    EXPECT_EQ(place.askedSeparators, L" :");
}

TEST(WriteVerdict, SendsEachLineAndItsCharactersInOneWriteAndLooksAtNoAnswer) {
    FakeResult result;
    result.infections = L"abc";
    result.className = "AV";
    result.bag.NewProperty("t")->SetWide(L"x");
    FakeVerdict verdict;
    verdict.results = {&result};
    Writes stream;
    SerializedEFabricResult::serialize(&stream, &verdict);
    EXPECT_EQ(stream.all, (std::vector<std::string>{"msr.triggered sl 0\n", "msr.modified sl 0\n", "msr.sr.result\n",
                                                    "infectionlist " + Wide(L"abc"), "cleanstatus sl 0\n",
                                                    "errorstatus sl 0\n", "classname ss 2\nAV", "infecteditems sl 0\n",
                                                    "property .t ss " + Wide(L"x"), "\n", "\n"}));
    EXPECT_EQ(stream.vectored, stream.all.size()) << "pieces are not copied together";
}

TEST(WriteVerdict, OfNothingIsNothing) {
    Writes stream;
    SerializedEFabricResult::serialize(&stream, static_cast<IScanResultHandler const*>(nullptr));
    SerializedEFabricResult::serialize(&stream, "p", static_cast<IKORPropertyBag const*>(nullptr));
    SerializedEFabricResult::serialize(&stream, "p", static_cast<IKORScanPolContextElement const*>(nullptr));
    EXPECT_EQ(stream.text(), "");
    FakeVerdict const verdict;
    FakeComponent const place;
    KORPropertyBag const bag;
    SerializedEFabricResult::serialize(nullptr, &verdict);
    SerializedEFabricResult::serialize(nullptr, "p", &place);
    SerializedEFabricResult::serialize(nullptr, "p", &bag);
    FakeResult bare;
    bare.hasBag = false;
    FakeVerdict withBare;
    withBare.results = {&bare};
    EXPECT_EQ(Written(withBare),
              "msr.triggered sl 0\nmsr.modified sl 0\nmsr.sr.result\ninfectionlist 0\ncleanstatus sl 0\n"
              "errorstatus sl 0\ninfecteditems sl 0\n\n\n");
}

TEST(WritePlace, StandsUnderItsName) {
    FakeComponent place;
    place.place = L"a b";
    Writes named, bare;
    SerializedEFabricResult::serialize(&named, "where", &place);
    EXPECT_EQ(named.text(), "where scan_context_string " + Wide(L"a b") + "where scan_context_component_name 0\n");
    SerializedEFabricResult::serialize(&bare, "", &place);
    EXPECT_EQ(bare.text(), "scan_context_string " + Wide(L"a b") + "scan_context_component_name 0\n");
}

TEST(WritePlace, IsCutWhereTheBufferEnds) {
    for (std::size_t length : {398, 399, 400, 401, 1000}) {
        FakeComponent place;
        place.place = std::wstring(length, L'x');
        Writes stream;
        SerializedEFabricResult::serialize(&stream, "", &place);
        EXPECT_EQ(stream.all[0], "scan_context_string " + Wide(std::wstring(std::min<std::size_t>(length, 399), L'x')));
    }
    FakeComponent const without;  // writes nothing into the buffer
    Writes stream;
    SerializedEFabricResult::serialize(&stream, "", &without);
    EXPECT_EQ(stream.all[0], "scan_context_string 0\n");
}

TEST(WriteProperties, HaveTheirTypesInOrderOfMaking) {
    KORPropertyBag bag;
    bag.NewProperty("text")->SetWide(L"w\x20ac");
    bag.NewProperty("long")->SetLong(std::numeric_limits<long>::min());
    bag.NewProperty("unset");
    bag.NewProperty("natural")->SetULong(std::numeric_limits<unsigned long>::max());
    bag.NewProperty("real")->SetDouble(-2.5);
    EXPECT_EQ(Written(bag), "p.text ss " + Wide(L"w\x20ac") +
                                "p.long sl -9223372036854775808\np.natural sL 18446744073709551615\n"
                                "p.real sf -2.500000\n\r\n");
    EXPECT_EQ(Written(KORPropertyBag()), "\r\n");
}

TEST(WriteProperties, OfSeveralElementsAreALineForEach) {
    KORPropertyBag bag;
    for (long value : {3, 1, 2})
        bag.GetProperty("l") ? bag.GetProperty("l")->AddLong(value) : bag.NewProperty("l")->AddLong(value);
    IKORProperty& one = *bag.NewProperty("one");
    one.AddWide(L"a");
    IKORProperty& texts = *bag.NewProperty("t");
    texts.AddWide(L"b");
    texts.AddWide(L"");
    IKORProperty& naturals = *bag.NewProperty("n");
    naturals.AddULong(1);
    naturals.AddULong(2);
    IKORProperty& reals = *bag.NewProperty("r");
    reals.AddDouble(1);
    reals.AddDouble(2);
    EXPECT_EQ(Written(bag), "p.l ml 3\np.l ml 1\np.l ml 2\np.one ss " + Wide(L"a") + "p.t ms " + Wide(L"b") +
                                "p.t ms 0\np.n mL 1\np.n mL 2\np.r mf 1.000000\np.r mf 2.000000\n\r\n");
}

TEST(WriteProperties, WithoutAnElementLeaveNothing) {
    KORPropertyBag bag, again;
    bag.NewProperty("none");
    EXPECT_EQ(Written(bag), "\r\n");
    ReadBack(bag, again);
    EXPECT_EQ(again.Size(), 0);
}

TEST(WriteProperties, AnEmptyTextIsACountAndTheNextLineFollows) {
    KORPropertyBag bag, again;
    bag.NewProperty("e")->SetWide(L"");
    bag.NewProperty("n")->SetLong(1);
    EXPECT_EQ(Written(bag), "p.e ss 0\np.n sl 1\n\r\n");
    ReadBack(bag, again);
    EXPECT_STREQ(PropertyOf(again, "e")->GetWide(), L"");
    EXPECT_EQ(LongOf(again, "n"), 1);
}

// Both ends have to be of one kind: nothing in the form says which.
TEST(WriteProperties, WideTextHasTheOrderOfThisMachine) {
    KORPropertyBag bag;
    bag.NewProperty("t")->SetWide(L"\x10123");
    wchar_t const one = L'\x10123';
    std::array<char, sizeof one> bytes;
    std::memcpy(bytes.data(), &one, sizeof one);
    EXPECT_EQ(Written(bag), "p.t ss 1\n" + std::string(bytes.data(), bytes.size()) + "\r\n");
    std::string const low = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? "\x23" : std::string(1, '\0');
    EXPECT_EQ(Written(bag).substr(9, 1), low);
}

// Half of a pair and numbers beyond all characters too: they are numbers on the wire, and nobody's to mend.
TEST(WriteProperties, WideTextIsRawWhateverItHolds) {
    std::wstring const odd{L'a', static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000),
                           static_cast<wchar_t>(-1)};
    FakeResult result;
    result.infections = odd;
    result.bag.NewProperty("t")->SetWide(odd.c_str());
    BagIn(result.bag, "QX_PROPERTIES").NewProperty("QX_SYSTEM_NAME")->SetWide(odd.c_str());
    FakeVerdict verdict;
    verdict.results = {&result};
    Verdict const read = Read(Written(verdict));
    ASSERT_NE(read, nullptr);
    long position = 0;
    IKORScanResult const& again = *read->FindFirstScanResult(position);
    EXPECT_EQ(again.GetInfectionList(L' '), odd);
    EXPECT_EQ(PropertyOf(*again.GetPropertyBag(), "t")->GetWide(), odd);
    IKORPropertyBag const& inner = *PropertyOf(*again.GetPropertyBag(), "QX_PROPERTIES")->GetBag();
    EXPECT_EQ(inner.GetProperty("QX_SYSTEM_NAME")->GetWide(), L"_" + odd);
}

TEST(WriteProperties, OneBagHasAnIndexAndStaysOne) {
    KORPropertyBag bag, again;
    BagIn(bag, "b").NewProperty("x")->SetLong(1);
    BagIn(BagIn(bag, "c"), "d").NewProperty("y")->SetLong(2);
    EXPECT_EQ(Written(bag), "p.b<0>.x sl 1\np.c<0>.d<0>.y sl 2\n\r\n");
    ReadBack(bag, again);
    EXPECT_EQ(PropertyOf(again, "b")->GetCount(), 1u);
    EXPECT_EQ(LongOf(*PropertyOf(again, "b")->GetBag(), "x"), 1);
    EXPECT_EQ(LongOf(*PropertyOf(*PropertyOf(again, "c")->GetBag(), "d")->GetBag(), "y"), 2);
    EXPECT_EQ(Written(again), Written(bag));
}

TEST(WriteProperties, SeveralBagsHaveNoIndexAndMergeWhenTheyAreRead) {
    KORPropertyBag bag, again;
    IKORProperty& several = *bag.NewProperty("b");
    for (long number : {1, 2, 3}) {
        auto* const one = new KORPropertyBag;
        one->NewProperty("s")->SetLong(number);
        if (number == 2) one->NewProperty("two")->SetLong(22);
        one->NewProperty("m")->AddLong(number * 10);
        one->GetProperty("m")->AddLong(number * 10 + 1);
        several.AddBag(one);
    }
    EXPECT_EQ(Written(bag),
              "p.b.s sl 1\np.b.m ml 10\np.b.m ml 11\np.b.s sl 2\np.b.two sl 22\np.b.m ml 20\np.b.m ml 21\n"
              "p.b.s sl 3\np.b.m ml 30\np.b.m ml 31\n\r\n");
    ReadBack(bag, again);
    ASSERT_EQ(PropertyOf(again, "b")->GetCount(), 1u);
    IKORPropertyBag const& merged = *PropertyOf(again, "b")->GetBag();
    EXPECT_EQ(LongOf(merged, "s"), 3);
    EXPECT_EQ(LongOf(merged, "two"), 22);
    EXPECT_EQ(PropertyOf(merged, "m")->GetCount(), 6u);
}

TEST(WriteProperties, ANameThatWouldEndItsLineIsLeftOut) {
    KORPropertyBag bag;
    for (char const* name : {"a b", "a\nb", "\ta", "a\r", "\x01"}) {
        bag.NewProperty(name)->SetLong(1);
        BagIn(bag, (std::string(name) + "bag").c_str()).NewProperty("x")->SetLong(1);
    }
    bag.NewProperty("")->SetLong(2);
    bag.NewProperty("\xc3\xa4")->SetLong(3);
    EXPECT_EQ(Written(bag), "p. sl 2\np.\xc3\xa4 sl 3\n\r\n");
}

TEST(WriteProperties, WithoutASectionsNameHaveNoPointInFront) {
    KORPropertyBag bag;
    bag.NewProperty("a")->SetLong(1);
    BagIn(bag, "b").NewProperty("c")->SetLong(2);
    EXPECT_EQ(Written(bag, ""), "a sl 1\n.b<0>.c sl 2\n\r\n");
}

TEST(WriteProperties, AreWrittenAsDeepAsTheyAreRead) {
    KORPropertyBag bag, again;
    KORPropertyBag* deepest = &bag;
    for (unsigned depth = 1; depth < results::kMostSegments + 10; ++depth) {
        deepest->NewProperty("x")->SetLong(depth);
        deepest = &BagIn(*deepest, "b");
    }
    ReadBack(bag, again);
    unsigned depth = 1;
    IKORPropertyBag const* at = &again;
    for (; PropertyOf(*at, "b"); ++depth) at = PropertyOf(*at, "b")->GetBag();
    EXPECT_EQ(depth, results::kMostSegments);
    EXPECT_EQ(LongOf(*at, "x"), static_cast<long>(results::kMostSegments));
    EXPECT_EQ(Written(again), Written(bag));
}

// A host's bag may answer with itself.
TEST(WriteProperties, ABagThatHoldsItselfComesToAnEnd) {
    class Loop : public KORPropertyBag {
    public:
        Loop() {
            IKORProperty& both = *KORPropertyBag::NewProperty("b");
            both.AddBag(new Mirror(*this));
            both.AddBag(new Mirror(*this));
        }

    private:
        class Mirror : public KORPropertyBag {
        public:
            using KORPropertyBag::GetProperty;
            explicit Mirror(Loop const& loop) : m_loop(loop) {}
            IKORProperty const* GetProperty(long index) const override { return m_loop.GetProperty(index); }
            long Size() const override { return 1; }

        private:
            Loop const& m_loop;
        };
    };
    EXPECT_EQ(Written(Loop()), "\r\n");
}

TEST(WriteProperties, ForeignOnesGiveWhatTheyHave) {
    struct Odd : KORPropertyBag {
        using KORPropertyBag::GetProperty;
        IKORProperty const* GetProperty(long index) const override {
            return index == 0 ? nullptr : KORPropertyBag::GetProperty(index);
        }
    } bag;
    bag.NewProperty("a")->SetLong(1);
    bag.NewProperty("b")->SetLong(2);
    EXPECT_EQ(Written(bag), "p.b sl 2\n\r\n");
}

TEST(WriteProperties, NumbersAreThoseOfNoLocale) {
    TempRoot const root;
    std::string const made = "localedef -i de_DE -f UTF-8 " + (root / "de_DE.UTF-8") + " >/dev/null 2>&1";
    [[maybe_unused]] int const ignored = std::system(made.c_str());
    ::setenv("LOCPATH", std::string(root / "").c_str(), 1);
    char const* const german = std::setlocale(LC_ALL, "de_DE.UTF-8");
    KORPropertyBag bag, again;
    IKORProperty& reals = *bag.NewProperty("r");
    for (double value : {1234567.125, 1e-9, -0.0, 1e22, std::numeric_limits<double>::infinity()})
        reals.AddDouble(value);
    bag.NewProperty("most")->SetDouble(std::numeric_limits<double>::max());
    std::string const text = Written(bag);
    EXPECT_EQ(text.substr(0, text.find("p.most")),
              "p.r mf 1234567.125000\np.r mf 0.000000\np.r mf -0.000000\np.r mf 10000000000000000000000.000000\n"
              "p.r mf inf\n");
    ReadBack(bag, again);
    double value = 0;
    PropertyOf(again, "r")->GetDouble(value);
    EXPECT_EQ(value, 1234567.125);
    PropertyOf(again, "most")->GetDouble(value);
    EXPECT_EQ(value, std::numeric_limits<double>::max());
    std::setlocale(LC_ALL, "C");
    if (!german) GTEST_SKIP() << "this machine has no locale with another point";
}

// --- the worked examples of docs/formats/serialised-result.md ---

TEST(WrittenExample, OfAVerdictIsTrue) {
    std::string bytes;
    std::istringstream lines(DocExample(DOCS "/formats/serialised-result.md", "hex"));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream codes(line.substr(4));
        for (int code; codes >> std::hex >> code;) bytes += static_cast<char>(code);
    }
    FakeComponent place;
    place.place = L"Object";
    place.name = L"a";
    FakeResult result;
    result.infections = L"Eicar";
    result.className = "AV";
    result.infected = 1;
    result.component = &place;
    result.bag.NewProperty("E_SR_TYPE")->SetULong(1);
    BagIn(result.bag, "QX_PROPERTIES").NewProperty("QX_ENGINE")->SetNarrow("5");
    FakeVerdict verdict;
    verdict.triggered = true;
    verdict.action = "BLOCK";
    verdict.master = &result;
    EXPECT_EQ(Written(verdict), bytes);
    bool ended = false;
    EXPECT_NE(Read(bytes, &ended), nullptr);
    EXPECT_TRUE(ended);
}

TEST(WrittenExample, OfASectionIsTrue) {
    KORPropertyBag bag, again;
    bag.NewProperty("ES_CONTEXT_SMTP")->SetLong(1);
    IKORProperty& sizes = *bag.NewProperty("SIZES");
    for (unsigned long size : {512, 1024}) sizes.AddULong(size);
    IKORProperty& rules = *bag.NewProperty("RULE");
    for (double score : {2.5, 4.0}) {
        rules.AddBag(nullptr);
        rules.GetBagAt(rules.GetCount() - 1)->NewProperty("score")->SetDouble(score);
    }
    BagIn(bag, "ES_SCANRESSUBSTITUTIONS").NewProperty("PORT")->SetLong(25);
    std::string const shown = DocExample(DOCS "/formats/serialised-result.md", "section");
    EXPECT_EQ(Written(bag, "scan_properties"), shown.substr(0, shown.size() - 1) + "\r\n");
    Text source(shown);
    bool ended = false;
    SerializedEFabricResult::deserialize(&source.stream, "scan_properties", again, &ended);
    EXPECT_TRUE(ended);
    EXPECT_EQ(PropertyOf(again, "RULE")->GetCount(), 1u);
}

// --- dumps ---

namespace {

class DumpedVerdict : public testing::Test {
protected:
    DumpedVerdict() {
        result.infections = L"Eicar";
        result.className = "AV";
        verdict.triggered = true;
        verdict.master = &result;
    }
    std::string File() { return room.Read("dump"); }
    int Dump() { return SerializedEFabricResult::dump((room / "dump").c_str(), &verdict); }

    SpoolRoom room;
    FakeResult result;
    FakeVerdict verdict;
};

}  // namespace

TEST_F(DumpedVerdict, IsAFileThatReadsAsTheVerdict) {
    EXPECT_EQ(Dump(), 0);
    EXPECT_EQ(File(), Written(verdict));
    bool ended = false;
    Verdict const read = Read(File(), &ended);
    ASSERT_NE(read, nullptr);
    EXPECT_TRUE(ended);
    EXPECT_STREQ(read->GetMasterScanResult()->GetInfectionList(L' '), L"Eicar");
}

// From memory where the file fits in, and otherwise from the file, with a buffer shorter than its texts.
TEST_F(DumpedVerdict, ReadsBackFromItsFile) {
    result.infections = std::wstring(3000, L'x');
    ASSERT_EQ(Dump(), 0);
    for (unsigned const memory : {64u, 1024u, 65536u}) {
        room.Use(memory);
        ScannerStream file("again", false);
        ASSERT_EQ(file.spool_from_disk((room / "dump").c_str()), 0);
        bool ended = false;
        Verdict const read(SerializedEFabricResult::deserialize(&file, &ended));
        ASSERT_NE(read, nullptr) << memory;
        EXPECT_TRUE(ended) << memory;
        EXPECT_EQ(read->GetMasterScanResult()->GetInfectionList(L' '), *result.infections) << memory;
    }
}

TEST_F(DumpedVerdict, MayBeGreaterThanMemory) {
    result.infections = std::wstring(100000, L'x');
    EXPECT_EQ(Dump(), 0);
    EXPECT_EQ(File(), Written(verdict));
    EXPECT_EQ(SerializedEFabricResult::dump((room / "none").c_str(), nullptr), 0);
    EXPECT_EQ(room.Read("none"), "");
}

TEST_F(DumpedVerdict, ThatCannotBeWrittenSaysSo) {
    EXPECT_EQ(SerializedEFabricResult::dump((room / "no/such/folder").c_str(), &verdict), -1);
    result.infections = std::wstring(100000, L'x');
    std::string gone = room / "gone/";
    ScannerStream::s_spooldir = gone;  // what does not fit into memory has no place
    EXPECT_EQ(Dump(), -1);
    std::string const head = "msr.triggered sl 1\nmsr.modified sl 0\n";
    EXPECT_EQ(File().substr(0, head.size()), head) << "what there was room for";
    EXPECT_LT(File().size(), Written(verdict).size());
}
