// Any map over any text, against the plain way to say it: each key in its order is searched from the front, its place
// is replaced, and the search goes on behind what was put in.
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/Input.h"
#include "velt/config_details/Replacements.h"

using VELT::Replacements;
using velt_fuzz::Require;

namespace {

using Text = std::wstring;
using Entries = std::vector<std::pair<Text, Text>>;

constexpr std::size_t kLongestText = 64;
constexpr std::size_t kLongestValue = 12;
constexpr std::size_t kMostEntries = 4;

struct Filled {
    Text text;
    int count = 0;
};

Text Wide(std::string const& bytes) {
    Text text;
    for (char c : bytes) text += static_cast<wchar_t>(static_cast<unsigned char>(c));
    return text;
}

void ModelPass(Text const& search, Text const& value, Filled& filled) {
    std::size_t position = 0;
    while ((position = filled.text.find(search, position)) != Text::npos) {
        filled.text = filled.text.substr(0, position) + value + filled.text.substr(position + search.size());
        position += value.size();
        ++filled.count;
    }
}

void ModelFill(Entries entries, Filled& filled) {
    std::sort(entries.begin(), entries.end());
    for (auto const& [key, value] : entries) {
        bool const complete = !key.empty() && key[0] == L'%';
        ModelPass(complete ? key : L"%" + key + L"%", value, filled);
    }
}

Replacements::Map MapOf(Entries const& entries) {
    Replacements::Map map;
    for (auto const& [key, value] : entries) map[key].text = value;
    return map;
}

void CheckText(Entries const& entries, Text const& body) {
    Filled model{body, 0};
    ModelFill(entries, model);
    Text text = body;
    int const count = Replacements::customiseText(MapOf(entries), text);
    Require(text == model.text, "the same text");
    Require(count == model.count, "the same number of replacements");
}

void CheckAlert(Entries const& entries, Text const& body, Text const& header, Text const& footer, unsigned absent) {
    VELT::config_types::html_alert alert;
    auto const part = [&](Text const& one, unsigned bit) { return absent & bit ? nullptr : one.c_str(); };
    if (!(absent & 8u)) alert.value = eFabric::ProductAlertValue{part(body, 1), part(header, 2), part(footer, 4)};
    auto const held = [&](Text const& one, unsigned bit) {
        return absent & (bit | 8u) ? Text() : Text(one.c_str());  // up to a zero
    };
    Filled model{held(body, 1), 0};
    ModelFill({{L"ALERTHEADER", held(header, 2)}, {L"ALERTFOOTER", held(footer, 4)}}, model);
    ModelFill(entries, model);
    Text text = L"what was there before";
    int const count = Replacements::customiseText(MapOf(entries), alert, text);
    Require(text == model.text, "the same alert");
    Require(count == model.count, "the same number of replacements in it");
}

void CheckBag(Entries const& entries) {
    KORPropertyBag bag;
    Require(Replacements::fillPropertyBag(MapOf(entries), bag) == static_cast<int>(entries.size()), "one for each");
    for (long i = 0; i < bag.Size(); ++i) {
        Text const value = bag.GetProperty(i)->GetWide();
        bool const known = std::any_of(entries.begin(), entries.end(),
                                       [&](auto const& entry) { return entry.second.c_str() == value; });
        Require(known, "the value of an entry, up to a zero");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    velt_fuzz::Input input(data, size);
    unsigned const absent = input.Byte() % 16u;
    Text const body = Wide(input.Line().substr(0, kLongestText));
    Text const header = Wide(input.Line().substr(0, kLongestValue));
    Text const footer = Wide(input.Line().substr(0, kLongestValue));
    Entries entries;
    while (!input.empty() && entries.size() < kMostEntries) {
        Text const key = Wide(input.Line().substr(0, kLongestValue));
        Text const value = Wide(input.Line().substr(0, kLongestValue));
        bool const known =
            std::any_of(entries.begin(), entries.end(), [&](auto const& one) { return one.first == key; });
        if (!known) entries.emplace_back(key, value);
    }
    CheckText(entries, body);
    CheckAlert(entries, body, header, footer, absent);
    CheckBag(entries);
    return 0;
}
