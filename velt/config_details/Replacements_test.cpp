#include <velt/config_details/Replacements.h>

#include <gtest/gtest.h>

#include <limits>

namespace {

using VELT::Replacements;
using VELT::config_types::html_alert;

struct Filled {
    std::wstring text;
    int count;
    bool operator==(Filled const&) const = default;
};

Filled Fill(Replacements::Map const& map, std::wstring text) {
    int const count = Replacements::customiseText(map, text);
    return {text, count};
}

Filled Fill(Replacements::Map const& map, html_alert const& alert) {
    std::wstring text = L"what was there before";
    int const count = Replacements::customiseText(map, alert, text);
    return {text, count};
}

html_alert Alert(wchar_t const* body, wchar_t const* header, wchar_t const* footer) {
    html_alert alert;
    alert.value = eFabric::ProductAlertValue{body, header, footer};
    return alert;
}

TEST(Replacement, FillsEveryMarkOfAName) {
    EXPECT_EQ(Fill({{L"A", "x"}}, L"a%A%b%A%"), (Filled{L"axbx", 2}));
    EXPECT_EQ(Fill({{L"A", ""}}, L"%A%%A%"), (Filled{L"", 2}));
    EXPECT_EQ(Fill({{L"AB", "x"}}, L"AB%A%BA%ab%%AB"), (Filled{L"AB%A%BA%ab%%AB", 0}));
}

TEST(Replacement, LeavesWhatHasNoEntry) {
    EXPECT_EQ(Fill({}, L"%A% and %"), (Filled{L"%A% and %", 0}));
    EXPECT_EQ(Fill({{L"B", "x"}}, L"%A%"), (Filled{L"%A%", 0}));
}

// The one with marks comes first in the order of the keys.
TEST(Replacement, OfAKeyWithMarksBeatsTheBareOne) {
    EXPECT_EQ(Fill({{L"A", "bare"}, {L"%A%", "marked"}}, L"%A%"), (Filled{L"marked", 1}));
}

TEST(Replacement, TakesAKeyThatBeginsWithAMarkAsItStands) {
    EXPECT_EQ(Fill({{L"%A", "x"}}, L"%A% %%A%%"), (Filled{L"x% %x%%", 2}));
    EXPECT_EQ(Fill({{L"%", "x"}}, L"%A%"), (Filled{L"xAx", 2}));
}

TEST(Replacement, OfAnEmptyKeyIsTwoMarks) { EXPECT_EQ(Fill({{L"", "x"}}, L"%%%%a%%"), (Filled{L"xxax", 3})); }

TEST(Replacement, ThatHoldsItsOwnKeyIsMadeOncePerPlace) {
    EXPECT_EQ(Fill({{L"A", "%A%"}}, L"%A%-%A%"), (Filled{L"%A%-%A%", 2}));
    EXPECT_EQ(Fill({{L"A", "<%A%%A%>"}}, L"%A%"), (Filled{L"<%A%%A%>", 1}));
}

TEST(Replacement, FillsLaterKeysWithinValuesAndNotEarlierOnes) {
    EXPECT_EQ(Fill({{L"A", "%B%"}, {L"B", "x"}}, L"%A%"), (Filled{L"x", 2}));
    EXPECT_EQ(Fill({{L"A", "x"}, {L"B", "%A%"}}, L"%B%"), (Filled{L"%A%", 1}));
}

TEST(Replacement, FindsAMarkThatAValueAndTheTextMakeTogether) {
    EXPECT_EQ(Fill({{L"A", "%B"}, {L"B", "x"}}, L"%A%%"), (Filled{L"x", 2}));
}

// A place at a time would move the rest of the text a hundred thousand times.
TEST(Replacement, OfVeryManyPlacesTakesOneWalk) {
    constexpr std::size_t places = 100000;
    std::wstring const value(100, L'x');
    std::wstring text;
    for (std::size_t i = 0; i < places; ++i) text += L"%A%";
    Replacements::Map map;
    map[L"A"].text = value;
    EXPECT_EQ(Replacements::customiseText(map, text), static_cast<int>(places));
    EXPECT_EQ(text.size(), places * value.size());
    EXPECT_EQ(text.find_first_not_of(L'x'), std::wstring::npos);
}

TEST(ReplacementValue, IsUtf8) {
    EXPECT_EQ(Replacements::Converter("gr\xc3\xbc\xc3\x9f\xf0\x9f\x98\x80").text, L"gr\u00fc\u00df\U0001F600");
    EXPECT_EQ(Replacements::Converter(std::string("a\0b", 3)).text, std::wstring(L"a\0b", 3));
    EXPECT_EQ(Replacements::Converter("a\0b").text, L"a");
}

TEST(AlertText, WithoutAValueIsEmptyWhateverTheMapHolds) {
    EXPECT_EQ(Fill({{L"A", "x"}, {L"", "y"}}, html_alert()), (Filled{L"", 0}));
    EXPECT_EQ(Fill({{L"A", "x"}}, Alert(nullptr, L"h", L"f")), (Filled{L"", 0}));
}

TEST(AlertText, HasHeaderAndFooterWhereTheBodyAsksForThem) {
    EXPECT_EQ(Fill({}, Alert(L"%ALERTFOOTER%|b|%ALERTHEADER%|%ALERTHEADER%", L"h", L"f")), (Filled{L"f|b|h|h", 3}));
    EXPECT_EQ(Fill({}, Alert(L"<%ALERTHEADER%%ALERTFOOTER%>", nullptr, nullptr)), (Filled{L"<>", 2}));
}

TEST(AlertText, WithoutMarksHasNoHeaderAndNoFooter) {
    EXPECT_EQ(Fill({}, Alert(L"body", L"h", L"f")), (Filled{L"body", 0}));
}

TEST(AlertText, IsFilledWithinHeaderAndFooterToo) {
    EXPECT_EQ(Fill({{L"A", "x"}}, Alert(L"%ALERTHEADER%-%A%-%ALERTFOOTER%", L"h%A%", L"%A%f")),
              (Filled{L"hx-x-xf", 5}));
}

// The names of the two parts are filled before the map is looked at.
TEST(AlertText, TakesItsPartsBeforeTheMap) {
    EXPECT_EQ(Fill({{L"ALERTHEADER", "x"}}, Alert(L"%ALERTHEADER%", L"h", L"f")), (Filled{L"h", 1}));
}

class RefusingBag : public KORPropertyBag {
public:
    IKORProperty* NewProperty(char const* name) override {
        return std::string(name) == "no" ? nullptr : KORPropertyBag::NewProperty(name);
    }
};

TEST(PropertiesOfReplacements, HaveTheKeysAsTheyStand) {
    KORPropertyBag bag;
    EXPECT_EQ(Replacements::fillPropertyBag({{L"A", "x"}, {L"%B%", "gr\xc3\xbc"}, {L"\u00fc", ""}}, bag), 3);
    EXPECT_EQ(bag.Size(), 3);
    EXPECT_STREQ(bag.GetProperty(0L)->GetName(), "%B%");
    EXPECT_EQ(std::wstring(bag.GetProperty("%B%")->GetWide()), L"gr\u00fc");
    EXPECT_EQ(std::wstring(bag.GetProperty("A")->GetWide()), L"x");
    EXPECT_NE(bag.GetProperty("\xc3\xbc"), nullptr);
}

TEST(PropertiesOfReplacements, ThatTheBagRefusesDoNotCount) {
    RefusingBag bag;
    EXPECT_EQ(Replacements::fillPropertyBag({{L"no", "x"}, {L"yes", "y"}}, bag), 1);
    EXPECT_EQ(bag.Size(), 1);
}

}  // namespace
