#include <policyloader/engines/TextDecoder.h>

#include <cerrno>
#include <cstring>

#include <glib.h>
#include <policyloader/engines/CharsetNames.h>
#include <strings.h>

namespace policyloader {
namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";
iconv_t const kNone = reinterpret_cast<iconv_t>(-1);

bool IsUtf8Name(std::string const& charset) {
    for (char const* const name : {"", "utf-8", "utf8", "us-ascii", "ascii", "ansi_x3.4-1968"})
        if (strcasecmp(charset.c_str(), name) == 0) return true;
    return false;
}

iconv_t OpenConverter(std::string const& charset) {
    if (IsUtf8Name(charset)) return kNone;
    iconv_t const known = IsKnownCharset(charset) ? iconv_open("UTF-8", charset.c_str()) : kNone;
    return known != kNone ? known : iconv_open("UTF-8", "WINDOWS-1252");
}

}  // namespace

TextDecoder::TextDecoder(std::string const& charset) : m_iconv(OpenConverter(charset)) {}

TextDecoder::~TextDecoder() {
    if (m_iconv != kNone) iconv_close(m_iconv);
}

std::string_view TextDecoder::decode(std::string_view piece) {
    bool const plain = m_iconv == kNone && m_carry.empty() && !m_carriageReturn;
    if (plain && !std::memchr(piece.data(), '\r', piece.size()) &&
        g_utf8_validate(piece.data(), static_cast<gssize>(piece.size()), nullptr))
        return piece;
    m_buffer.clear();
    if (!m_carry.empty()) {
        m_carry.append(piece);
        std::string joined;
        joined.swap(m_carry);
        m_iconv == kNone ? sanitize(joined) : convert(joined);
    } else {
        m_iconv == kNone ? sanitize(piece) : convert(piece);
    }
    plainLineFeeds();
    return m_buffer;
}

std::string_view TextDecoder::finish() {
    m_buffer.clear();
    if (!m_carry.empty()) m_buffer = kReplacement;
    m_carry.clear();
    return m_buffer;
}

void TextDecoder::convert(std::string_view piece) {
    char* from = const_cast<char*>(piece.data());
    std::size_t left = piece.size();
    char room[4096];
    while (left > 0) {
        char* to = room;
        std::size_t space = sizeof room;
        bool const failed = iconv(m_iconv, &from, &left, &to, &space) == static_cast<std::size_t>(-1);
        int const error = errno;
        m_buffer.append(room, sizeof room - space);
        if (!failed || error == E2BIG) continue;
        if (error == EINVAL && left < 16) {
            m_carry.assign(from, left);
            return;
        }
        m_buffer += kReplacement;
        ++from, --left;
    }
}

void TextDecoder::sanitize(std::string_view piece) {
    char const* at = piece.data();
    char const* const end = at + piece.size();
    while (at != end) {
        char const* run = at;
        while (at != end && static_cast<signed char>(*at) >= 0) ++at;
        m_buffer.append(run, at);
        if (at == end) return;
        auto const code = g_utf8_get_char_validated(at, end - at);
        if (code == static_cast<gunichar>(-2)) {
            m_carry.assign(at, end);
            return;
        }
        bool const bad = code == static_cast<gunichar>(-1);
        std::size_t const length = bad ? 1 : static_cast<std::size_t>(g_utf8_skip[static_cast<unsigned char>(*at)]);
        bad ? m_buffer.append(kReplacement) : m_buffer.append(at, length);
        at += length;
    }
}

// CR LF and a CR alone both become LF.
void TextDecoder::plainLineFeeds() {
    std::size_t const first = m_buffer.find('\r');
    if (first == std::string::npos && !m_carriageReturn) return;
    std::size_t to = m_carriageReturn ? 0 : first;
    for (std::size_t from = to; from < m_buffer.size(); ++from) {
        char const c = m_buffer[from];
        bool const swallowed = c == '\n' && m_carriageReturn;
        m_carriageReturn = c == '\r';
        if (!swallowed) m_buffer[to++] = m_carriageReturn ? '\n' : c;
    }
    m_buffer.resize(to);
}

std::string ToCleanUtf8(std::string_view text) {
    TextDecoder decoder("utf-8");
    std::string out(decoder.decode(text));
    out += decoder.finish();
    return out;
}

}  // namespace policyloader
