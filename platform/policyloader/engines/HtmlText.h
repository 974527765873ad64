// HtmlText: what a reader of HTML sees, in pieces: tags and comments gone, entities read, a blank where a block ends.
// Owner: one body, its thread.  Units: bytes of UTF-8 in and out.  Failure: none; what is no HTML comes out as it is.
#pragma once

#include <string>
#include <string_view>

namespace policyloader {

class HtmlText {
public:
    std::string_view decode(std::string_view piece);  // valid until the next call
    std::string_view finish();

private:
    enum class State { Text, Tag, Comment, Entity };
    void text(char c);
    void tag(char c);
    void comment(char c);
    void entity(char c);
    void endTag();

    State m_state = State::Text;
    std::string m_word;  // the tag's name, or the entity, begun
    // Within a tag.
    char m_quote = 0;      // the quotation mark that is open
    char m_last = 0;       // the last byte that is no blank
    bool m_named = false;  // its name has ended
    std::string m_out;
};

}  // namespace policyloader
