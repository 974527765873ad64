#include <policyloader/engines/CharsetConverter.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include <glib.h>
#include <policyloader/engines/CharsetNames.h>
#include <strings.h>

namespace policyloader {
namespace {

iconv_t const kNoConverter = reinterpret_cast<iconv_t>(-1);
constexpr std::size_t kLongestCharacter = 16;

struct CharsetRow {
    char const* prefix;
    CharsetKind kind;
};
// What is not here is Bytes, where it is known.
constexpr CharsetRow kCharsetRows[] = {
    {"us-ascii", CharsetKind::Ascii}, {"ascii", CharsetKind::Ascii},    {"ansi_x3.4-1968", CharsetKind::Ascii},
    {"utf-8", CharsetKind::Utf8},     {"utf8", CharsetKind::Utf8},      {"utf-16", CharsetKind::Whole},
    {"utf16", CharsetKind::Whole},    {"utf-32", CharsetKind::Whole},   {"utf-7", CharsetKind::Whole},
    {"utf7", CharsetKind::Whole},     {"iso-2022", CharsetKind::Whole}, {"hz-gb", CharsetKind::Whole},
    {"ucs-2", CharsetKind::Foreign},
};

}  // namespace

CharsetKind KindOfCharset(std::string const& name) {
    if (name.empty()) return CharsetKind::Ascii;
    if (!IsKnownCharset(name)) return CharsetKind::Unknown;
    for (auto const& row : kCharsetRows)
        if (strncasecmp(name.c_str(), row.prefix, std::char_traits<char>::length(row.prefix)) == 0) return row.kind;
    return CharsetKind::Bytes;
}

bool IsAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<signed char>(c) >= 0; });
}

CharsetConverter::CharsetConverter(std::string const& from, std::string const& to)
    : m_iconv(IsKnownCharset(from) && IsKnownCharset(to) ? iconv_open(to.c_str(), from.c_str()) : kNoConverter),
      m_lossy(m_iconv == kNoConverter) {}

CharsetConverter::~CharsetConverter() {
    if (m_iconv != kNoConverter) iconv_close(m_iconv);
}

std::string_view CharsetConverter::convert(std::string_view piece) {
    m_out.clear();
    if (m_iconv == kNoConverter) return m_out;
    if (m_carry.empty()) {
        convertAll(piece);
    } else {
        std::string joined;
        joined.swap(m_carry);
        convertAll(joined.append(piece));
    }
    return m_out;
}

void CharsetConverter::convertAll(std::string_view bytes) {
    char* from = const_cast<char*>(bytes.data());
    std::size_t left = bytes.size();
    char room[4096];
    while (left > 0) {
        char* to = room;
        std::size_t space = sizeof room;
        bool const failed = iconv(m_iconv, &from, &left, &to, &space) == static_cast<std::size_t>(-1);
        int const error = errno;
        m_out.append(room, sizeof room - space);
        if (!failed || error == E2BIG) continue;
        if (error == EINVAL && left < kLongestCharacter) {
            m_carry.assign(from, left);
            return;
        }
        m_lossy = true;
        m_out += '?';
        ++from, --left;
    }
}

// Text with states ends in the first one.
std::string_view CharsetConverter::finish() {
    m_out.clear();
    if (m_iconv == kNoConverter) return m_out;
    m_lossy |= !m_carry.empty();
    if (!m_carry.empty()) m_out = "?";
    m_carry.clear();
    char room[64];
    char* to = room;
    std::size_t space = sizeof room;
    iconv(m_iconv, nullptr, nullptr, &to, &space);
    m_out.append(room, sizeof room - space);
    return m_out;
}

std::optional<std::string> FromUtf8(std::string const& text, std::string const& charset) {
    auto const kind = KindOfCharset(charset);
    if (kind == CharsetKind::Utf8 || (kind != CharsetKind::Whole && IsAscii(text))) return text;
    if (kind == CharsetKind::Ascii || kind == CharsetKind::Unknown) return std::nullopt;
    CharsetConverter converter("utf-8", charset);
    std::string out(converter.convert(text));
    out.append(converter.finish());
    return converter.lossy() ? std::nullopt : std::optional(out);
}

std::string FromUtf8(std::string const& text, std::string const& charset,
                     std::function<std::string(char32_t)> const& other) {
    if (auto const whole = FromUtf8(text, charset)) return *whole;
    std::string out;
    for (char const* at = text.c_str(); *at;) {
        char const* const next = g_utf8_next_char(at);
        auto const fits = FromUtf8(std::string(at, next), charset);
        out += fits ? *fits : other(g_utf8_get_char(at));
        at = next;
    }
    return out;
}

}  // namespace policyloader
