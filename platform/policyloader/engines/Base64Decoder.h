// Base64Decoder: base64 in pieces, as forgiving as the most forgiving mail reader: bytes outside the alphabet are
// skipped, a padding ends a group and the next begins, an unpadded end counts.  Owner: one body, its thread.
// Units: bytes.  Failure: none; every input decodes to something.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace policyloader {

class Base64Decoder {
public:
    enum Padding { EndsGroup, Skipped };  // two ways of readers to take "=" in the middle
    explicit Base64Decoder(Padding padding = EndsGroup) : m_padding(padding) {}

    void decode(std::string_view piece, std::string& out);  // appends
    void finish(std::string& out);                          // appends what an unpadded end still holds
    void restart() { m_bits = m_count = 0; }                // forgets a group begun

    bool sawStrayPadding() const { return m_stray; }  // data came after a padding, or other bytes came between

private:
    char* one(unsigned char byte, char* to);
    char* flush(char* to);

    Padding m_padding;
    std::uint32_t m_bits = 0;
    unsigned m_count = 0;  // characters in the group begun
    bool m_padded = false;
    bool m_stray = false;
};

}  // namespace policyloader
