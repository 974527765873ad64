// CharsetConverter: text of one character set into another, in pieces and to the byte: line ends stay as they are, and
// a character that has no place in the other set is told.
// Owner: one part, its thread.  Units: bytes.  Failure: none; what cannot be converted becomes "?", and `lossy` is set.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <iconv.h>

namespace policyloader {

// How text of a character set may be added to.
enum class CharsetKind {
    Ascii,    // or none is declared
    Utf8,     //
    Bytes,    // ASCII is itself in it, and no byte means something else behind another one
    Whole,    // only the whole text can be converted: several bytes for each character, or states
    Unknown,  // what an ASCII byte means is known, and nothing else
    Foreign,  // not even that
};
CharsetKind KindOfCharset(std::string const& name);

class CharsetConverter {
public:
    CharsetConverter(std::string const& from, std::string const& to);
    ~CharsetConverter();
    CharsetConverter(CharsetConverter const&) = delete;
    CharsetConverter& operator=(CharsetConverter const&) = delete;

    std::string_view convert(std::string_view piece);  // valid until the next call
    std::string_view finish();
    bool lossy() const { return m_lossy; }

private:
    void convertAll(std::string_view bytes);

    iconv_t m_iconv;
    std::string m_carry;  // the begun character at the end of the last piece
    std::string m_out;
    bool m_lossy = false;
};

bool IsAscii(std::string_view text);

// All of it, or nothing.
std::optional<std::string> FromUtf8(std::string const& text, std::string const& charset);
// What does not fit is put as `other` says.
std::string FromUtf8(std::string const& text, std::string const& charset,
                     std::function<std::string(char32_t)> const& other);

}  // namespace policyloader
