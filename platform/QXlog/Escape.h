// Escaping of text that came from anywhere, so that a record is one line and shows what it holds.
// Control characters, line separators and characters that turn the writing direction are escaped in every form.
// Threads: any. Units: `limit` is bytes of the text before escaping; a text that is cut ends in "...".
#pragma once

#include <string>
#include <string_view>

namespace QXlog::detail {

void AppendPlain(std::string& out, std::string_view text,
                 std::size_t limit);  // \n \x1b \u{202e}; a byte of no text \xff
void AppendToken(std::string& out, std::string_view text,
                 std::size_t limit);  // as it is when one word, else "in quotes"
void AppendJson(std::string& out, std::string_view text, std::size_t limit);  // a JSON string; a byte of no text \ufffd

}  // namespace QXlog::detail
