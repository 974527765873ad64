// The character sets that text is decoded from. Only these names ever reach the conversion libraries, since those keep
// each name that they were asked for until the process ends, and a sender may invent as many as he likes.
// Threads: any. What is not listed is read as windows-1252, as mail programs do.
#pragma once

#include <string>
#include <string_view>

namespace policyloader {

bool IsKnownCharset(std::string_view name);  // in any case of letters

// A header field's value with the unknown character sets of its encoded words (RFC 2047) and of its extended parameters
// (RFC 2231) replaced.
std::string WithKnownCharsets(std::string_view value);

}  // namespace policyloader
