#include <KORnet/EmailAddr.h>

#include <string_view>

namespace KORnet {
namespace {

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view Trim(std::string_view text) {
    while (!text.empty() && IsSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && IsSpace(text.back())) text.remove_suffix(1);
    return text;
}

// Walks a text and knows at each character whether it stands in a quoted string.
class QuoteWalk {
public:
    bool Quoted(char c) {  // takes the next character; true when it is quoted, quote marks included
        if (m_escaped) {
            m_escaped = false;
            return true;
        }
        m_escaped = c == '\\';
        if (c == '"') {
            m_inside = !m_inside;
            return true;
        }
        return m_inside || m_escaped;
    }

private:
    bool m_inside = false;
    bool m_escaped = false;
};

std::string WithoutComments(std::string_view text) {
    std::string out;
    QuoteWalk walk;
    int depth = 0;
    for (char const c : text) {
        bool const quoted = walk.Quoted(c);
        if (!quoted && c == '(') {
            ++depth;
        } else if (!quoted && c == ')' && depth > 0) {
            --depth;
        } else if (depth == 0) {
            out += c;
        }
    }
    return depth == 0 ? out : std::string(text);  // not closed: no comment
}

// What stands in the last unquoted <...>, or the whole text.
std::string_view InAngles(std::string_view text) {
    QuoteWalk walk;
    std::size_t open = text.npos, close = text.npos;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (walk.Quoted(text[i])) continue;
        if (text[i] == '<') {
            open = i;
            close = text.npos;
        } else if (text[i] == '>' && open != text.npos && close == text.npos) {
            close = i;
        }
    }
    if (open == text.npos) return text;
    return text.substr(open + 1, close == text.npos ? text.npos : close - open - 1);
}

std::string_view WithoutRoute(std::string_view text) {
    if (text.empty() || text.front() != '@') return text;
    std::size_t const colon = text.find(':');
    return colon == text.npos ? text : text.substr(colon + 1);
}

std::size_t LastAt(std::string_view text) {
    QuoteWalk walk;
    std::size_t at = text.npos;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (!walk.Quoted(text[i]) && text[i] == '@') at = i;
    }
    return at == text.npos ? text.rfind('@') : at;  // a quote that is never closed hides nothing
}

bool IsAtom(char c) {
    constexpr std::string_view kMarks = "!#$%&'*+-/=?^_`{|}~";
    auto const byte = static_cast<unsigned char>(c);
    bool const letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    return letter || byte >= 0x80 || kMarks.find(c) != kMarks.npos;
}

bool IsDotAtom(std::string_view text) {
    char before = '.';
    for (char const c : text) {
        if (c == '.' ? before == '.' : !IsAtom(c)) return false;
        before = c;
    }
    return before != '.';
}

std::string Unquoted(std::string_view local) {
    if (local.size() < 2 || local.front() != '"' || local.back() != '"') return std::string(local);
    std::string bare;
    bool escaped = false;
    for (char const c : local.substr(1, local.size() - 2)) {
        escaped = !escaped && c == '\\';
        if (!escaped) bare += c;
    }
    return IsDotAtom(bare) ? bare : std::string(local);
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

EmailAddr::EmailAddr(std::string const& text) {
    std::string const bare = WithoutComments(text);
    std::string_view const address = Trim(WithoutRoute(Trim(InAngles(bare))));
    std::size_t const at = LastAt(address);
    m_local = Unquoted(Trim(address.substr(0, at)));
    if (at != address.npos) m_domain = Trim(address.substr(at + 1));
}

std::string EmailAddr::asPlainString(bool lower_domain) const {
    if (m_domain.empty()) return m_local;
    std::string plain = m_local + '@';
    for (char const c : m_domain) plain += lower_domain ? Lower(c) : c;
    return plain;
}

}  // namespace KORnet
