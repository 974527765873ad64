#include <policyloader/engines/Marks.h>

#include <KORtk/Text.h>

namespace policyloader {

std::string FillMarks(std::string_view text, MarkValue const& value) {
    std::string out;
    while (!text.empty()) {
        std::size_t const begin = text.find('%');
        out.append(text.substr(0, begin));
        if (begin == std::string_view::npos) return out;
        text.remove_prefix(begin);
        std::size_t const end = text.find('%', 1);
        std::string put;
        bool const known = end != std::string_view::npos && end > 1 && value(std::string(text.substr(1, end - 1)), put);
        out.append(known ? std::string_view(put) : std::string_view("%"));
        text.remove_prefix(known ? end + 1 : 1);
    }
    return out;
}

bool HostsText(IKORPropertyBag const* texts, std::string const& name, std::string& text) {
    if (!texts) return false;
    auto const* property = texts->GetProperty(name.c_str());
    if (!property) property = texts->GetProperty(("%" + name + "%").c_str());
    wchar_t const* const wide = property ? property->GetWide() : nullptr;
    if (wide) text = KORtk::Utf8Array(wide).str();
    return wide;
}

std::string OneLine(std::string text) {
    for (char& c : text)
        if (static_cast<unsigned char>(c) < ' ' || c == 0x7F) c = ' ';
    return text;
}

}  // namespace policyloader
