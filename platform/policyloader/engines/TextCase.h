// TextCase: texts compared without regard to the case of their ASCII letters.
// Free functions; any thread.  Units: bytes.  Failure: none.
#pragma once

#include <string_view>

#include <strings.h>

namespace policyloader {

inline bool SameText(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

inline bool TextEnds(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && SameText(text.substr(text.size() - end.size()), end);
}

// `pattern`: a whole text, or its beginning with a "*".
inline bool FitsBeginning(std::string_view pattern, std::string_view text) {
    if (pattern.empty() || pattern.back() != '*') return SameText(pattern, text);
    pattern.remove_suffix(1);
    return SameText(pattern, text.substr(0, pattern.size()));
}

}  // namespace policyloader
