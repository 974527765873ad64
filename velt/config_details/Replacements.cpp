#include <velt/config_details/Replacements.h>

#include <KORtk/Text.h>

namespace VELT {

namespace {

constexpr wchar_t kMark = L'%';

std::wstring Placeholder(std::wstring const& key) {
    return !key.empty() && key.front() == kMark ? key : kMark + key + kMark;
}

// What was put in is not looked at again. The text is written anew, once, however many places there are.
int replaceStrings(std::wstring const& from, std::wstring const& to, std::wstring& text) {
    std::wstring replaced;
    std::size_t begin = 0;
    int count = 0;
    for (std::size_t at = 0; (at = text.find(from, begin)) != std::wstring::npos; begin = at + from.size()) {
        replaced.append(text, begin, at - begin).append(to);
        ++count;
    }
    if (count == 0) return 0;
    replaced.append(text, begin, std::wstring::npos);
    text.swap(replaced);
    return count;
}

Replacements::Converter Wide(wchar_t const* text) {
    Replacements::Converter value;
    value.text = text;
    return value;
}

}  // namespace

Replacements::Converter::Converter(char const* utf8) : text(KORtk::Utf8Array(utf8).wstr()) {}

Replacements::Converter::Converter(std::string const& utf8) : text(KORtk::Utf8Array(utf8).wstr()) {}

int Replacements::customiseText(Map const& replacements, std::wstring& text) {
    int count = 0;
    for (auto const& [key, value] : replacements) count += replaceStrings(Placeholder(key), value.text, text);
    return count;
}

int Replacements::customiseText(Map const& replacements, config_types::html_alert const& alert, std::wstring& text) {
    text = alert.body();
    Map const parts{{L"ALERTHEADER", Wide(alert.header())}, {L"ALERTFOOTER", Wide(alert.footer())}};
    int const count = customiseText(parts, text);
    return count + customiseText(replacements, text);
}

int Replacements::fillPropertyBag(Map const& replacements, IKORPropertyBag& bag) {
    int count = 0;
    for (auto const& [key, value] : replacements) {
        IKORProperty* const property = bag.NewProperty(KORtk::Utf8Array(key).c_str());
        if (!property) continue;
        property->SetWide(value.text.c_str());
        ++count;
    }
    return count;
}

}  // namespace VELT
