// TextEdit: one text part of a mail with something put into it, written anew: its header where the character set or the
// transfer encoding changes, and its content in both.
// Owner: a scan, its thread.  Units: bytes.  Failure: EngineFailure of Read or Write.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <eFabric/Transport.h>

#include <policyloader/engines/Component.h>
#include <policyloader/engines/TransferDecoder.h>
#include <policyloader/engines/TransportIO.h>

namespace policyloader {

struct TextEdit {
    static constexpr std::uint64_t kEnd = ~std::uint64_t(0);

    Component const* component = nullptr;
    TransferEncoding from = TransferEncoding::Identity;
    TransferEncoding to = TransferEncoding::Identity;
    std::string charset;      // the text is taken to UTF-8 from this one; empty: its bytes stay
    std::string back;         // and then back to this one; empty: it stays UTF-8
    std::string contentType;  // the field's new value, folded by line feeds; empty: it stays
    std::uint64_t at = 0;     // in the text, decoded and where it is, converted
    std::string insertion;    // with line feeds
    std::string textLineEnd;  // of a text whose line ends are not those of the mail; empty: unknown
};

using ByteSink = std::function<void(std::string_view)>;

// The whole part, from its header on.
void WriteEdited(eFabric::IStreamTransport& in, TextEdit const& edit, std::string const& lineEnd, ReadBuffer& buffer,
                 ByteSink const& sink);

// Whether a line end stands there: a boundary has the one in front of it as its own, but a part that was empty shares
// that of its header block.
bool EndsLine(eFabric::IStreamTransport& in, std::uint64_t at, ReadBuffer& buffer);

}  // namespace policyloader
