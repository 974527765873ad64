#include <policyloader/engines/UuSpotter.h>

#include <algorithm>
#include <cctype>
#include <cstring>

namespace policyloader {
namespace {

constexpr std::string_view kBegin = "begin ";
constexpr std::size_t kMaxLine = 1024;  // what is longer is neither a "begin" line nor data

// What stands behind "begin" and a mode; empty: this is no such line.
std::string_view NameIn(std::string_view line) {
    if (line.substr(0, kBegin.size()) != kBegin) return {};
    line.remove_prefix(kBegin.size());
    std::size_t const digits = std::min(line.find_first_not_of("01234567"), line.size());
    bool const begins = digits >= 3 && digits <= 4 && digits + 1 < line.size() && line[digits] == ' ';
    return begins ? line.substr(digits + 1) : std::string_view();
}

bool MayBeBegin(std::string_view text) { return kBegin.substr(0, text.size()) == text.substr(0, kBegin.size()); }

unsigned ValueOf(char c) { return (static_cast<unsigned char>(c) - 32u) & 63u; }

}  // namespace

void AppendUuLine(std::string_view line, std::string& bytes) {
    if (line.empty()) return;
    std::size_t const whole = bytes.size() + ValueOf(line[0]);
    for (std::size_t at = 1; bytes.size() < whole; at += 4) {
        unsigned bits = 0;
        for (std::size_t k = 0; k < 4; ++k) bits = bits << 6 | (at + k < line.size() ? ValueOf(line[at + k]) : 0);
        for (int shift = 16; shift >= 0; shift -= 8) bytes += static_cast<char>(bits >> shift);
    }
    bytes.resize(whole);
}

void UuSpotter::feed(std::string_view piece) {
    for (std::size_t at = 0; at < piece.size();) {
        bool const holds = m_inFile || !m_line.empty() || m_atLineStart;
        at = holds ? takeLine(piece, at) : search(piece, at);
    }
}

// Goes on to the next line that may be a "begin".
std::size_t UuSpotter::search(std::string_view piece, std::size_t at) {
    void const* found = ::memmem(piece.data() + at, piece.size() - at, "\nbegin ", kBegin.size() + 1);
    if (!found) {  // the piece may end within one
        std::size_t const tail = piece.size() - std::min(piece.size() - at, kBegin.size());
        std::size_t const end = piece.find_last_of('\n');
        bool const cut = end != std::string_view::npos && end >= tail && MayBeBegin(piece.substr(end + 1));
        if (!cut && piece.back() != '\n') return piece.size();
        found = piece.data() + (cut ? end : piece.size() - 1);
    }
    m_atLineStart = true;
    return static_cast<std::size_t>(static_cast<char const*>(found) - piece.data()) + 1;
}

std::size_t UuSpotter::takeLine(std::string_view piece, std::size_t at) {
    std::size_t const end = piece.find('\n', at);
    std::size_t const next = end == std::string_view::npos ? piece.size() : end + 1;
    if (m_line.size() < kMaxLine) m_line.append(piece.substr(at, std::min(next - at, kMaxLine)));
    bool const whole = end != std::string_view::npos;
    m_atLineStart = whole;
    if (whole) {
        line();
        m_line.clear();
        if (!m_inFile && !MayBeBegin(piece.substr(next))) m_atLineStart = false;
        return next;
    }
    if (!m_inFile && !MayBeBegin(m_line)) m_line.clear();
    return next;
}

void UuSpotter::line() {
    while (!m_line.empty() && (m_line.back() == '\n' || m_line.back() == '\r')) m_line.pop_back();
    if (auto const name = NameIn(m_line); !name.empty()) {
        if (m_inFile) m_sink.end();
        m_sink.begin(name);
        m_inFile = true;
    } else if (m_inFile && m_line == "end") {
        m_sink.end();
        m_inFile = false;
    } else if (m_inFile && !m_line.empty()) {
        m_decoded.clear();
        AppendUuLine(m_line, m_decoded);
        m_sink.data(m_decoded);
    }
}

void UuSpotter::finish() {
    if (m_inFile && !m_line.empty()) line();
    if (m_inFile) m_sink.end();
    m_inFile = false;
    m_line.clear();
}

}  // namespace policyloader
