#include <policyloader/engines/HtmlText.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include <glib.h>

namespace policyloader {
namespace {

constexpr std::size_t kMaxWord = 16;  // of a tag's name or an entity that is looked at

// Tags that do not part words.
constexpr std::string_view kInline[] = {"a",    "abbr", "b",     "big",  "code",   "del", "em",  "font", "i", "ins",
                                        "mark", "s",    "small", "span", "strong", "sub", "sup", "tt",   "u", "wbr"};

struct Entity {
    std::string_view name;
    std::string_view text;
};
constexpr Entity kEntities[] = {
    {"amp", "&"},   {"apos", "'"}, {"auml", "\xC3\xA4"},   {"Auml", "\xC3\x84"},   {"euro", "\xE2\x82\xAC"},
    {"gt", ">"},    {"lt", "<"},   {"nbsp", " "},          {"ouml", "\xC3\xB6"},   {"Ouml", "\xC3\x96"},
    {"quot", "\""}, {"shy", ""},   {"szlig", "\xC3\x9F"},  {"uuml", "\xC3\xBC"},   {"Uuml", "\xC3\x9C"},
    {"zwj", ""},    {"zwnj", ""},  {"eacute", "\xC3\xA9"}, {"egrave", "\xC3\xA8"}, {"agrave", "\xC3\xA0"},
};

// "#65" or "#x41"; false: no character.
bool AppendNumber(std::string const& word, std::string& out) {
    bool const hex = word.size() > 2 && (word[1] == 'x' || word[1] == 'X');
    char* end = nullptr;
    unsigned long const code = std::strtoul(word.c_str() + (hex ? 2 : 1), &end, hex ? 16 : 10);
    if (*end != '\0' || word.size() < 2 || code > 0x10FFFF || !g_unichar_validate(static_cast<gunichar>(code)))
        return false;
    char text[6];
    out.append(text, static_cast<std::size_t>(g_unichar_to_utf8(static_cast<gunichar>(code), text)));
    return true;
}

bool AppendEntity(std::string const& word, std::string& out) {
    if (!word.empty() && word[0] == '#') return AppendNumber(word, out);
    for (auto const& row : kEntities) {
        if (row.name != word) continue;
        out.append(row.text);
        return true;
    }
    return false;
}

}  // namespace

std::string_view HtmlText::decode(std::string_view piece) {
    m_out.clear();
    for (char const c : piece) {
        switch (m_state) {
            case State::Text:
                text(c);
                break;
            case State::Tag:
                tag(c);
                break;
            case State::Comment:
                comment(c);
                break;
            case State::Entity:
                entity(c);
                break;
        }
    }
    return m_out;
}

std::string_view HtmlText::finish() {
    m_out.clear();
    if (m_state == State::Entity) m_out.append("&").append(m_word);
    return m_out;
}

void HtmlText::text(char c) {
    m_word.clear();
    m_quote = m_last = 0;
    m_named = false;
    if (c == '<')
        m_state = State::Tag;
    else if (c == '&')
        m_state = State::Entity;
    else
        m_out.push_back(c);
}

void HtmlText::tag(char c) {
    bool const opens =
        m_word.empty() && !std::isalpha(static_cast<unsigned char>(c)) && c != '/' && c != '!' && c != '?';
    if (opens) {
        // A "<" that begins no tag.
        m_state = State::Text;
        m_out.push_back('<');
        return text(c);
    }
    if (m_quote != 0) {
        if (c == m_quote) m_quote = 0;
        return;
    }
    if (c == '>') return endTag();
    bool const isBlank = std::isspace(static_cast<unsigned char>(c));
    if ((c == '"' || c == '\'') && m_last == '=') m_quote = c;
    if (!isBlank) m_last = c;
    m_named |= isBlank || (c == '/' && !m_word.empty());
    if (!m_named && m_word.size() < kMaxWord) m_word.push_back(c);
    if (m_word != "!--") return;
    m_state = State::Comment;
    m_word.clear();
}

void HtmlText::endTag() {
    std::size_t const begin = m_word.empty() || m_word[0] != '/' ? 0 : 1;
    std::string name = m_word.substr(begin);
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    if (std::find(std::begin(kInline), std::end(kInline), name) == std::end(kInline)) m_out.push_back(' ');
    m_state = State::Text;
}

void HtmlText::comment(char c) {
    if (c == '>' && m_word == "--") {
        m_state = State::Text;
        return;
    }
    m_word.push_back(c);
    if (m_word.size() > 2) m_word.erase(0, 1);
}

void HtmlText::entity(char c) {
    if (c == ';' && AppendEntity(m_word, m_out)) {
        m_state = State::Text;
        return;
    }
    bool const goesOn = std::isalnum(static_cast<unsigned char>(c)) || (c == '#' && m_word.empty());
    if (goesOn && m_word.size() < kMaxWord) {
        m_word.push_back(c);
        return;
    }
    // No entity: what was taken for one is text.
    if (!AppendEntity(m_word, m_out)) m_out.append("&").append(m_word);
    m_state = State::Text;
    text(c);
}

}  // namespace policyloader
