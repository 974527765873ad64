// What the client of scanner processes writes: the header blocks of its requests, and what follows the first of them
// (docs/formats/scan-protocol.md).
// Owner: the stack of the scan. Thread: the session's. Units: bytes; seconds since 1970.
// Failure: 0, or an errno value, of the first write that failed; nothing is written after it. A write that takes
// nothing is EIO.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include <velt/Export.h>
#include <velt/streams/BufferedStream.h>

namespace VELT {

class ScannerStream;
class TCPStream;

namespace scan_requests {

bool IsOneLine(std::string_view value);  // nothing in it ends a header line

// Bytes lie in the stream that no request asked for: what comes next would be taken for an answer that it is not.
bool IsOutOfStep(BufferedStream& stream);

struct Setup {
    std::string const& protocol;
    long time;
    unsigned size;
    char const* policy;
    std::string const& filename;  // empty: the content follows
};
std::string SetupBlock(Setup const& setup);
std::string ScanBlock(char const* identity, bool fallback, bool attributes);  // a null identity is none

// Gathers what is written in pieces, so that it leaves in few packets.
class VELT_API Body : public BufferedStream {
public:
    // A write to the connection, as TCPStream::SendDataFlagged. `more`: the next one follows at once, in the same
    // packet.
    using Sending = std::function<int(char const* data, unsigned length, bool more, unsigned* sent)>;

    explicit Body(Sending send) : m_send(std::move(send)) {}
    explicit Body(TCPStream& target);

    int read(char* data, unsigned length, unsigned* received) override;  // EBADF: there is nothing to read
    int write(char const* data, unsigned length, unsigned* sent) override;
    int writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) override;

    // Exactly `size` bytes of it from its start: more is left out, and fewer are EIO.
    int WriteContent(ScannerStream& content, unsigned size);
    int Begin(std::string const& block);  // a write of its own; a body follows in the same packet
    int Send();                           // what has been gathered

private:
    class Limited;

    int SendNow(char const* data, unsigned length, bool more);

    Sending const m_send;
    std::string m_gathered;
    int m_error = 0;
};

}  // namespace scan_requests

}  // namespace VELT
