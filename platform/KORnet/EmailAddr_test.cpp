#include <KORnet/EmailAddr.h>

#include <gtest/gtest.h>

#include <string>

namespace {

std::string Plain(std::string const& text, bool lower = true) { return KORnet::EmailAddr(text).asPlainString(lower); }

TEST(EmailAddrs, LowerTheDomainAlone) {
    EXPECT_EQ(Plain("Joe.User@Example.TEST"), "Joe.User@example.test");
    EXPECT_EQ(Plain("Joe.User@Example.TEST", false), "Joe.User@Example.TEST");
}

TEST(EmailAddrs, AreFoundInTheirSurroundings) {
    struct Row {
        char const* text;
        char const* plain;
    };
    constexpr Row kRows[] = {
        {"<a@b>", "a@b"},
        {" a@b ", "a@b"},
        {"Name <a@b>", "a@b"},
        {"\"Last, First <x@y>\" <a@b>", "a@b"},
        {"a@b (the boss)", "a@b"},
        {"(one (nested)) <a@b>", "a@b"},
        {"<@relay,@other:a@b>", "a@b"},
        {"<a@b", "a@b"},
        {"<>", ""},
        {"", ""},
        {"postmaster", "postmaster"},
        {"<postmaster>", "postmaster"},
        {"\"joe\"@x", "joe@x"},
        {"\"j\\oe\"@x", "joe@x"},
        {"\"joe user\"@x", "\"joe user\"@x"},
        {"\"a@b\"@x", "\"a@b\"@x"},
        {"\"a..b\"@x", "\"a..b\"@x"},
        {"\"\"@x", "\"\"@x"},
        {"a@b@c", "a@b@c"},
        {"a@", "a"},
        {"a(open@b", "a(open@b"},
        {"a\"b@c", "a\"b@c"},
    };
    for (Row const& row : kRows) EXPECT_EQ(Plain(row.text), row.plain) << row.text;
}

TEST(EmailAddrs, PartAtTheLastAt) {
    KORnet::EmailAddr const address("a@b@C");
    EXPECT_EQ(address.local(), "a@b");
    EXPECT_EQ(address.domain(), "C");
}

TEST(EmailAddrs, TakeAnyBytes) {
    for (int c = 0; c < 256; ++c) {
        for (int d = 0; d < 256; d += 7) {
            std::string const text = {static_cast<char>(c), static_cast<char>(d), '@', static_cast<char>(d)};
            EXPECT_LE(Plain(text).size(), text.size());
        }
    }
}

}  // namespace
