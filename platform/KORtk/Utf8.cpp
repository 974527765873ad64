#include <KORtk/Utf8.h>

namespace KORtk {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr Utf8Step kInvalid{kReplacement, 1, false};

struct Lead {
    std::size_t length;
    char32_t bits;
    char32_t least;  // below it the form is overlong
};

Lead ReadLead(unsigned char byte) {
    if (byte < 0x80) return {1, byte, 0};
    if (byte < 0xC2) return {0, 0, 0};
    if (byte < 0xE0) return {2, byte & 0x1Fu, 0x80};
    if (byte < 0xF0) return {3, byte & 0x0Fu, 0x800};
    if (byte < 0xF5) return {4, byte & 0x07u, 0x10000};
    return {0, 0, 0};
}

bool IsScalar(char32_t c) { return c <= 0x10FFFF && !(c >= 0xD800 && c <= 0xDFFF); }

}  // namespace

Utf8Step ReadUtf8(std::string_view text) {
    Lead const lead = ReadLead(static_cast<unsigned char>(text.front()));
    if (lead.length == 0 || lead.length > text.size()) return kInvalid;
    char32_t c = lead.bits;
    for (std::size_t i = 1; i < lead.length; ++i) {
        auto const byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0) != 0x80) return kInvalid;
        c = c << 6 | (byte & 0x3Fu);
    }
    if (c < lead.least || !IsScalar(c)) return kInvalid;
    return {c, lead.length, true};
}

void AppendUtf8(std::string& out, char32_t c) {
    if (!IsScalar(c)) c = kReplacement;
    auto const tail = [&](unsigned shift) { out += static_cast<char>(0x80 | (c >> shift & 0x3F)); };
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | c >> 6);
        tail(0);
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | c >> 12);
        tail(6), tail(0);
    } else {
        out += static_cast<char>(0xF0 | c >> 18);
        tail(12), tail(6), tail(0);
    }
}

std::size_t Utf8Prefix(std::string_view text, std::size_t limit) {
    if (text.size() <= limit) return text.size();
    std::size_t const floor = limit > 3 ? limit - 3 : 0;
    for (std::size_t cut = limit; cut > floor; --cut) {  // step back to the start of the sequence at the limit
        if ((static_cast<unsigned char>(text[cut]) & 0xC0) != 0x80) return cut;
    }
    std::size_t const start = floor;  // a sequence of four, or bytes that are no text at all
    bool const four = ReadUtf8(text.substr(start)).length > limit - start;
    return four ? start : limit;
}

}  // namespace KORtk
