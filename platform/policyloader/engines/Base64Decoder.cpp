#include <policyloader/engines/Base64Decoder.h>

#include <array>

namespace policyloader {
namespace {

constexpr std::uint8_t kOther = 0x40, kPad = 0x41, kBlank = 0x42;

constexpr std::array<std::uint8_t, 256> MakeTable() {
    std::array<std::uint8_t, 256> table{};
    for (auto& entry : table) entry = kOther;
    std::string_view const alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (std::size_t i = 0; i < alphabet.size(); ++i)
        table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::uint8_t>(i);
    table['='] = kPad;
    for (char const blank : {' ', '\t', '\r', '\n'}) table[static_cast<unsigned char>(blank)] = kBlank;
    return table;
}
constexpr auto kTable = MakeTable();

}  // namespace

char* Base64Decoder::flush(char* to) {
    if (m_count >= 2) *to++ = static_cast<char>(m_bits >> (m_count * 6 - 8));
    if (m_count == 3) *to++ = static_cast<char>(m_bits >> 2);
    restart();
    return to;
}

char* Base64Decoder::one(unsigned char byte, char* to) {
    auto const value = kTable[byte];
    if (value == kBlank) return to;
    if (value == kOther) {
        m_stray = true;
        return to;
    }
    if (value == kPad) {
        m_padded = true;
        return m_padding == EndsGroup ? flush(to) : to;
    }
    m_stray |= m_padded;
    m_bits = (m_bits << 6 | value) & 0xFFFFFF;
    if (++m_count < 4) return to;
    *to++ = static_cast<char>(m_bits >> 16);
    *to++ = static_cast<char>(m_bits >> 8);
    *to++ = static_cast<char>(m_bits);
    restart();
    return to;
}

void Base64Decoder::decode(std::string_view piece, std::string& out) {
    auto const* at = reinterpret_cast<unsigned char const*>(piece.data());
    auto const* const end = at + piece.size();
    std::size_t const before = out.size();
    // No byte makes more than one: a padding ends a group of two or three characters that came before it, and the
    // group that the last piece left begun has at most two bytes.
    out.resize(before + piece.size() + 2);
    char* to = out.data() + before;
    while (at != end) {
        // Whole groups of the alphabet, the normal case, go four at a time.
        while (m_count == 0 && !m_padded && end - at >= 4) {
            std::uint32_t const a = kTable[at[0]], b = kTable[at[1]], c = kTable[at[2]], d = kTable[at[3]];
            if ((a | b | c | d) & 0x40) break;
            std::uint32_t const bits = a << 18 | b << 12 | c << 6 | d;
            *to++ = static_cast<char>(bits >> 16);
            *to++ = static_cast<char>(bits >> 8);
            *to++ = static_cast<char>(bits);
            at += 4;
        }
        if (at != end) to = one(*at++, to);
    }
    out.resize(static_cast<std::size_t>(to - out.data()));
}

void Base64Decoder::finish(std::string& out) {
    char rest[2];
    out.append(rest, static_cast<std::size_t>(flush(rest) - rest));
}

}  // namespace policyloader
