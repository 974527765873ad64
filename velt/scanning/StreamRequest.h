// StreamRequest: the header block with which a scanner process begins each of its answers, as a map of names and
// values. Names are compared byte by byte; the last of a name counts (docs/formats/scan-protocol.md).
// Owner: the caller's stack. Thread: the one that owns the stream. Units: bytes.
// Failure: read_headers answers below 0; what had been read by then is in the map, and the stream is good for nothing.
#pragma once

#include <map>
#include <string>

#include <velt/Export.h>

namespace VELT {

class BufferedStream;

class VELT_API StreamRequest : public std::map<std::string, std::string> {
public:
    StreamRequest() = default;

    // Reads to the empty line. 0: at least one header; -1: the peer closed; -2: a line without a space, or a block
    // beyond s_mostBytes; -3: no header at all. A connection that fails behind a whole header ends the block like the
    // empty line does: the next use of the stream shows it, unless it was a wait that ran out.
    int read_headers(BufferedStream* stream);

    // 0: the empty line ended the block; else the errno of what did, and what follows cannot be told from the rest of
    // the block. Of the last block that answered 0.
    int failure() const { return m_failure; }

    static constexpr unsigned long s_mostBytes = 256 * 1024;  // of a block; its values may be longer than the buffer

private:
    int m_failure = 0;
};

}  // namespace VELT
