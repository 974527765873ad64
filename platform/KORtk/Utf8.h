// UTF-8 by the code point, for those who look at text that came from the network.
// Threads: any. Failure: a byte that begins no well-formed sequence reads as an invalid step of length 1.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <Export.h>

namespace KORtk {

struct Utf8Step {
    char32_t codePoint;  // U+FFFD when not valid
    std::size_t length;  // bytes taken, at least 1
    bool valid;
};

// Reads the code point at the front of `text`, which is not empty. Overlong forms, surrogates and values above
// U+10FFFF are not valid.
VELTPLATFORM_API Utf8Step ReadUtf8(std::string_view text);
VELTPLATFORM_API void AppendUtf8(std::string& out, char32_t codePoint);  // what is no code point becomes U+FFFD
VELTPLATFORM_API std::size_t Utf8Prefix(std::string_view text, std::size_t limit);  // bytes <= limit, no sequence cut

}  // namespace KORtk
