// TransferEncoder: puts a content into a transfer encoding, in pieces. No line of what it writes can be taken for a
// boundary or for the end of a mail, and none is longer than 76 characters where it makes the lines itself.
// Owner: one part that is being written, its thread.  Units: bytes.  Failure: none.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <policyloader/engines/TransferDecoder.h>

namespace policyloader {

class TransferEncoder {
public:
    // Identity passes everything on; UUEncode is not written. In quoted-printable `lineEnd` is what counts as a line
    // end of the content, too: other line feeds and carriage returns are encoded.
    TransferEncoder(TransferEncoding encoding, std::string lineEnd);
    std::string_view encode(std::string_view piece);  // valid until the next call, or the piece itself
    std::string_view finish();                        // without a line end behind the last line

private:
    void quote(unsigned char c);
    void endQuotedLine();
    void putBlank(bool atLineEnd);
    void putQuoted(unsigned char c, bool encoded);
    void put64(char const* from, std::size_t count);

    TransferEncoding m_encoding;
    std::string m_lineEnd;
    std::string m_out;
    std::size_t m_column = 0;
    // Of quoted-printable: what may stand before a line end.
    char m_blank = 0;
    bool m_carriageReturn = false;
    // Of base64: the library's.
    int m_state = 0;
    int m_save = 0;
};

}  // namespace policyloader
