#include <policyloader/engines/TransferEncoder.h>

#include <algorithm>
#include <utility>

#include <glib.h>

namespace policyloader {
namespace {

constexpr std::size_t kMostColumns = 76;
constexpr std::size_t kBlock = 3072;

// At the start of a line these begin a boundary, the end of a mail, or a mail of an mbox.
bool StartsSomething(unsigned char c) { return c == '-' || c == '.' || c == 'F'; }

}  // namespace

TransferEncoder::TransferEncoder(TransferEncoding encoding, std::string lineEnd)
    : m_encoding(encoding), m_lineEnd(std::move(lineEnd)) {}

std::string_view TransferEncoder::encode(std::string_view piece) {
    if (m_encoding == TransferEncoding::Identity) return piece;
    m_out.clear();
    if (m_encoding == TransferEncoding::QuotedPrintable) {
        for (char const c : piece) quote(static_cast<unsigned char>(c));
        return m_out;
    }
    char room[kBlock * 4 / 3 + 8];
    while (!piece.empty()) {
        auto const block = piece.substr(0, kBlock);
        auto const* const bytes = reinterpret_cast<guchar const*>(block.data());
        put64(room, g_base64_encode_step(bytes, block.size(), FALSE, room, &m_state, &m_save));
        piece.remove_prefix(block.size());
    }
    return m_out;
}

std::string_view TransferEncoder::finish() {
    m_out.clear();
    putBlank(!m_carriageReturn);
    if (std::exchange(m_carriageReturn, false)) putQuoted('\r', true);
    if (m_encoding != TransferEncoding::Base64) return m_out;
    char room[8];
    put64(room, g_base64_encode_close(FALSE, room, &m_state, &m_save));
    return m_out;
}

void TransferEncoder::put64(char const* from, std::size_t count) {
    while (count > 0) {
        if (m_column == kMostColumns) {
            m_out += m_lineEnd;
            m_column = 0;
        }
        std::size_t const fits = std::min(count, kMostColumns - m_column);
        m_out.append(from, fits);
        from += fits, count -= fits, m_column += fits;
    }
}

void TransferEncoder::quote(unsigned char c) {
    if (std::exchange(m_carriageReturn, false)) {
        if (c == '\n') return endQuotedLine();
        putBlank(false);
        putQuoted('\r', true);
    }
    bool const twoBytes = m_lineEnd.size() > 1;
    if (c == '\n' && !twoBytes) return endQuotedLine();
    if (c == '\r' && twoBytes) return void(m_carriageReturn = true);
    putBlank(false);
    if (c == ' ' || c == '\t') return void(m_blank = static_cast<char>(c));
    putQuoted(c, c < '!' || c > '~' || c == '=');
}

void TransferEncoder::endQuotedLine() {
    putBlank(true);
    m_out += m_lineEnd;
    m_column = 0;
}

void TransferEncoder::putBlank(bool atLineEnd) {
    char const blank = std::exchange(m_blank, 0);
    if (blank) putQuoted(static_cast<unsigned char>(blank), atLineEnd);
}

void TransferEncoder::putQuoted(unsigned char c, bool encoded) {
    static constexpr char digits[] = "0123456789ABCDEF";
    if (m_column + (encoded ? 3 : 1) >= kMostColumns) {
        m_out.append("=").append(m_lineEnd);
        m_column = 0;
    }
    if (!encoded && !(m_column == 0 && StartsSomething(c))) {
        m_out.push_back(static_cast<char>(c));
        ++m_column;
        return;
    }
    m_out.append({'=', digits[c >> 4], digits[c & 15]});
    m_column += 3;
}

}  // namespace policyloader
