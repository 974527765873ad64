// Upstream: the client's part of SMTP with the next server, over a stream that is connected already.
// Commands are gathered into one write where the server offers PIPELINING. A message counts as delivered only by the
// server's 2xx answer to its end; whatever goes wrong before leaves the server with an unfinished message, which it
// drops. Owner: Delivery; it borrows the stream. Thread: the session's. Units: milliseconds.
// Failure: replies. What the server did not say itself is told as 451 4.4.2.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Message.h"
#include "SmtpSettings.h"
#include "core/Reply.h"

namespace VELT {
class TCPStream;
}

namespace smtp {

struct Shipment {
    std::string sender;  // empty: the null path
    std::vector<std::string> recipients;
    Content content;
    std::function<bool()> wanted;  // asked before the content goes; false: it stays here. Absent: it goes
};

class Upstream {
public:
    Upstream(VELT::TCPStream& stream, UpstreamTimeouts const& timeouts) : m_stream(stream), m_timeouts(timeouts) {}

    // Takes the greeting and says EHLO, or HELO where that is refused. A 2xx reply: ready.
    Reply Greet(std::string const& ownName);

    // All that comes before the content of a message is over by then, in a word of the server's or as its silence.
    void LimitUntil(std::chrono::steady_clock::time_point end) { m_end = end; }

    // One transaction. A reply for each recipient, 2xx: delivered.
    std::vector<Reply> Send(Shipment const& shipment);

    bool usable() const { return m_usable; }      // a further transaction may follow
    bool answered() const { return m_answered; }  // the server said something in the last transaction
    bool unsure() const {
        return m_unsure;
    }              // of the last transaction the end was sent, and no answer heard that says what came of it
    bool alive();  // the server has neither closed nor spoken out of turn
    void Quit();   // says so and waits for nothing

private:
    Reply Converse(std::string const& command, unsigned timeoutMs);
    Reply ReadReply(unsigned timeoutMs);
    unsigned Bounded(unsigned timeoutMs) const;
    Reply Lost(int error);
    std::vector<std::string> Envelope(Shipment const& shipment) const;
    Reply Refusal(Shipment const& shipment) const;
    bool Exchange(std::vector<std::string> const& commands, std::vector<Reply>& replies);
    bool WriteCommands(std::vector<std::string> const& commands, std::size_t from, std::size_t to);
    Reply SendContent(Content const& content);
    int WriteContent(Content const& content);
    Reply AfterBrokenWrite(int error);

    VELT::TCPStream& m_stream;
    UpstreamTimeouts m_timeouts;
    std::chrono::steady_clock::time_point m_end = std::chrono::steady_clock::time_point::max();
    Capabilities m_capabilities;
    ReplyParser m_parser;
    bool m_usable = false;
    bool m_answered = false;
    bool m_unsure = false;
};

}  // namespace smtp
