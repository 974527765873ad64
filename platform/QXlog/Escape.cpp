#include <KORtk/Utf8.h>
#include <QXlog/Escape.h>

#include <algorithm>
#include <cstdio>

namespace QXlog::detail {
namespace {

constexpr std::string_view kCut = "...";

bool TurnsDirection(char32_t c) {
    return c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

bool Hidden(char32_t c) {
    return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x2028 || c == 0x2029 || c == 0xFEFF || TurnsDirection(c);
}

template <class... T>
void AppendFormat(std::string& out, char const* format, T... values) {
    char text[24];
    std::snprintf(text, sizeof text, format, values...);
    out += text;
}

// What no form escapes, and most text is made of.
bool IsPlain(char c) { return c >= ' ' && c < 0x7F && c != '"' && c != '\\'; }  // above ASCII is negative

// Appends the text up to the limit, and calls `each(step, bytes)` for those code points that may need an escape; true
// when the text was cut.
template <class Each>
bool Walk(std::string& out, std::string_view text, std::size_t limit, Each each) {
    std::string_view rest = text.substr(0, KORtk::Utf8Prefix(text, limit));
    bool const cut = rest.size() < text.size();
    while (true) {
        auto const end = std::find_if_not(rest.begin(), rest.end(), IsPlain);
        out.append(rest.begin(), end);
        rest.remove_prefix(static_cast<std::size_t>(end - rest.begin()));
        if (rest.empty()) return cut;
        KORtk::Utf8Step const step = KORtk::ReadUtf8(rest);
        each(step, rest.substr(0, step.length));
        rest.remove_prefix(step.length);
    }
}

void AppendPlainStep(std::string& out, KORtk::Utf8Step const& step, std::string_view bytes) {
    if (!step.valid) {
        AppendFormat(out, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(bytes.front())));
    } else if (step.codePoint == '\n') {
        out += "\\n";
    } else if (step.codePoint == '\r') {
        out += "\\r";
    } else if (step.codePoint == '\t') {
        out += "\\t";
    } else if (step.codePoint == '\\') {
        out += "\\\\";
    } else if (!Hidden(step.codePoint)) {
        out += bytes;
    } else if (step.codePoint < 0x80) {
        AppendFormat(out, "\\x%02x", static_cast<unsigned>(step.codePoint));
    } else {
        AppendFormat(out, "\\u{%x}", static_cast<unsigned>(step.codePoint));
    }
}

void AppendJsonStep(std::string& out, KORtk::Utf8Step const& step, std::string_view bytes) {
    char32_t const c = step.codePoint;
    if (c == '"' || c == '\\') {
        out += '\\';
        out += static_cast<char>(c);
    } else if (!step.valid || Hidden(c)) {
        AppendFormat(out, "\\u%04x", static_cast<unsigned>(c));
    } else {
        out += bytes;
    }
}

bool OneWord(std::string_view text) {
    if (text.empty()) return false;
    for (char const c : text) {
        if (c <= ' ' || c == '"' || c == '\\' || c == '=' || c == 0x7F) return false;  // above ASCII is negative
    }
    return true;
}

}  // namespace

void AppendPlain(std::string& out, std::string_view text, std::size_t limit) {
    bool const cut = Walk(out, text, limit, [&](auto const& step, auto bytes) { AppendPlainStep(out, step, bytes); });
    if (cut) out += kCut;
}

void AppendToken(std::string& out, std::string_view text, std::size_t limit) {
    if (OneWord(text)) return AppendPlain(out, text, limit);
    out += '"';
    bool const cut = Walk(out, text, limit, [&](auto const& step, auto bytes) {
        if (step.codePoint == '"') out += '\\';
        AppendPlainStep(out, step, bytes);
    });
    if (cut) out += kCut;
    out += '"';
}

void AppendJson(std::string& out, std::string_view text, std::size_t limit) {
    out += '"';
    bool const cut = Walk(out, text, limit, [&](auto const& step, auto bytes) { AppendJsonStep(out, step, bytes); });
    if (cut) out += kCut;
    out += '"';
}

}  // namespace QXlog::detail
