#include <gtest/gtest.h>

#include <velt/ldap/Escape.h>
#include <velt/ldap/LDAPDomainQuery.h>
#include <velt/ldap/LDAPServer.h>

namespace {

using VELT::escape_dn;
using VELT::escape_filter;
using VELT::LDAPDomainQuery;
using VELT::LDAPGroup;
using VELT::LDAPGroupQuery;
using VELT::LDAPServer;

using Names = std::vector<std::string>;

Names NamesOf(LDAPDomainQuery const& query) {
    Names names;
    for (char** one = query.getAttributes(); one && *one; ++one) names.emplace_back(*one);
    return names;
}

Names GroupsOf(LDAPGroupQuery const& query) {
    std::vector<LDAPGroup> groups;
    query.getStaticGroups(groups, "host");
    Names names;
    for (LDAPGroup const& one : groups) {
        EXPECT_EQ(one.name, one.id);
        names.push_back(one.name);
    }
    return names;
}

TEST(Templates, WithoutAColonAreAFilterAlone) {
    LDAPDomainQuery query;
    EXPECT_FALSE(query.isSet());
    EXPECT_STREQ(query.getQuery(), "");
    query.set("(mail=?)");
    EXPECT_TRUE(query.isSet());
    EXPECT_STREQ(query.getQuery(), "(mail=?)");
    EXPECT_EQ(query.getAttributes(), nullptr);
}

TEST(Templates, HoldTheFilterBeforeTheFirstColonAndTheNamesBehindIt) {
    LDAPDomainQuery query;
    query.set("(mail=?):memberOf,cn");
    EXPECT_STREQ(query.getQuery(), "(mail=?)");
    EXPECT_EQ(NamesOf(query), (Names{"memberOf", "cn"}));
    query.set("a:b:c");
    EXPECT_STREQ(query.getQuery(), "a");
    EXPECT_EQ(NamesOf(query), Names{"b:c"});
}

TEST(Templates, KeepBlanksInNamesAndFilter) {
    LDAPDomainQuery query;
    query.set(" mail=? : a, b ");
    EXPECT_STREQ(query.getQuery(), " mail=? ");
    EXPECT_EQ(NamesOf(query), (Names{" a", " b "}));
}

TEST(Templates, WithNothingBehindTheColonNameNoAttribute) {
    LDAPDomainQuery query;
    query.set("mail=?:");
    ASSERT_NE(query.getAttributes(), nullptr);
    EXPECT_EQ(NamesOf(query), Names{});
}

TEST(Templates, GrowOneNameAtATime) {
    LDAPDomainQuery query;
    query.addAttribute(0, "a");
    query.addAttribute(1, "b");
    query.addAttribute(2, nullptr);
    EXPECT_EQ(NamesOf(query), (Names{"a", "b"}));
}

TEST(GroupTemplates, OfStaticGroupsAloneSearchNothing) {
    LDAPGroupQuery query;
    query.set(":admins :staff");
    EXPECT_EQ(GroupsOf(query), (Names{"host.admins", "host.staff"}));
    EXPECT_FALSE(query.isSet());
}

TEST(GroupTemplates, MayHaveAFilterBehindStaticGroups) {
    LDAPGroupQuery query;
    query.set(":a\t :b  objectClass=groupOfNames:cn,description");
    EXPECT_EQ(GroupsOf(query), (Names{"host.a", "host.b"}));
    EXPECT_STREQ(query.getQuery(), "objectClass=groupOfNames");
    EXPECT_EQ(NamesOf(query), (Names{"cn", "description"}));
}

TEST(GroupTemplates, WithoutAStaticGroupAreAFilter) {
    LDAPGroupQuery query;
    query.set("x=y:cn");
    EXPECT_EQ(GroupsOf(query), Names{});
    EXPECT_STREQ(query.getQuery(), "x=y");
}

TEST(Filters, HaveTheValueAtEveryMark) {
    EXPECT_EQ(LDAPServer::build_query_string("(mail=?)", "a@b"), "(mail=a@b)");
    EXPECT_EQ(LDAPServer::build_query_string("(|(mail=?)(alias=?))", "x"), "(|(mail=x)(alias=x))");
    EXPECT_EQ(LDAPServer::build_query_string("(objectClass=*)", "x"), "(objectClass=*)");
    EXPECT_EQ(LDAPServer::build_query_string(nullptr, "x"), "");
    EXPECT_EQ(LDAPServer::build_query_string("?", "a?b"), "a?b");
}

// The star that asks for everybody comes through here, and so every other text, too.
TEST(Filters, TakeTheValueAsItStands) {
    EXPECT_EQ(LDAPServer::build_query_string("(mail=?)", "*)(x=y"), "(mail=*)(x=y)");
}

TEST(EscapedFilterValues, AreThemselvesWithoutSpecials) {
    for (char const* const text : {"", "ann@example.test", "a b#c,d=e\"<>", "gr\xc3\xbc\xc3\x9f"})
        EXPECT_EQ(escape_filter(text), text);
}

TEST(EscapedFilterValues, HaveEachSpecialInHexadecimal) {
    EXPECT_EQ(escape_filter("*()\\"), "\\2a\\28\\29\\5c");
    EXPECT_EQ(escape_filter(std::string_view("a\0b", 3)), "a\\00b");
}

TEST(EscapedNameValues, AreThemselvesWithoutSpecials) {
    for (char const* const text : {"", "ann@example.test", "a b#c", "*()", "gr\xc3\xbc\xc3\x9f"})
        EXPECT_EQ(escape_dn(text), text);
}

TEST(EscapedNameValues, HaveSpecialsBehindABackslash) {
    EXPECT_EQ(escape_dn("a,b+c\"d\\e<f>g;h=i"), "a\\,b\\+c\\\"d\\\\e\\<f\\>g\\;h\\=i");
    EXPECT_EQ(escape_dn("#a#"), "\\#a#");
    EXPECT_EQ(escape_dn(" a "), "\\ a\\ ");
    EXPECT_EQ(escape_dn(" "), "\\ ");
    EXPECT_EQ(escape_dn("\ta\tb\n"), "\\09a\tb\\0a");
    EXPECT_EQ(escape_dn(std::string_view("a\0b", 3)), "a\\00b");
}

std::string Parsed(std::string name) {
    LDAPServer::parse_dn(name.data());
    return name.c_str();
}

TEST(NamesOfEntries, HaveBytesForNumberSignsWithHexadecimalDigits) {
    EXPECT_EQ(Parsed("cn=a"), "cn=a");
    EXPECT_EQ(Parsed("cn=#41#4a#4A"), "cn=AJJ");
    EXPECT_EQ(Parsed("cn=#9x"), "cn=\tx");
    EXPECT_EQ(Parsed("#"), "#");
    EXPECT_EQ(Parsed("cn=a#"), "cn=a#");
    EXPECT_EQ(Parsed("cn=#g1"), "cn=#g1");
    EXPECT_EQ(Parsed("##41"), "#A");
    EXPECT_EQ(Parsed("cn=#4"), "cn=\x04");
}

TEST(FoundAttributes, AreJoinedByTheirExactName) {
    std::vector<VELT::LDAPAttribute> found;
    LDAPServer::save_attribute(found, "cn", "1");
    LDAPServer::save_attribute(found, "CN", "2");
    LDAPServer::save_attribute(found, "cn", "3");
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].values, (Names{"1", "3"}));
    EXPECT_EQ(found[1].values, Names{"2"});
}

}  // namespace
