#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>

#include <eFabric/XmlFile.h>

#include "testing/TempRoot.h"

namespace {

using eFabric::XmlError;
using eFabric::XmlFile;

std::string ErrorOf(std::string const& bytes) {
    try {
        XmlFile const file("f.xml", bytes, "root");
        return "(none)";
    } catch (XmlError const& error) {
        return error.text();
    }
}

std::string Nested(int depth) {
    std::string text = "<root>";
    for (int i = 1; i < depth; ++i) text += "<a>";
    for (int i = 1; i < depth; ++i) text += "</a>";
    return text + "</root>";
}

TEST(XmlFiles, GiveTheirRoot) {
    XmlFile const file("f.xml", "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?><!-- c --><root a='1'/>",
                       "root");
    EXPECT_STREQ(file.root().attribute("a").value(), "1");
}

TEST(XmlFiles, NameThePlaceOfWhatIsMalformed) {
    EXPECT_EQ(ErrorOf("").substr(0, 10), "f.xml:1:1:");
    EXPECT_EQ(ErrorOf("<root>\n  <a></b>\n</root>").substr(0, 8), "f.xml:2:");
    EXPECT_EQ(ErrorOf("<root>\n").substr(0, 6), "f.xml:");
    EXPECT_EQ(ErrorOf("<root>\n<abc").substr(0, 8), "f.xml:2:");
    EXPECT_EQ(ErrorOf("<root>\n<a b").substr(0, 10), "f.xml:2:5:");
    EXPECT_EQ(ErrorOf("\n<other/>"), "f.xml:2:1: the root element is not <root>");
    EXPECT_EQ(ErrorOf("<root/>\n <root/>"), "f.xml:2:2: more than one root element");
    EXPECT_EQ(ErrorOf("<root/>\n x<root/>"), "f.xml:2:2: text outside the root element");
    EXPECT_EQ(ErrorOf("x <root/>"), "f.xml:1:1: text outside the root element");
    EXPECT_EQ(ErrorOf(" <!-- only -->"), "f.xml:1:1: the root element is not <root>");
}

TEST(XmlFiles, TakeNoDocumentType) {
    EXPECT_NE(ErrorOf("<!DOCTYPE root [<!ENTITY a 'aaaa'>]><root>&a;</root>").find("document type"), std::string::npos);
}

TEST(XmlFiles, AreUtf8WithoutNul) {
    EXPECT_EQ(ErrorOf("<root>\n \xFF</root>"), "f.xml:2:2: is not UTF-8");
    for (auto const* const bad :
         {"\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE0\x80\x80", "\xF0\x80\x80\x80", "\x80", "\xE2\x82"})
        EXPECT_NE(ErrorOf(std::string("<root>") + bad + "</root>").find("is not UTF-8"), std::string::npos);
    for (auto const* const good : {"\xC2\x80", "\xE2\x82\xAC", "\xED\x9F\xBF", "\xF4\x8F\xBF\xBF", "\xF0\x90\x80\x80"})
        EXPECT_EQ(ErrorOf(std::string("<root>") + good + "</root>"), "(none)");
    EXPECT_NE(ErrorOf(std::string("<root>\0</root>", 14)).find("NUL"), std::string::npos);
}

TEST(XmlFiles, AreAtMost64ElementsDeep) {
    EXPECT_EQ(ErrorOf(Nested(64)), "(none)");
    EXPECT_NE(ErrorOf(Nested(65)).find("deeper than 64"), std::string::npos);
    EXPECT_NE(ErrorOf(Nested(100000)).find("deeper than 64"), std::string::npos);
}

TEST(XmlFiles, AreAtMost16MiB) {
    std::string const around = "<root></root>";
    std::string const fill(XmlFile::MaxBytes - around.size(), ' ');
    EXPECT_EQ(ErrorOf("<root>" + fill + "</root>"), "(none)");
    EXPECT_EQ(ErrorOf("<root>" + fill + " </root>"), "f.xml: is longer than 16 MiB");
}

TEST(XmlFiles, ReferToCharactersThatExist) {
    for (auto const* const bad : {"&#0;", "&#x0;", "&#xD800;", "&#xdfff;", "&#x110000;", "&#1114112;", "&#00;",
                                  "&#4294967296;", "&#x100000041;", "&#99999999999999999999;"})
        for (std::string const around : {"<root>\n ", "<root>\n<a b='", "<root>\n<![CDATA["}) {
            bool const cdata = around.back() == '[';
            std::string const tail = cdata ? "]]></root>" : around.back() == '\'' ? "'/></root>" : "</root>";
            auto const expected = "f.xml:2:" + std::to_string(around.size() - around.find('\n')) +
                                  ": a reference to a character that does not exist";
            EXPECT_EQ(ErrorOf(around + bad + tail), cdata ? "(none)" : expected) << around << bad;
        }
    for (auto const* const good : {"&#x1;", "&#xD7FF;", "&#xE000;", "&#x10FFFF;", "&#;", "&#x;", "&#0", "&# 0;",
                                   "<!-- &#0; -->", "<?x &#0; ?>", "&amp;#0;"})
        EXPECT_EQ(ErrorOf(std::string("<root>") + good + "</root>"), "(none)") << good;
}

class XmlChecks : public ::testing::Test {
protected:
    static std::string ErrorOf(void (*check)(XmlFile const&), std::string const& bytes) {
        XmlFile const file("f.xml", bytes, "root");
        try {
            check(file);
            return "(none)";
        } catch (XmlError const& error) {
            return error.text();
        }
    }
};

TEST_F(XmlChecks, NameTheAttributeThatIsNotKnown) {
    auto const check = [](XmlFile const& f) { f.allowAttributes(f.root(), {"good", "a"}); };
    EXPECT_EQ(ErrorOf(check, "<root good='1'\n  a='bad=' bad = '2'/>"), "f.xml:2:12: <root> has no attribute 'bad'");
    EXPECT_EQ(ErrorOf(check, "<root good='a > b bad=' bad='2'/>"), "f.xml:1:25: <root> has no attribute 'bad'");
    EXPECT_EQ(ErrorOf(check, "<root a='1' a='2'/>"), "f.xml:1:1: attribute 'a' stands twice");
}

TEST_F(XmlChecks, WantAttributesThereAndNotEmpty) {
    auto const check = [](XmlFile const& f) { f.required(f.root(), "name"); };
    EXPECT_EQ(ErrorOf(check, "\n <root/>"), "f.xml:2:2: <root> lacks its attribute 'name'");
    EXPECT_EQ(ErrorOf(check, "<root  name=''/>"), "f.xml:1:8: attribute 'name' is empty");
}

TEST_F(XmlChecks, FindTextWhereNoneMayBe) {
    auto const check = [](XmlFile const& f) { f.forbidText(f.root()); };
    EXPECT_EQ(ErrorOf(check, "<root>\n <a/>\n </root>"), "(none)");
    EXPECT_EQ(ErrorOf(check, "<root>\n <a/> stray</root>").substr(0, 8), "f.xml:2:");
}

TEST_F(XmlChecks, KnowVersionOne) {
    auto const check = [](XmlFile const& f) { f.requireVersion(f.root()); };
    EXPECT_EQ(ErrorOf(check, "<root/>"), "(none)");
    EXPECT_EQ(ErrorOf(check, "<root version='1'/>"), "(none)");
    EXPECT_EQ(ErrorOf(check, "<root version='2'/>"), "f.xml:1:7: version '2' is not known, only '1'");
}

// The place of the letter X, however the text before it is written.
TEST(XmlTextPlaces, SeeThroughEntitiesLineEndsCommentsAndCdata) {
    for (auto const* const body :
         {"X", "&quot;X", "a&#x20AC;&#65;X", "\r\n\r\nX", "a<!-- c -->bX", "<![CDATA[&amp;X]]>", "a<![CDATA[b]]>&lt;X",
          "caf\xC3\xA9 X", "\rX", "&#xZZ;X", "&#;X", "&#12X", "&#x;X", "&amp&nbsp;X", "&#0000000000000000000065;X",
          "&#X41;X", "a<!-- c --><![CDATA[]]><![CDATA[\n\n]]>bX", "&#128512;X", "a<?pi ?>&#233;X"}) {
        std::string const bytes = "<root>" + std::string(body) + "</root>";
        XmlFile const file("f.xml", bytes, "root");
        auto const place = file.placeInText(file.root(), XmlFile::text(file.root()).find('X'));
        std::size_t const offset = bytes.find('X');
        auto const newline = bytes.rfind('\n', offset);
        auto const start = newline == std::string::npos ? 0 : newline + 1;
        EXPECT_EQ(place.column, offset - start + 1) << body;
        EXPECT_EQ(place.line, static_cast<unsigned>(std::count(bytes.begin(), bytes.begin() + offset, '\n')) + 1)
            << body;
    }
}

TEST(XmlReading, TellsMissingFromUnreadable) {
    velt_testing::TempRoot const root;
    EXPECT_FALSE(XmlFile::Read(root / "no.xml"));
    root.Write("yes.xml", "<a/>");
    EXPECT_EQ(XmlFile::Read(root / "yes.xml"), "<a/>");
    EXPECT_FALSE(XmlFile::Read(root / "yes.xml/below"));
    EXPECT_THROW(XmlFile::Read(root.path()), XmlError);
    ASSERT_EQ(::mkfifo((root / "pipe").c_str(), 0600), 0);
    EXPECT_THROW(XmlFile::Read(root / "pipe"), XmlError);
}

}  // namespace
