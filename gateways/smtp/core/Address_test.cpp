#include "core/Address.h"

#include <gtest/gtest.h>

namespace smtp {
namespace {

struct GoodPath {
    char const* text;
    PathKind kind;
    char const* mailbox;
    char const* rest;
};

constexpr GoodPath kGood[] = {
    {"<a@b>", PathKind::Forward, "a@b", ""},
    {"  <a@b> SIZE=1", PathKind::Reverse, "a@b", " SIZE=1"},
    {"<>", PathKind::Reverse, "", ""},
    {"<Postmaster>", PathKind::Forward, "Postmaster", ""},
    {"<@one.example,@two.example:joe@three.example>", PathKind::Forward, "joe@three.example", ""},
    {"<\"joe\"@example.test>", PathKind::Forward, "joe@example.test", ""},
    {"<\"joe blow\"@example.test>", PathKind::Forward, "\"joe blow\"@example.test", ""},
    {"<\"a>b\\\"c@d\"@example.test>", PathKind::Forward, "\"a>b\\\"c@d\"@example.test", ""},
    {"<a.b+c=d!e@x-1.example>", PathKind::Forward, "a.b+c=d!e@x-1.example", ""},
    {"<a@[192.0.2.1]>", PathKind::Forward, "a@[192.0.2.1]", ""},
    {"<a@[IPv6:2001:db8::1]>", PathKind::Forward, "a@[IPv6:2001:db8::1]", ""},
    {"<a@under_score.example>", PathKind::Forward, "a@under_score.example", ""},
};

struct BadPath {
    char const* text;
    PathKind kind;
    PathError error;
};

constexpr BadPath kBad[] = {
    {"", PathKind::Reverse, PathError::Syntax},
    {"a@b", PathKind::Reverse, PathError::Syntax},
    {"<a@b", PathKind::Reverse, PathError::Syntax},
    {"<", PathKind::Reverse, PathError::Syntax},
    {"<a b@c>", PathKind::Reverse, PathError::Syntax},
    {"<.a@b>", PathKind::Reverse, PathError::Syntax},
    {"<a.@b>", PathKind::Reverse, PathError::Syntax},
    {"<a..b@c>", PathKind::Reverse, PathError::Syntax},
    {"<@b>", PathKind::Reverse, PathError::Syntax},
    {"<@:a@b>", PathKind::Reverse, PathError::Syntax},
    {"<\"a@b>", PathKind::Reverse, PathError::Syntax},
    {"<\"a\\", PathKind::Reverse, PathError::Syntax},
    {"<a>", PathKind::Reverse, PathError::BadDomain},
    {"<a>", PathKind::Forward, PathError::BadDomain},
    {"<Postmaster>", PathKind::Reverse, PathError::BadDomain},
    {"<a@>", PathKind::Forward, PathError::BadDomain},
    {"<a@b..c>", PathKind::Forward, PathError::BadDomain},
    {"<a@-b>", PathKind::Forward, PathError::BadDomain},
    {"<a@b@c>", PathKind::Forward, PathError::BadDomain},
    {"<a@[1.2.3]>", PathKind::Forward, PathError::BadDomain},
    {"<a@[IPv6:1.2.3.4]>", PathKind::Forward, PathError::BadDomain},
    {"<>", PathKind::Forward, PathError::NullForbidden},
    {"<\xc3\xa4@b>", PathKind::Forward, PathError::NonAscii},
};

TEST(Path, IsReadAndCutOffTheFront) {
    for (GoodPath const& one : kGood) {
        std::string_view text = one.text;
        Mailbox box;
        EXPECT_EQ(ParsePath(text, one.kind, box), PathError::None) << one.text;
        EXPECT_EQ(box.str(), one.mailbox) << one.text;
        EXPECT_EQ(text, one.rest) << one.text;
        EXPECT_EQ(box.null, *one.mailbox == '\0') << one.text;
    }
}

TEST(Path, SaysWhatIsWrong) {
    for (BadPath const& one : kBad) {
        std::string_view text = one.text;
        Mailbox box;
        EXPECT_EQ(ParsePath(text, one.kind, box), one.error) << one.text;
    }
}

PathError ParseParts(std::size_t local, std::string const& domain) {
    std::string const text = "<" + std::string(local, 'l') + "@" + domain + ">";
    std::string_view view = text;
    Mailbox box;
    return ParsePath(view, PathKind::Forward, box);
}

TEST(Path, HasLimitsForItsParts) {
    std::string const label63 = std::string(63, 'd');
    EXPECT_EQ(ParseParts(64, "d"), PathError::None);
    EXPECT_EQ(ParseParts(65, "d"), PathError::TooLong);
    EXPECT_EQ(ParseParts(1, label63), PathError::None);
    EXPECT_EQ(ParseParts(1, label63 + "d"), PathError::BadDomain);
    std::string const longDomain = label63 + '.' + label63 + '.' + label63 + '.' + std::string(58, 'd');  // 250
    EXPECT_EQ(ParseParts(3, longDomain), PathError::None);
    EXPECT_EQ(ParseParts(4, longDomain), PathError::TooLong);
    EXPECT_EQ(ParseParts(1, std::string(256, 'd')), PathError::TooLong);
}

TEST(Parameters, AreKeywordsWithOrWithoutAValue) {
    std::vector<Parameter> found;
    ASSERT_TRUE(ParseParameters(" size=123  BODY=8BITMIME X-Flag ", found));
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0].keyword, "SIZE");
    EXPECT_EQ(found[0].value, "123");
    EXPECT_EQ(found[1].value, "8BITMIME");
    EXPECT_FALSE(found[2].hasValue);
}

TEST(Parameters, AreRefusedWhenMalformed) {
    std::vector<Parameter> found;
    for (char const* text : {"SIZE=1", " =1", " SIZE=", " SI_ZE=1", " A==b", " -A=1"}) {
        EXPECT_FALSE(ParseParameters(text, found)) << text;
    }
    EXPECT_TRUE(ParseParameters("", found));
}

TEST(HelloName, IsADomainOrALiteral) {
    for (char const* good : {"a", "mail.example", "[127.0.0.1]", "[IPv6:::1]"}) EXPECT_TRUE(IsHelloName(good)) << good;
    for (char const* bad : {"", "a b", ".a", "a.", "[x]", "a\r"}) EXPECT_FALSE(IsHelloName(bad)) << bad;
}

}  // namespace
}  // namespace smtp
