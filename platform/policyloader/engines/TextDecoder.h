// TextDecoder: text of any character set, in pieces, to valid UTF-8 with plain line feeds, fit for matching.
// Owner: one body, its thread.  Units: bytes.  Failure: none; a byte that is no character becomes U+FFFD, and an
// unknown character set is read as the western one that every byte fits.
#pragma once

#include <string>
#include <string_view>

#include <iconv.h>

namespace policyloader {

class TextDecoder {
public:
    explicit TextDecoder(std::string const& charset);
    ~TextDecoder();
    TextDecoder(TextDecoder const&) = delete;
    TextDecoder& operator=(TextDecoder const&) = delete;

    std::string_view decode(std::string_view piece);  // valid until the next call, or the piece itself
    std::string_view finish();

private:
    void convert(std::string_view piece);
    void sanitize(std::string_view piece);
    void plainLineFeeds();

    iconv_t m_iconv;      // -1: the input is UTF-8 already
    std::string m_carry;  // the begun character at the end of the last piece
    std::string m_buffer;
    bool m_carriageReturn = false;  // the last piece ended in one
};

// One whole text.
std::string ToCleanUtf8(std::string_view text);

}  // namespace policyloader
