#include <gtest/gtest.h>

#include <string>

#include <policyloader/store/InternPool.h>
#include <policyloader/store/Value.h>

namespace policyloader {
namespace {

struct UnsignedCase {
    char const* text;
    bool taken;
    unsigned value;
};
constexpr UnsignedCase UnsignedCases[] = {
    {"0", true, 0},           {"60", true, 60},
    {"007", true, 7},         {"4294967295", true, 4294967295U},
    {"4294967296", false, 0}, {"-1", false, 0},
    {"+1", false, 0},         {"", false, 0},
    {" 1", false, 0},         {"1 ", false, 0},
    {"0x10", false, 0},       {"1.0", false, 0},
    {"1e3", false, 0},        {"99999999999999999999", false, 0},
};

TEST(StoreValues, ReadUnsignedNumbersInDecimal) {
    for (auto const& [text, taken, expected] : UnsignedCases) {
        unsigned value = 77;
        EXPECT_EQ(Value::Scalar(text).getUnsigned(&value), taken) << text;
        EXPECT_EQ(value, taken ? expected : 77U) << text;
    }
}

struct IntCase {
    char const* text;
    bool taken;
    int value;
};
constexpr IntCase IntCases[] = {
    {"-3", true, -3},
    {"+3", true, 3},
    {"2147483647", true, 2147483647},
    {"2147483648", false, 0},
    {"-2147483648", true, -2147483647 - 1},
    {"-2147483649", false, 0},
    {"+-3", false, 0},
    {"-", false, 0},
    {"+", false, 0},
    {"--3", false, 0},
    {"3x", false, 0},
};

TEST(StoreValues, ReadNumbersWithASign) {
    for (auto const& [text, taken, expected] : IntCases) {
        int value = 77;
        EXPECT_EQ(Value::Scalar(text).getInt(&value), taken) << text;
        EXPECT_EQ(value, taken ? expected : 77) << text;
    }
}

TEST(StoreValues, ReadFlagsByFourPairsOfWords) {
    for (auto const* const text : {"1", "true", "yes", "on", "True", "YES"}) {
        bool value = false;
        EXPECT_TRUE(Value::Scalar(text).getBool(&value)) << text;
        EXPECT_TRUE(value) << text;
    }
    for (auto const* const text : {"0", "false", "no", "off", "OFF"}) {
        bool value = true;
        EXPECT_TRUE(Value::Scalar(text).getBool(&value)) << text;
        EXPECT_FALSE(value) << text;
    }
    for (auto const* const text : {"", "2", "t", "truely", "-1", "01"}) {
        bool value = true;
        EXPECT_FALSE(Value::Scalar(text).getBool(&value)) << text;
    }
}

TEST(StoreValues, GiveAnyScalarAsText) {
    char const* text = nullptr;
    EXPECT_TRUE(Value::Scalar("60").getString(&text));
    EXPECT_STREQ(text, "60");
    EXPECT_TRUE(Value::Scalar("").getString(&text));
    EXPECT_STREQ(text, "");
    EXPECT_EQ(Value::Scalar("5.5").real(), 5.5);
    EXPECT_EQ(Value::Scalar("-1e2").real(), -100);
    EXPECT_FALSE(Value::Scalar("inf").real());
    EXPECT_FALSE(Value::Scalar("5,5").real());
}

TEST(StoreValues, AScalarAskedAsAListIsItsOnlyElement) {
    auto const value = Value::Scalar("25");
    EXPECT_EQ(value.size(), 1U);
    EXPECT_EQ(value.at(0), &value);
    EXPECT_EQ(value.at(1), nullptr);
}

TEST(StoreValues, AListHasNoScalarForm) {
    std::vector<Value> items;
    items.push_back(Value::Scalar("1"));
    auto const list = Value::List(std::move(items));
    int i = 0;
    unsigned u = 0;
    bool b = false;
    char const* text = nullptr;
    eFabric::ProductAlertValue alert{};
    EXPECT_FALSE(list.getInt(&i) || list.getUnsigned(&u) || list.getBool(&b) || list.getString(&text) ||
                 list.getAlert(&alert));
    ASSERT_EQ(list.size(), 1U);
    EXPECT_TRUE(list.at(0)->getInt(&i));
    EXPECT_EQ(list.at(1), nullptr);
    EXPECT_EQ(Value::List({}).size(), 0U);
    EXPECT_EQ(Value::List({}).at(0), nullptr);
}

TEST(StoreValues, APlainTextIsAnAlertWithoutHeaderAndFooter) {
    eFabric::ProductAlertValue alert{};
    EXPECT_TRUE(Value::Scalar("gr\xC3\xBC\xC3\x9F").getAlert(&alert));
    EXPECT_STREQ(alert.body, L"gr\u00FC\u00DF");
    EXPECT_EQ(alert.header, nullptr);
    EXPECT_EQ(alert.footer, nullptr);
}

TEST(Interning, MakesEqualTextsEqualPointers) {
    auto& pool = InternPool::process();
    std::string const one = "BindPorts", two = "BindPorts";
    EXPECT_EQ(pool.intern(one), pool.intern(two));
    EXPECT_NE(pool.intern("a").c_str(), pool.intern("b").c_str());
    EXPECT_STREQ(pool.intern("").c_str(), "");
    EXPECT_EQ(pool.internWide(L"x"), pool.internWide(L"x"));
}

TEST(Interning, KeepsOneCopy) {
    auto& pool = InternPool::process();
    pool.intern("once");
    auto const before = pool.size();
    pool.intern("once");
    EXPECT_EQ(pool.size(), before);
}

}  // namespace
}  // namespace policyloader
