// NameText: the labels of a DNS name as text, in plain words; the system's library escapes parentheses as well.
// Walked: how many bytes a packed name goes over.
// Owner: the target. Thread: one. Failure: none; the labels are known to be right.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

namespace velt_fuzz {

inline std::string NameText(unsigned char const* labels) {
    std::string text;
    for (; *labels != 0; labels += *labels + 1) {
        if (!text.empty()) text += '.';
        for (unsigned i = 1; i <= *labels; ++i) {
            char const c = static_cast<char>(labels[i]);
            char number[8];
            std::snprintf(number, sizeof number, "\\%03d", labels[i]);
            if (std::string("\"$.;@\\").find(c) != std::string::npos)
                text += std::string("\\") + c;
            else
                text += c >= 0x21 && c <= 0x7E ? std::string(1, c) : std::string(number);
        }
    }
    return text.empty() ? "." : text;
}

// Of a name that is known to be right. As many as the message has count as a loop.
inline std::size_t Walked(unsigned char const* message, unsigned char const* at) {
    std::size_t seen = 0;
    while (*at != 0) {
        bool const pointer = *at >= 0xC0;
        seen += pointer ? 2u : *at + 1u;
        at = pointer ? message + (at[0] & 0x3F) * 256 + at[1] : at + *at + 1;
    }
    return seen;
}

}  // namespace velt_fuzz
