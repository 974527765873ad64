#include <KORtk/Text.h>
#include <KORtk/Utf8.h>

namespace KORtk {
namespace {

std::string Narrow(std::wstring_view wide) {
    std::string utf8;
    utf8.reserve(wide.size());
    for (wchar_t const c : wide) AppendUtf8(utf8, static_cast<char32_t>(c));
    return utf8;
}

}  // namespace

Utf8Array::Utf8Array(char const* utf8) : m_text(utf8 ? utf8 : "") {}
Utf8Array::Utf8Array(std::string const& utf8) : m_text(utf8) {}
Utf8Array::Utf8Array(wchar_t const* text) : m_text(text ? Narrow(text) : std::string()) {}
Utf8Array::Utf8Array(std::wstring const& text) : m_text(Narrow(text)) {}

std::wstring Utf8Array::wstr() const {
    std::wstring wide;
    for (std::string_view rest = m_text; !rest.empty();) {
        Utf8Step const step = ReadUtf8(rest);
        wide += static_cast<wchar_t>(step.codePoint);
        rest.remove_prefix(step.length);
    }
    return wide;
}

std::string dos_to_regex_pattern(std::string_view wildcard) {
    constexpr std::string_view kSpecial = ".[]{}()\\+|^$";
    std::string pattern;
    pattern.reserve(wildcard.size() * 2);
    for (char const c : wildcard) {
        if (c == '*') {
            pattern += ".*";
        } else if (c == '?') {
            pattern += '.';
        } else {
            if (kSpecial.find(c) != kSpecial.npos) pattern += '\\';
            pattern += c;
        }
    }
    return pattern;
}

}  // namespace KORtk
