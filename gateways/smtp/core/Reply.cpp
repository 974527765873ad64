#include "Reply.h"

#include <algorithm>
#include <charconv>

#include "Address.h"

namespace smtp {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// "5.7.1" at the front of a line, of the class that the code has; empty when there is none.
std::string_view StatusAtFront(std::string_view line, int codeClass) {
    std::size_t const end = std::min(line.find(' '), line.size());
    std::string_view const word = line.substr(0, end);
    int dots = 0;
    for (std::size_t i = 0; i < word.size(); ++i) {
        bool const dot = word[i] == '.';
        if (!dot && !IsDigit(word[i])) return {};
        if (dot && (i == 0 || i + 1 == word.size() || word[i - 1] == '.')) return {};
        dots += dot;
    }
    bool const shape = dots == 2 && word.size() >= 5 && word.size() <= 9 && word[1] == '.';
    return shape && word[0] - '0' == codeClass ? word : std::string_view{};
}

void AppendLine(std::string& out, Reply const& reply, std::string_view line, bool last) {
    out += std::to_string(reply.code);
    out += last ? ' ' : '-';
    if (!reply.status.empty()) out.append(reply.status) += ' ';
    out.append(line) += "\r\n";
}

}  // namespace

std::string Reply::wire() const {
    std::string out;
    std::string_view rest = text;
    while (true) {
        std::size_t const end = rest.find('\n');
        bool const last = end == std::string_view::npos;
        AppendLine(out, *this, rest.substr(0, end), last);
        if (last) return out;
        rest.remove_prefix(end + 1);
    }
}

std::string Printable(std::string_view text, std::size_t limit) {
    std::string out(text.substr(0, limit));
    for (char& c : out) {
        if (c == '\t' || c == '\r' || c == '\n') c = ' ';
        if (static_cast<unsigned char>(c) < 32 || static_cast<unsigned char>(c) > 126) c = '?';
    }
    return out;
}

ReplyParser::Status ReplyParser::Take(std::string_view line) {
    if (!m_open) {
        m_reply = Reply{};
        m_lines.clear();
    }
    bool const digits = line.size() >= 3 && line[0] >= '2' && line[0] <= '5' && IsDigit(line[1]) && IsDigit(line[2]);
    bool const separated = line.size() == 3 || (line.size() > 3 && (line[3] == ' ' || line[3] == '-'));
    int code = 0;
    if (digits) std::from_chars(line.data(), line.data() + 3, code);
    bool const sameCode = !m_open || code == m_reply.code;
    m_open = false;
    if (!digits || !separated || !sameCode || m_lines.size() >= kMaxLines) return Status::Malformed;
    m_reply.code = code;
    m_lines.emplace_back(line.substr(std::min<std::size_t>(4, line.size())));
    m_open = line.size() > 3 && line[3] == '-';
    return m_open ? Status::More : Finish();
}

ReplyParser::Status ReplyParser::Finish() {
    for (std::string_view line : m_lines) {
        std::string_view const status = StatusAtFront(line, m_reply.group());
        if (m_reply.status.empty()) m_reply.status = status;
        if (!status.empty()) line.remove_prefix(std::min(status.size() + 1, line.size()));
        if (!m_reply.text.empty()) m_reply.text += ' ';
        m_reply.text.append(Printable(line, 512));
    }
    return Status::Complete;
}

Capabilities Capabilities::FromEhlo(std::vector<std::string> const& lines) {
    Capabilities found;
    for (std::size_t i = 1; i < lines.size(); ++i) {
        std::string_view const line = lines[i];
        std::string_view const word = line.substr(0, line.find(' '));
        if (EqualNoCase(word, "PIPELINING")) found.pipelining = true;
        if (EqualNoCase(word, "8BITMIME")) found.eightBitMime = true;
        if (!EqualNoCase(word, "SIZE")) continue;
        found.size = true;
        if (line.size() > 5) std::from_chars(line.data() + 5, line.data() + line.size(), found.maxSize);
    }
    return found;
}

std::string StatusOf(Reply const& reply) {
    return reply.status.empty() ? std::to_string(reply.group()) + ".0.0" : reply.status;
}

}  // namespace smtp
