// The encoded words of header fields (RFC 2047), made fit for the MIME library. Threads: any. Failure: none; what is no
// encoded word stays as it is.
#pragma once

#include <string>
#include <string_view>

namespace policyloader {

// A field's value with the base64 words that stand side by side made one. The library takes them for one stretch of
// base64, and reads no further than the first padding; mail programs pad each word.
std::string WithWholeWords(std::string_view value);

// The value as the library may decode it: with whole words, and with known character sets alone.
std::string FitForDecoding(std::string_view value);

}  // namespace policyloader
