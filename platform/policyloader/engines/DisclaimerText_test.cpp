// The disclaimer's own texts: flowed, escaped, and found again in what quotes it.
#include <gtest/gtest.h>

#include <policyloader/engines/Disclaimer.h>
#include <policyloader/store/InternPool.h>
#include <policyloader/store/StoreSnapshot.h>

using namespace policyloader;

namespace {

Disclaimer ReadDisclaimer(std::string const& settings) {
    auto const store = ParseStore("rules.xml", "<rules><policy name='content_in'><settings section='KORInfoScanner'>" +
                                                   settings + "</settings></policy></rules>");
    return Disclaimer::read(store->view(InternPool::process().intern("content_in"), InternedString(), 1), true);
}

bool Finds(std::string const& phrase, std::string const& text) {
    Phrase const wanted(phrase);
    bool whole = false;
    for (std::size_t piece = 1; piece <= text.size(); ++piece) {
        PhraseFinder finder(wanted);
        for (std::size_t at = 0; at < text.size(); at += piece) finder.feed(std::string_view(text).substr(at, piece));
        if (piece == 1) whole = finder.found();
        EXPECT_EQ(finder.found(), whole) << piece;
    }
    return whole;
}

}  // namespace

TEST(Disclaimers, HaveEachFormFromTheOther) {
    auto const text = ReadDisclaimer("<set name='Text'>1 &lt; 2\nNext</set>");
    EXPECT_EQ(text.text, "1 < 2\nNext");
    EXPECT_EQ(text.html, "<p>1 &lt; 2<br>\nNext</p>");
    auto const html = ReadDisclaimer("<set name='Html'><![CDATA[<p>1 &lt; 2 <b>bold</b></p>]]></set>");
    EXPECT_NE(html.text.find("1 < 2 bold"), std::string::npos) << html.text;
    EXPECT_FALSE(ReadDisclaimer("").active());
    EXPECT_FALSE(ReadDisclaimer("<set name='Enabled'>no</set><set name='Text'>x</set>").active());
}

TEST(Disclaimers, GoToTheFormsAndThePlaceThatAreWanted) {
    EXPECT_TRUE(ReadDisclaimer("<set name='Text'>x</set>").wantsText());
    EXPECT_TRUE(ReadDisclaimer("<set name='Text'>x</set>").wantsHtml());
    EXPECT_FALSE(ReadDisclaimer("<set name='Text'>x</set><set name='Parts'>plain</set>").wantsHtml());
    EXPECT_FALSE(ReadDisclaimer("<set name='Text'>x</set><set name='Parts'>html</set>").wantsText());
    EXPECT_TRUE(ReadDisclaimer("<set name='Text'>x</set><set name='Position'>top</set>").atTop());
    EXPECT_FALSE(ReadDisclaimer("<set name='Text'>x</set><set name='Position'>elsewhere</set>").atTop());
}

TEST(Disclaimers, AreFilledAndEscapedWhereTheyAreHtml) {
    auto made = ReadDisclaimer("<set name='Text'>From %WHO%, 100% sure, %NOBODY%</set>");
    made.fill([](std::string const& name, std::string& text) {
        text = "<b>\r\n--x";
        return name == "WHO";
    });
    EXPECT_EQ(made.text, "From <b> --x, 100% sure, %NOBODY%");
    EXPECT_EQ(made.html, "<p>From &lt;b&gt; --x, 100% sure, %NOBODY%</p>");
    EXPECT_EQ(made.textPhrase.text, ",100%sure,");
}

TEST(FlowedText, HasFixedLinesWhereTheyFitAndFlowsWhereNot) {
    EXPECT_EQ(Flowed("a  \n b\n>c\nFrom d\n-- \n\nx", false), "a\n  b\n >c\n From d\n-- \n\nx");
    std::string const words =
        "word word word word word word word word word word word word word word word word word end";
    auto const flowed = Flowed(words, false);
    EXPECT_EQ(flowed, words.substr(0, 70) + "\n" + words.substr(70));
    EXPECT_EQ(Flowed(words, true), words.substr(0, 70) + " \n" + words.substr(70));
    EXPECT_EQ(Flowed(std::string(90, 'x'), false), std::string(90, 'x'));
}

TEST(Phrases, AreFoundHoweverTheyWereBrokenAndQuoted) {
    EXPECT_TRUE(Finds("This mail is confidential.",
                      "> > This mail\n> > is\xC2\xA0"
                      "confi\n> dential.\n"));
    EXPECT_TRUE(Finds("aab", "aaab"));
    EXPECT_TRUE(Finds("abcabd", "abcabcabd"));
    EXPECT_TRUE(Finds("gr\xC3\xBC\xC3\x9F", "x gr\xC3\xBC\xC3\x9F"));
    EXPECT_FALSE(Finds("This mail is confidential.", "This mail is not confidential."));
    EXPECT_FALSE(Finds("", "text"));
}
