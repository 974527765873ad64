// Channel: the session's side of its client's stream: lines in, replies out.
// Replies are gathered while further commands are waiting already, so that a pipelined group of commands is answered by
// one write. Owner: the session; it borrows the stream. Thread: the session's. Units: milliseconds, bytes.
// Failure: an enum for input; a reply that cannot be written ends the session at its next read.
#pragma once

#include <string>
#include <string_view>

#include "core/Reply.h"

namespace VELT {
class TCPStream;
}

namespace smtp {

class Patience;

class Channel {
public:
    enum class Input { Line, TooLong, Closed, TimedOut };

    explicit Channel(VELT::TCPStream& stream) : m_stream(stream) {}

    void Say(Reply const& reply) { m_replies += reply.wire(); }
    bool Flush();      // false: the client is gone
    bool FlushLast();  // the same before the stream is closed: the last words and the end share a packet

    // The next line, up to its LF and with its CR. It lives until the next operation on the stream. Flushes first
    // unless a line is there already. The whole line has to come within the stream's timeout.
    Input ReadLine(std::string_view& line);

    VELT::TCPStream& stream() { return m_stream; }

private:
    Input ReadPiece(std::string_view& line, Patience& patience);
    Input SkipLine(Patience& patience);

    VELT::TCPStream& m_stream;
    std::string m_replies;
};

}  // namespace smtp
