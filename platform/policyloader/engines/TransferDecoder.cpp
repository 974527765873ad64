#include <policyloader/engines/TransferDecoder.h>

#include <algorithm>
#include <cctype>

#include <policyloader/engines/UuSpotter.h>

namespace policyloader {
namespace {

constexpr std::size_t kMaxUuLine = 1024;   // what is longer is cut
constexpr std::size_t kMaxBlanks = 65536;  // in a row; more of them are no line's end

struct Row {
    std::string_view name;
    TransferEncoding encoding;
};
constexpr Row kRows[] = {
    {"", TransferEncoding::Identity},           {"7bit", TransferEncoding::Identity},
    {"8bit", TransferEncoding::Identity},       {"binary", TransferEncoding::Identity},
    {"base64", TransferEncoding::Base64},       {"quoted-printable", TransferEncoding::QuotedPrintable},
    {"x-uuencode", TransferEncoding::UUEncode}, {"uuencode", TransferEncoding::UUEncode},
    {"x-uue", TransferEncoding::UUEncode},
};

bool IsWordByte(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '-'; }

// The first word behind blanks, quotes and comments, in small letters.
std::string FirstWord(std::string_view text) {
    std::string word;
    unsigned comments = 0;
    for (char const c : text) {
        if (c == '(') ++comments;
        if (comments == 0 && IsWordByte(c))
            word.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
        else if (!word.empty())
            break;
        if (c == ')' && comments > 0) --comments;
    }
    return word;
}

}  // namespace

std::optional<TransferEncoding> ParseTransferEncoding(std::string_view header) {
    auto const word = FirstWord(header);
    for (auto const& row : kRows)
        if (row.name == word) return row.encoding;
    return std::nullopt;
}

TransferDecoder::TransferDecoder(TransferEncoding encoding) : m_encoding(encoding) {
    g_mime_encoding_init_decode(&m_quoted, GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE);
}

std::string_view TransferDecoder::decode(std::string_view piece) {
    if (m_encoding == TransferEncoding::Identity) return piece;
    m_buffer.clear();
    if (m_encoding == TransferEncoding::Base64) {
        m_base64.decode(piece, m_buffer);
        return m_buffer;
    }
    if (m_encoding == TransferEncoding::UUEncode) return uudecode(piece);
    piece = withoutTrailingBlanks(piece);
    m_buffer.resize(g_mime_encoding_outlen(&m_quoted, piece.size()));
    m_buffer.resize(g_mime_encoding_step(&m_quoted, piece.data(), piece.size(), m_buffer.data()));
    return m_buffer;
}

// Blanks at the end of a line were added on the way: without them a "=" there is a soft line end.
std::string_view TransferDecoder::withoutTrailingBlanks(std::string_view piece) {
    m_trimmed.clear();
    while (!piece.empty()) {
        std::size_t const text = std::min(piece.find_first_not_of(" \t\r"), piece.size());
        m_line.append(piece.substr(0, text));
        piece.remove_prefix(text);
        bool const lineEnds = !piece.empty() && piece.front() == '\n';
        if (lineEnds && !m_line.empty()) m_line = m_line.back() == '\r' ? "\r" : "";
        if (piece.empty() && m_line.size() < kMaxBlanks) break;  // not known yet what they stand in front of
        m_trimmed.append(m_line);
        m_line.clear();
        std::size_t const end = std::min(piece.find_first_of(" \t\r"), piece.size());
        m_trimmed.append(piece.substr(0, end));
        piece.remove_prefix(end);
    }
    return m_trimmed;
}

// Line by line: the MIME library's own way with uuencode loses bytes where a piece ends within a line.
std::string_view TransferDecoder::uudecode(std::string_view piece) {
    while (!piece.empty() && !m_ended) {
        std::size_t const end = piece.find('\n');
        auto const more = piece.substr(0, end);
        m_line.append(more.substr(0, kMaxUuLine - std::min(kMaxUuLine, m_line.size())));
        piece.remove_prefix(end == std::string_view::npos ? piece.size() : end + 1);
        if (end != std::string_view::npos) uuLine();
    }
    return m_buffer;
}

void TransferDecoder::uuLine() {
    if (!m_line.empty() && m_line.back() == '\r') m_line.pop_back();
    bool const begins = m_line.compare(0, 6, "begin ") == 0;
    m_ended = m_begun && m_line == "end";
    if (m_begun && !m_ended && !begins) AppendUuLine(m_line, m_buffer);
    m_begun |= begins;
    m_line.clear();
}

std::string_view TransferDecoder::finish() {
    m_buffer.clear();
    if (m_encoding == TransferEncoding::Base64) m_base64.finish(m_buffer);
    if (m_encoding == TransferEncoding::UUEncode && !m_ended) uuLine();
    if (m_encoding != TransferEncoding::QuotedPrintable) return m_buffer;
    m_buffer.resize(g_mime_encoding_outlen(&m_quoted, 0) + 8);
    m_buffer.resize(g_mime_encoding_flush(&m_quoted, "", 0, m_buffer.data()));
    return m_buffer;
}

}  // namespace policyloader
