// HtmlPlaces: where something can be put into a page so that it is seen: at the begin and at the end of its body.
// Owner: one part, its thread.  Units: bytes from the start of the page.  Failure: none; a page without the usual tags
// has its begin and its end, and one that ends within a comment or a tag has its place in front of that.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace policyloader {

class HtmlPlaces {
public:
    void feed(std::string_view piece);
    std::uint64_t top() const;     // in front of what is seen first
    std::uint64_t bottom() const;  // behind what is seen last

private:
    enum class State { Text, Name, Tag, Comment, Raw };
    void name(char c);
    void tag(char c);
    void comment(char c);
    void raw(char c);
    void endTag();

    State m_state = State::Text;
    std::uint64_t m_at = 0;     // of the next byte
    std::uint64_t m_begin = 0;  // of the tag, comment or raw text that is open
    std::string m_name;         // of the tag, in small letters
    std::string m_rawName;      // of the element whose content is no markup
    std::string m_tail;         // the last bytes of it
    char m_quote = 0;
    char m_last = 0;
    std::optional<std::uint64_t> m_bodyBegin, m_bodyEnd, m_htmlBegin, m_htmlEnd, m_headEnd, m_typeEnd;
};

}  // namespace policyloader
