#include <KORlog/InfoBag.h>

#include <gtest/gtest.h>

#include <ctime>
#include <string>

namespace {

using KORlog::InfoBag;
using KORlog::Key;
using KORlog::Value;

constexpr Key kOne{"one"}, kTwo{"two"}, kNested{"nested"};

template <class T>
T Get(InfoBag const& bag, Key const& key) {
    Value const* const value = bag.find(key);
    if (!value || !std::holds_alternative<T>(*value)) throw std::runtime_error("no such value");
    return std::get<T>(*value);
}

TEST(InfoBags, KeepTheOrderInWhichPairsCame) {
    InfoBag bag = kTwo(2) | kOne(1);
    bag |= kNested("x");
    ASSERT_EQ(bag.size(), 3u);
    EXPECT_STREQ(bag.items()[0].key, "two");
    EXPECT_STREQ(bag.items()[1].key, "one");
    EXPECT_STREQ(bag.items()[2].key, "nested");
}

TEST(InfoBags, AreSets) {
    InfoBag bag = kOne(1) | kOne(1);
    EXPECT_EQ(bag.size(), 1u);
    bag |= kOne(2);
    EXPECT_EQ(bag.size(), 2u);
    EXPECT_EQ(Get<long>(bag, kOne), 1);  // the first of the name
    bag |= kNested(kOne(1));
    bag |= kNested(InfoBag(kOne(1)));
    EXPECT_EQ(bag.size(), 3u);
}

TEST(InfoBags, JoinWithBagsAndPairsOnEitherSide) {
    InfoBag const left = kOne(1), right = kTwo(2);
    EXPECT_EQ((left | right).size(), 2u);
    EXPECT_EQ(kOne(1) | right, left | right);
    EXPECT_EQ(left | kTwo(2), left | right);
    InfoBag self = left;
    InfoBag const& same = self;
    self |= same;
    EXPECT_EQ(self, left);
}

TEST(InfoBags, StoreEachKindOfValueInItsForm) {
    EXPECT_EQ(Get<long>(kOne(-5), kOne), -5);
    EXPECT_EQ(Get<long>(kOne(true), kOne), 1);
    EXPECT_EQ(Get<long>(kOne(std::time_t{77}), kOne), 77);
    EXPECT_EQ(Get<long>(kOne(static_cast<short>(-1)), kOne), -1);
    EXPECT_EQ(Get<unsigned long>(kOne(5u), kOne), 5u);
    EXPECT_EQ(Get<unsigned long>(kOne(~0ul), kOne), ~0ul);
    EXPECT_EQ(Get<unsigned short>(kOne(static_cast<unsigned short>(25)), kOne), 25);
    EXPECT_EQ(Get<double>(kOne(2.5), kOne), 2.5);
    EXPECT_EQ(Get<std::string>(kOne("text"), kOne), "text");
    EXPECT_EQ(Get<std::string>(kOne(std::string("text")), kOne), "text");
    EXPECT_EQ(Get<std::string>(kOne(static_cast<char const*>(nullptr)), kOne), "");
    EXPECT_EQ(Get<KORtk::Utf8Array>(kOne(L"\xe9"), kOne).str(), "\xc3\xa9");
    EXPECT_EQ(Get<KORtk::Utf8Array>(kOne(std::wstring(L"w")), kOne).str(), "w");
}

TEST(InfoBags, NestWithoutLimit) {
    InfoBag const bag = kNested(kOne(1) | kNested(kTwo("deep")));
    auto const outer = Get<std::shared_ptr<InfoBag const>>(bag, kNested);
    auto const inner = Get<std::shared_ptr<InfoBag const>>(*outer, kNested);
    EXPECT_EQ(Get<std::string>(*inner, kTwo), "deep");
}

TEST(InfoBags, TakeWhatAReferenceShowsWhenThePairIsMade) {
    std::string text = "before";
    InfoBag const bag = kOne(KORlog::Ref(text));
    text = "after";
    EXPECT_EQ(Get<std::string>(bag, kOne), "before");
}

TEST(InfoBags, DoNotFindWhatIsNotThere) {
    EXPECT_EQ(InfoBag().find("one"), nullptr);
    EXPECT_EQ(InfoBag(kOne(1)).find("on"), nullptr);
}

}  // namespace
