#include <policyloader/engines/HeaderText.h>

#include <algorithm>
#include <cctype>
#include <memory>

#include <glib.h>
#include <gmime/gmime-utils.h>

#include <policyloader/engines/EncodedWords.h>
#include <policyloader/engines/TextDecoder.h>

namespace policyloader {
namespace {

class AddressCounter {
public:
    void take(char c) {
        if (m_escaped) return void(m_escaped = false);
        bool const covered = m_quoted || m_literal || m_comments > 0;
        m_escaped = covered && c == '\\';
        if (m_quoted)
            m_quoted = c != '"';
        else if (m_comments > 0)
            m_comments = m_comments + (c == '(') - (c == ')');
        else if (m_literal)
            m_literal = c != ']';
        else
            open(c);
    }
    std::size_t count() const { return m_count + m_begun; }
    bool malformed() const { return m_quoted || m_angle || m_literal || m_comments > 0; }

private:
    void open(char c) {
        m_quoted = c == '"';
        m_literal = c == '[';
        m_comments = c == '(';
        if (c == '<' || c == '>') m_angle = c == '<';
        bool const ends = !m_angle && (c == ',' || c == ';');
        bool const named = !m_angle && c == ':';  // what stood there is the name of a group
        m_count += ends && m_begun;
        if (ends || named)
            m_begun = false;
        else if (c != '(' && !std::isspace(static_cast<unsigned char>(c)))
            m_begun = true;
    }

    std::size_t m_count = 0;
    std::size_t m_comments = 0;
    bool m_begun = false, m_quoted = false, m_angle = false, m_literal = false, m_escaped = false;
};

}  // namespace

std::string DecodedHeader(std::string const& value) {
    std::unique_ptr<char, void (*)(void*)> const text(
        g_mime_utils_header_decode_text(nullptr, FitForDecoding(value).c_str()), &g_free);
    return text ? ToCleanUtf8(text.get()) : std::string();
}

std::size_t CountAddresses(std::string_view list) {
    AddressCounter counter;
    for (char const c : list) counter.take(c);
    if (!counter.malformed()) return counter.count();
    auto const commas = static_cast<std::size_t>(std::count(list.begin(), list.end(), ','));
    return std::max(counter.count(), commas + 1);
}

}  // namespace policyloader
