#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include <eFabric/DynBuf.h>
#include <eFabric/Property.h>
#include <eFabric/ScanTime.h>

namespace {

class Bag : public ::testing::Test {
protected:
    IKORProperty& Make(char const* name) { return *bag.NewProperty(name); }
    std::string Narrow(char const* name) const {
        auto const* const property = bag.GetProperty(name);
        return property && property->GetNarrow() ? property->GetNarrow() : "(none)";
    }
    KORPropertyBag bag;
};

TEST_F(Bag, StartsEmpty) {
    EXPECT_EQ(bag.Size(), 0);
    EXPECT_EQ(bag.GetProperty("a"), nullptr);
    EXPECT_EQ(bag.GetProperty(0L), nullptr);
    EXPECT_FALSE(bag.DeleteProperty("a"));
    EXPECT_FALSE(bag.DeleteProperty(0L));
}

TEST_F(Bag, KeepsPropertiesInOrderOfMaking) {
    Make("b"), Make("a"), Make("c");
    ASSERT_EQ(bag.Size(), 3);
    EXPECT_STREQ(bag.GetProperty(0L)->GetName(), "b");
    EXPECT_STREQ(bag.GetProperty(2L)->GetName(), "c");
    EXPECT_EQ(bag.GetProperty(3L), nullptr);
    EXPECT_EQ(bag.GetProperty(-1L), nullptr);
    EXPECT_EQ(bag.GetProperty(LONG_MIN), nullptr);
}

TEST_F(Bag, ComparesNamesByteForByte) {
    Make("Name").SetNarrow("x");
    EXPECT_EQ(bag.GetProperty("name"), nullptr);
    EXPECT_EQ(bag.GetProperty("Nam"), nullptr);
    EXPECT_EQ(bag.GetProperty(static_cast<char const*>(nullptr)), nullptr);
    EXPECT_EQ(bag.NewProperty(nullptr), nullptr);
}

TEST_F(Bag, EmptiesAndReturnsAPropertyOfAKnownName) {
    auto& first = Make("ES_FORCEDHOST");
    first.SetNarrow("KORHTTPScan");
    auto& again = Make("ES_FORCEDHOST");
    EXPECT_EQ(&first, &again);
    EXPECT_EQ(again.GetType(), KORProp_None);
    EXPECT_EQ(again.GetCount(), 0U);
    EXPECT_EQ(bag.Size(), 1);
}

TEST_F(Bag, DeletesByNameAndByIndex) {
    Make("a"), Make("b"), Make("c");
    EXPECT_TRUE(bag.DeleteProperty("b"));
    EXPECT_TRUE(bag.DeleteProperty(0L));
    ASSERT_EQ(bag.Size(), 1);
    EXPECT_STREQ(bag.GetProperty(0L)->GetName(), "c");
    bag.Clear();
    EXPECT_EQ(bag.Size(), 0);
}

// However many there are: what is found, made and deleted by name is the same.
TEST_F(Bag, OfManyNamesIsAsOneOfFew) {
    auto const name = [](int i) { return "name" + std::to_string(i); };
    for (int count : {1, 63, 64, 65, 66, 1000}) {
        bag.Clear();
        for (int i = 0; i < count; ++i) Make(name(i).c_str()).SetLong(i);
        IKORProperty& again = Make(name(count / 2).c_str());
        EXPECT_EQ(again.GetType(), KORProp_None) << "one of this name was there";
        EXPECT_EQ(bag.Size(), count);
        EXPECT_EQ(bag.GetProperty(name(count).c_str()), nullptr);
        EXPECT_EQ(bag.GetProperty(static_cast<char const*>(nullptr)), nullptr);
        for (int i = 0; i < count; ++i) EXPECT_EQ(bag.GetProperty(name(i).c_str()), bag.GetProperty(long{i}));
        EXPECT_TRUE(bag.DeleteProperty(name(0).c_str()));
        EXPECT_FALSE(bag.DeleteProperty(name(0).c_str()));
        EXPECT_EQ(bag.GetProperty(name(0).c_str()), nullptr);
        EXPECT_EQ(bag.DeleteProperty(0L), count > 1);
        EXPECT_EQ(bag.GetProperty(name(1).c_str()), nullptr);
        IKORProperty* const last = bag.NewProperty(name(0).c_str());
        EXPECT_EQ(bag.GetProperty(bag.Size() - 1), last);
        EXPECT_EQ(bag.GetProperty(name(0).c_str()), last);
        KORPropertyBag const copy(bag);
        EXPECT_EQ(copy.Size(), bag.Size());
        EXPECT_EQ(copy.GetProperty(name(0).c_str()), copy.GetProperty(copy.Size() - 1));
    }
    for (long left = bag.Size(); left > 0; --left) EXPECT_TRUE(bag.DeleteProperty(left - 1));
    Make("b"), Make("a");
    EXPECT_EQ(bag.GetProperty("b"), bag.GetProperty(0L));
}

// The names are the wire's: ten times as many may not cost a hundred times as much.
TEST_F(Bag, FindsANameWithoutLookingAtAll) {
    auto const cost = [this](int count) {
        bag.Clear();
        std::clock_t const start = std::clock();
        for (int i = 0; i < count; ++i) Make(("property" + std::to_string(i)).c_str());
        return static_cast<double>(std::clock() - start);
    };
    double least[2] = {1e18, 1e18};
    for (int i = 0; i < 3; ++i) {
        least[0] = std::min(least[0], cost(4000));
        least[1] = std::min(least[1], cost(40000));
    }
    EXPECT_LT(least[1], 40 * least[0]);
}

TEST_F(Bag, MakesAPropertyWithAnEmptyBag) {
    auto* const property = bag.NewPropertyBagProperty("inner");
    ASSERT_EQ(property->GetType(), KORProp_Bag);
    ASSERT_NE(property->GetBag(), nullptr);
    EXPECT_EQ(property->GetBag()->Size(), 0);
}

TEST_F(Bag, GettersAreFalseForAnotherType) {
    Make("l").SetLong(-7);
    long l = 0;
    unsigned long u = 5;
    double d = 5;
    EXPECT_TRUE(bag.GetProperty("l")->GetLong(l));
    EXPECT_EQ(l, -7);
    EXPECT_FALSE(bag.GetProperty("l")->GetULong(u));
    EXPECT_FALSE(bag.GetProperty("l")->GetDouble(d));
    EXPECT_EQ(bag.GetProperty("l")->GetBag(), nullptr);
    EXPECT_EQ(u, 5U);
    EXPECT_EQ(d, 5);
}

TEST_F(Bag, NumbersHaveDecimalTexts) {
    Make("l").SetLong(LONG_MIN);
    Make("u").SetULong(ULONG_MAX);
    Make("d").SetDouble(7.25);
    EXPECT_EQ(Narrow("l"), "-9223372036854775808");
    EXPECT_EQ(Narrow("u"), "18446744073709551615");
    EXPECT_EQ(Narrow("d"), "7.25");
    EXPECT_STREQ(bag.GetProperty("d")->GetWide(), L"7.25");
}

TEST_F(Bag, TextHasANarrowAndAWideForm) {
    Make("n").SetNarrow("gr\xC3\xBC\xC3\x9F");
    EXPECT_STREQ(bag.GetProperty("n")->GetWide(), L"gr\u00FC\u00DF");
    Make("w").SetWide(L"\u20AC");
    EXPECT_EQ(Narrow("w"), "\xE2\x82\xAC");
    Make("null").SetWide(nullptr);
    EXPECT_EQ(Narrow("null"), "");
}

// Half of a pair, and numbers beyond all characters: the wide form is raw when it crosses a wire.
TEST_F(Bag, TextIsKeptInTheFormInWhichItWasSet) {
    std::wstring const odd{L'a', static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000),
                           static_cast<wchar_t>(-1)};
    Make("w").SetWide(odd.c_str());
    Make("n").SetNarrow("a\xFF");
    KORPropertyBag const copy(bag);
    for (KORPropertyBag const& one : {bag, copy}) {
        EXPECT_EQ(one.GetProperty("w")->GetWide(), odd);
        EXPECT_STREQ(one.GetProperty("w")->GetNarrow(), "a\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
        EXPECT_STREQ(one.GetProperty("n")->GetNarrow(), "a\xFF");
        EXPECT_STREQ(one.GetProperty("n")->GetWide(), L"a\xFFFD");
    }
}

TEST_F(Bag, HasNoTextForABagOrForNothing) {
    bag.NewPropertyBagProperty("bag");
    Make("none");
    for (auto const* const name : {"bag", "none"}) {
        EXPECT_EQ(bag.GetProperty(name)->GetNarrow(), nullptr);
        EXPECT_EQ(bag.GetProperty(name)->GetWide(), nullptr);
    }
}

TEST_F(Bag, AddersAppendAndSettersReplace) {
    auto& p = Make("p");
    p.AddWide(L"one"), p.AddNarrow("two"), p.AddWide(L"three");
    ASSERT_EQ(p.GetCount(), 3U);
    EXPECT_STREQ(p.GetNarrowAt(2), "three");
    EXPECT_STREQ(p.GetWide(), L"one");
    EXPECT_EQ(p.GetWideAt(3), nullptr);
    p.SetNarrow("only");
    EXPECT_EQ(p.GetCount(), 1U);
}

TEST_F(Bag, AnAdderOfAnotherTypeStartsAfresh) {
    auto& p = Make("p");
    p.AddLong(1), p.AddLong(2);
    p.AddDouble(0.5), p.AddDouble(1.5);
    double d = 0;
    EXPECT_EQ(p.GetCount(), 2U);
    EXPECT_TRUE(p.GetDoubleAt(1, d));
    EXPECT_EQ(d, 1.5);
    EXPECT_FALSE(p.GetDoubleAt(2, d));
}

TEST_F(Bag, GivesEachElementOfEachType) {
    auto& p = Make("p");
    long l = 0;
    unsigned long u = 0;
    p.AddLong(1), p.AddLong(-2);
    EXPECT_TRUE(p.GetLongAt(1, l));
    EXPECT_EQ(l, -2);
    p.AddULong(3), p.AddULong(4);
    EXPECT_TRUE(p.GetULongAt(1, u));
    EXPECT_EQ(u, 4U);
    p.AddBag(nullptr), p.AddBag(nullptr);
    EXPECT_EQ(p.GetBag(), p.GetBagAt(0));
    EXPECT_NE(p.GetBagAt(1), p.GetBagAt(0));
    EXPECT_EQ(p.GetBagAt(2), nullptr);
}

TEST_F(Bag, ABagSetAgainStaysAlive) {
    auto& p = Make("p");
    auto* const inner = new KORPropertyBag;
    inner->NewProperty("x")->SetLong(1);
    p.SetBag(inner);
    p.SetBag(inner);
    EXPECT_EQ(p.GetBag(), inner);
    p.AddBag(inner);
    ASSERT_EQ(p.GetCount(), 1U);
    EXPECT_EQ(p.GetBag()->Size(), 1);
}

TEST_F(Bag, CopiesToAllDepths) {
    auto* const inner = bag.NewPropertyBagProperty("inner")->GetBag();
    inner->NewPropertyBagProperty("deep")->GetBag()->NewProperty("x")->SetNarrow("before");
    KORPropertyBag const copy(bag);
    inner->GetProperty("deep")->GetBag()->NewProperty("x")->SetNarrow("after");
    auto const* const deep = copy.GetProperty("inner")->GetBag()->GetProperty("deep")->GetBag();
    EXPECT_STREQ(deep->GetProperty("x")->GetNarrow(), "before");
    EXPECT_NE(copy.GetProperty("inner")->GetBag(), bag.GetProperty("inner")->GetBag());
}

TEST_F(Bag, CopiesEveryTypeAndElement) {
    auto& p = Make("t");
    p.AddNarrow("a"), p.AddWide(L"b");
    Make("l").AddLong(1);
    Make("u").AddULong(2);
    Make("d").AddDouble(0.1);
    Make("none");
    KORPropertyBag copy;
    copy = bag;
    ASSERT_EQ(copy.Size(), 5);
    EXPECT_STREQ(copy.GetProperty("t")->GetWideAt(1), L"b");
    double d = 0;
    EXPECT_TRUE(copy.GetProperty("d")->GetDouble(d));
    EXPECT_EQ(d, 0.1);
    EXPECT_EQ(copy.GetProperty("none")->GetType(), KORProp_None);
}

TEST_F(Bag, CopyPropertiesAppendsAndReplacesByName) {
    Make("same").SetNarrow("old"), Make("mine").SetLong(1);
    KORPropertyBag other;
    other.NewProperty("same")->SetNarrow("new");
    other.NewProperty("added")->SetLong(2);
    EXPECT_TRUE(bag.CopyProperties(&other));
    EXPECT_EQ(bag.Size(), 3);
    EXPECT_EQ(Narrow("same"), "new");
    EXPECT_FALSE(bag.CopyProperties(nullptr));
    EXPECT_TRUE(bag.CopyProperties(&bag));
    EXPECT_EQ(bag.Size(), 3);
}

TEST_F(Bag, CanBeReplacedByABagInsideIt) {
    auto* const inner = bag.NewPropertyBagProperty("inner")->GetBag();
    inner->NewProperty("inner")->SetNarrow("x");
    bag.CopyProperties(inner);
    EXPECT_EQ(Narrow("inner"), "x");
    auto* const again = static_cast<KORPropertyBag*>(bag.NewPropertyBagProperty("inner")->GetBag());
    again->NewProperty("y")->SetNarrow("z");
    bag = *again;
    EXPECT_EQ(Narrow("y"), "z");
    EXPECT_EQ(bag.Size(), 1);
}

// A bag that computes its content when it is read, and tells of a name twice.
class ForeignBag : public IKORPropertyBag {
public:
    IKORProperty* NewProperty(char const* n) override { return m.NewProperty(n); }
    IKORProperty* NewPropertyBagProperty(char const* n) override { return m.NewPropertyBagProperty(n); }
    bool CopyProperties(IKORPropertyBag const* b) override { return m.CopyProperties(b); }
    IKORProperty const* GetProperty(char const* n) const override { return m.GetProperty(n); }
    IKORProperty* GetProperty(char const* n) override { return m.GetProperty(n); }
    IKORProperty const* GetProperty(long i) const override { return m.GetProperty(i / 2); }
    IKORProperty* GetProperty(long i) override { return m.GetProperty(i / 2); }
    long Size() const override { return m.Size() * 2; }
    bool DeleteProperty(char const*) override { return false; }
    bool DeleteProperty(long) override { return false; }
    void Clear() override { m.Clear(); }
    void PropertiesHaveChanged(IKORProperty*, KORPropChange) override {}
    void SetEnableCallbacks(bool) override {}
    mutable KORPropertyBag m;
};

TEST_F(Bag, ReadsAForeignBagThroughItsInterface) {
    ForeignBag foreign;
    foreign.m.NewPropertyBagProperty("nested")->GetBag()->NewProperty("x")->SetLong(9);
    EXPECT_TRUE(bag.CopyProperties(&foreign));
    ASSERT_EQ(bag.Size(), 1);
    EXPECT_STREQ(bag.GetProperty("nested")->GetBag()->GetProperty("x")->GetNarrow(), "9");
}

TEST_F(Bag, IsDestroyedAndCopiedHoweverDeep) {
    IKORPropertyBag* level = &bag;
    for (int i = 0; i < 200000; ++i) level = level->NewPropertyBagProperty("next")->GetBag();
    {
        KORPropertyBag const copy(bag);
        EXPECT_EQ(copy.Size(), 1);
    }
    bag.Clear();
    EXPECT_EQ(bag.Size(), 0);
}

class WatchedBag : public KORPropertyBag {
public:
    void PropertiesHaveChanged(IKORProperty* property, KORPropChange change) override {
        seen.emplace_back(property ? property->GetName() : "", change);
    }
    std::vector<std::pair<std::string, KORPropChange>> seen;
};

TEST(BagCallbacks, AreOffAtFirst) {
    WatchedBag bag;
    bag.NewProperty("a")->SetLong(1);
    bag.Clear();
    EXPECT_TRUE(bag.seen.empty());
}

TEST(BagCallbacks, TellOfEachChange) {
    WatchedBag bag;
    bag.SetEnableCallbacks(true);
    bag.NewProperty("a")->SetLong(1);
    bag.GetProperty("a")->AddLong(2);
    bag.NewProperty("a");
    bag.DeleteProperty("a");
    bag.Clear();
    using C = KORPropChange;
    std::vector<std::pair<std::string, C>> const expected{{"a", C::Added},   {"a", C::Changed}, {"a", C::Changed},
                                                          {"a", C::Changed}, {"a", C::Deleted}, {"", C::Cleared}};
    EXPECT_EQ(bag.seen, expected);
    bag.SetEnableCallbacks(false);
    bag.NewProperty("b");
    EXPECT_EQ(bag.seen.size(), expected.size());
}

TEST(ScanTimes, HoldTheTimeAsGivenInEitherMode) {
    ScanTime time;
    EXPECT_EQ(time.Get(), 0);
    time.Set(1234567890, ST_LOCAL);
    EXPECT_EQ(time.Get(), 1234567890);
    time.Set(5, ST_UTC);
    ScanTime const copy(time);
    EXPECT_EQ(copy.Get(), 5);
}

TEST(ScanTimes, SetTakesThePresentTime) {
    std::time_t const before = std::time(nullptr);
    ScanTime time;
    time.Set();
    EXPECT_GE(time.Get(), before);
}

TEST(DynBufs, AppendTheirOwnContent) {
    DynBuf<wchar_t> buffer;
    buffer.append(L"ab", 2);
    buffer.append(buffer.data(), buffer.size());
    buffer.resize(5);
    EXPECT_EQ(std::wstring(buffer.data(), buffer.size()), std::wstring(L"abab\0", 5));
}

}  // namespace
