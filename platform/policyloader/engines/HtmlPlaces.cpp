#include <policyloader/engines/HtmlPlaces.h>

#include <algorithm>
#include <cctype>
#include <iterator>

namespace policyloader {
namespace {

constexpr std::size_t kLongestTag = 16;
constexpr std::string_view kRawElements[] = {"script", "style", "title", "textarea", "xmp", "noframes", "iframe"};

bool IsRaw(std::string const& name) {
    return std::find(std::begin(kRawElements), std::end(kRawElements), name) != std::end(kRawElements);
}

char Lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }
bool IsBlank(char c) { return std::isspace(static_cast<unsigned char>(c)); }

}  // namespace

void HtmlPlaces::feed(std::string_view piece) {
    for (char const c : piece) {
        switch (m_state) {
            case State::Text:
                if (c == '<') m_state = State::Name, m_begin = m_at, m_name.clear();
                break;
            case State::Name:
                name(c);
                break;
            case State::Tag:
                tag(c);
                break;
            case State::Comment:
                comment(c);
                break;
            case State::Raw:
                raw(c);
                break;
        }
        ++m_at;
    }
}

void HtmlPlaces::name(char c) {
    bool const first = m_name.empty();
    if (first && !std::isalpha(static_cast<unsigned char>(c)) && c != '/' && c != '!' && c != '?') {
        m_state = c == '<' ? State::Name : State::Text;  // no tag
        if (c == '<') m_begin = m_at;
        return;
    }
    if (c == '>' || IsBlank(c) || (c == '/' && !first)) {
        m_quote = m_last = 0;
        m_state = State::Tag;
        return tag(c);
    }
    if (m_name.size() < kLongestTag) m_name += Lower(c);
    if (m_name == "!--") m_state = State::Comment, m_tail.clear();
}

void HtmlPlaces::tag(char c) {
    if (m_quote) {
        if (c == m_quote) m_quote = 0;
        return;
    }
    if (c == '>') return endTag();
    if ((c == '"' || c == '\'') && m_last == '=') m_quote = c;
    if (!IsBlank(c)) m_last = c;
}

void HtmlPlaces::endTag() {
    std::uint64_t const behind = m_at + 1;
    m_state = State::Text;
    if (m_name == "body" && !m_bodyBegin) m_bodyBegin = behind;
    if (m_name == "html" && !m_htmlBegin) m_htmlBegin = behind;
    if (m_name == "/head" && !m_headEnd) m_headEnd = behind;
    if (m_name == "!doctype" && !m_typeEnd) m_typeEnd = behind;
    if (m_name == "/body") m_bodyEnd = m_begin;
    if (m_name == "/html") m_htmlEnd = m_begin;
    if (!IsRaw(m_name)) return;
    m_rawName = "</" + m_name;
    m_tail.clear();
    m_state = State::Raw;
}

void HtmlPlaces::comment(char c) {
    m_tail += c;
    if (m_tail.size() > 3) m_tail.erase(0, 1);
    bool const shut =
        m_tail == "-->" || (m_tail == ">" && m_at == m_begin + 4) || (m_tail == "->" && m_at == m_begin + 5);
    if (shut) m_state = State::Text;
}

void HtmlPlaces::raw(char c) {
    bool const ends = m_tail == m_rawName && (c == '>' || c == '/' || IsBlank(c));
    if (ends) {
        m_name = m_rawName.substr(1);
        m_quote = m_last = 0;
        m_state = State::Tag;
        return tag(c);
    }
    m_tail += Lower(c);
    if (m_tail.size() > m_rawName.size()) m_tail.erase(0, 1);
}

std::uint64_t HtmlPlaces::top() const {
    if (m_bodyBegin) return *m_bodyBegin;
    if (m_headEnd) return *m_headEnd;
    return m_htmlBegin ? *m_htmlBegin : m_typeEnd.value_or(0);
}

std::uint64_t HtmlPlaces::bottom() const {
    if (m_bodyEnd) return *m_bodyEnd;
    if (m_htmlEnd) return *m_htmlEnd;
    return m_state == State::Text ? m_at : m_begin;
}

}  // namespace policyloader
