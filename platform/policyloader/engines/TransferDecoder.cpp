#include <policyloader/engines/TransferDecoder.h>

#include <algorithm>
#include <cctype>

namespace policyloader {
namespace {

constexpr std::size_t kMaxBeginLine = 1024;
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

GMimeContentEncoding LibraryName(TransferEncoding encoding) {
    return encoding == TransferEncoding::UUEncode ? GMIME_CONTENT_ENCODING_UUENCODE
                                                  : GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE;
}

}  // namespace

std::optional<TransferEncoding> ParseTransferEncoding(std::string_view header) {
    auto const word = FirstWord(header);
    for (auto const& row : kRows)
        if (row.name == word) return row.encoding;
    return std::nullopt;
}

TransferDecoder::TransferDecoder(TransferEncoding encoding) : m_encoding(encoding) {
    g_mime_encoding_init_decode(&m_other, LibraryName(encoding));
}

std::string_view TransferDecoder::decode(std::string_view piece) {
    if (m_encoding == TransferEncoding::Identity) return piece;
    m_buffer.clear();
    if (m_encoding == TransferEncoding::Base64) {
        m_base64.decode(piece, m_buffer);
        return m_buffer;
    }
    piece = m_encoding == TransferEncoding::UUEncode ? behindBegin(piece) : withoutTrailingBlanks(piece);
    m_buffer.resize(g_mime_encoding_outlen(&m_other, piece.size()));
    m_buffer.resize(g_mime_encoding_step(&m_other, piece.data(), piece.size(), m_buffer.data()));
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

// What stands behind the line "begin <mode> <name>"; nothing while that has not come.
std::string_view TransferDecoder::behindBegin(std::string_view piece) {
    while (!m_begun && !piece.empty()) {
        std::size_t const end = piece.find('\n');
        if (m_line.size() < kMaxBeginLine) m_line.append(piece.substr(0, end));
        piece.remove_prefix(end == std::string_view::npos ? piece.size() : end + 1);
        if (end == std::string_view::npos) return {};
        m_begun = m_line.compare(0, 6, "begin ") == 0;
        m_line.clear();
        if (m_begun) m_other.state = GMIME_UUDECODE_STATE_BEGIN;
    }
    return piece;
}

std::string_view TransferDecoder::finish() {
    m_buffer.clear();
    if (m_encoding == TransferEncoding::Base64) m_base64.finish(m_buffer);
    if (m_encoding != TransferEncoding::QuotedPrintable && m_encoding != TransferEncoding::UUEncode) return m_buffer;
    m_buffer.resize(g_mime_encoding_outlen(&m_other, 0) + 8);
    m_buffer.resize(g_mime_encoding_flush(&m_other, "", 0, m_buffer.data()));
    return m_buffer;
}

}  // namespace policyloader
