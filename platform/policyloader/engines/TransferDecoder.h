// TransferDecoder: undoes one content transfer encoding in pieces.  Owner: one body, its thread.
// Units: bytes.  Failure: none; what is not of the encoding is passed over as readers do, and oddity is remembered.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <gmime/gmime-encodings.h>

#include <policyloader/engines/Base64Decoder.h>

namespace policyloader {

enum class TransferEncoding { Identity, Base64, QuotedPrintable, UUEncode };

// Identity for 7bit, 8bit, binary and for nothing at all; nullopt for what no reader knows.
std::optional<TransferEncoding> ParseTransferEncoding(std::string_view header);

class TransferDecoder {
public:
    explicit TransferDecoder(TransferEncoding encoding);
    std::string_view decode(std::string_view piece);  // valid until the next call, or the piece itself
    std::string_view finish();
    bool odd() const { return m_base64.sawStrayPadding(); }

private:
    std::string_view uudecode(std::string_view piece);
    void uuLine();
    std::string_view withoutTrailingBlanks(std::string_view piece);

    TransferEncoding m_encoding;
    Base64Decoder m_base64;
    GMimeEncoding m_quoted;
    // Of uuencode: the line that has begun. Of quoted-printable: blanks that may stand at the end of their line.
    std::string m_line;
    std::string m_trimmed;
    bool m_begun = false;  // the line "begin <mode> <name>" was seen
    bool m_ended = false;  // and the line "end"
    std::string m_buffer;
};

}  // namespace policyloader
