#include "Upstream.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include <velt/streams/TCPStream.h>

#include "BlockReader.h"
#include "Patience.h"
#include "WireWriter.h"
#include "core/DataEncoder.h"

namespace smtp {
namespace {

constexpr std::size_t kPipelineWindow = 100;  // commands in flight: their replies fit any socket buffer
constexpr unsigned kLastWordMs = 1000;        // wait for what a server said before it hung up on us

Reply NotSmtp() { return {451, "4.5.0", "next server does not speak SMTP"}; }

Reply Closed() { return {451, "4.4.2", "next server closed the connection"}; }

}  // namespace

Reply Upstream::Lost(int error) {
    m_usable = false;
    return error == ETIMEDOUT ? Reply{451, "4.4.2", "next server went silent"} : Closed();
}

Reply Upstream::ReadReply(unsigned timeoutMs) {
    Patience patience(m_stream, timeoutMs);  // for all lines of the reply together
    while (true) {
        if (!patience.More()) return Lost(ETIMEDOUT);
        char* line = nullptr;
        bool done = false;
        VELT::LINE_STATE_T state;
        errno = 0;
        int const length = m_stream.getline(line, false, done, state, true);
        if (state == VELT::LINE_INCOMPLETE) continue;
        if (state == VELT::LINE_CLOSED || length < 0) return Lost(length < 0 ? errno : 0);
        ReplyParser::Status const status = state == VELT::LINE_OVERFLOW
                                               ? ReplyParser::Status::Malformed
                                               : m_parser.Take({line, static_cast<std::size_t>(length)});
        if (status == ReplyParser::Status::More) continue;
        m_answered = true;
        if (status == ReplyParser::Status::Complete) break;
        m_usable = false;
        return NotSmtp();
    }
    if (m_parser.reply().code == 421) m_usable = false;
    return m_parser.reply();
}

// What is left of a wait that the limit cuts short.
unsigned Upstream::Bounded(unsigned timeoutMs) const {
    using std::chrono::milliseconds;
    auto const now = std::chrono::steady_clock::now();
    if (m_end - now >= milliseconds(timeoutMs)) return timeoutMs;
    return static_cast<unsigned>(std::max<long>(1, std::chrono::duration_cast<milliseconds>(m_end - now).count()));
}

Reply Upstream::Converse(std::string const& command, unsigned timeoutMs) {
    timeoutMs = Bounded(timeoutMs);
    m_stream.set_timeout(timeoutMs);
    int const error = m_stream.write(command.data(), static_cast<unsigned>(command.size()));
    return error ? Lost(error) : ReadReply(timeoutMs);
}

Reply Upstream::Greet(std::string const& ownName) {
    m_usable = true;
    Reply reply = ReadReply(Bounded(m_timeouts.greetingMs));
    if (reply.group() != 2) return reply;
    reply = Converse("EHLO " + ownName + "\r\n", m_timeouts.commandMs);
    if (reply.group() == 2) {
        m_capabilities = Capabilities::FromEhlo(m_parser.lines());
    } else if (m_usable && reply.group() == 5) {
        reply = Converse("HELO " + ownName + "\r\n", m_timeouts.commandMs);
    }
    if (reply.group() == 3) return NotSmtp();
    return reply;
}

bool Upstream::alive() {
    char* data = nullptr;
    return m_usable && m_stream.IsStillConnected() && m_stream.buffereddata(data) == 0;
}

// The stream is closed next: the word and the end share a packet.
void Upstream::Quit() {
    if (m_usable) ::send(m_stream.GetSocket(), "QUIT\r\n", 6, MSG_DONTWAIT | MSG_NOSIGNAL | MSG_MORE);
    m_usable = false;
}

std::vector<std::string> Upstream::Envelope(Shipment const& shipment) const {
    std::string mail = "MAIL FROM:<" + shipment.sender + ">";
    if (m_capabilities.size) mail += " SIZE=" + std::to_string(shipment.content.size());
    if (m_capabilities.eightBitMime && shipment.content.eightBit) mail += " BODY=8BITMIME";
    std::vector<std::string> commands{mail + "\r\n"};
    for (std::string const& recipient : shipment.recipients) commands.push_back("RCPT TO:<" + recipient + ">\r\n");
    commands.push_back("DATA\r\n");
    return commands;
}

// What this server is known not to take, before it is asked.
Reply Upstream::Refusal(Shipment const& shipment) const {
    if (m_capabilities.maxSize && shipment.content.size() > m_capabilities.maxSize) {
        return {552, "5.3.4", "message too large for the next server"};
    }
    if (shipment.content.eightBit && !m_capabilities.eightBitMime) {
        return {554, "5.6.3", "next server takes no 8-bit mail"};
    }
    return {};
}

bool Upstream::WriteCommands(std::vector<std::string> const& commands, std::size_t from, std::size_t to) {
    WireWriter writer(m_stream);
    for (; from < to; ++from) writer.Add(commands[from]);
    return writer.Flush() == 0;
}

// Sends the commands, in groups where they may be pipelined, and fills a reply for each. False: DATA was not sent, or
// not answered.
bool Upstream::Exchange(std::vector<std::string> const& commands, std::vector<Reply>& replies) {
    std::size_t const window = m_capabilities.pipelining ? kPipelineWindow : 1;
    std::size_t const last = commands.size() - 1;
    std::size_t accepted = 0;
    for (std::size_t next = 0; next <= last;) {
        std::size_t const end = std::min(next + window, commands.size());
        if (next == last && accepted == 0) return false;  // nobody to send it to
        m_stream.set_timeout(Bounded(m_timeouts.commandMs));
        bool const sent = WriteCommands(commands, next, end);
        if (!sent) Lost(0);
        for (; next < end; ++next) {
            unsigned const usual = next == last ? m_timeouts.dataMs : m_timeouts.commandMs;
            replies[next] = ReadReply(Bounded(sent ? usual : kLastWordMs));
            if (!m_usable) {
                std::fill(replies.begin() + static_cast<std::ptrdiff_t>(next), replies.end(), replies[next]);
                return false;
            }
            if (next > 0 && next < last && replies[next].group() == 2) ++accepted;
        }
        if (replies[0].group() != 2) return false;
    }
    return true;
}

int Upstream::WriteContent(Content const& content) {
    Patience patience(m_stream, m_timeouts.blockMs);
    BlockReader reader(content);
    WireWriter writer(m_stream);
    DataEncoder encoder;
    auto const add = [&](std::string_view piece) { writer.Add(piece); };
    while (reader.left()) {
        if (writer.Flush() != 0) return writer.error();  // what the last block left; the very last leaves with the end
        if (!patience.More()) return ETIMEDOUT;
        std::string_view block;
        if (!reader.Next(block)) return EIO;
        patience.Earn(block.size(), m_timeouts.minRate);
        content.plain ? writer.Add(block) : encoder.Encode(block, add);
    }
    if (content.plain) {
        writer.Add(DataEncoder::kEnd);
    } else {
        encoder.Finish(add);
    }
    return writer.Flush();
}

// A server may refuse in the middle of a message and hang up: what it said is worth more than the broken pipe.
Reply Upstream::AfterBrokenWrite(int error) {
    if (error == ETIMEDOUT) return Lost(error);
    if (error == EIO) {
        m_usable = false;
        return {451, "4.3.0", "message could not be read back"};
    }
    Reply const lastWord = ReadReply(kLastWordMs);
    m_usable = false;
    return lastWord.group() >= 4 ? lastWord : Closed();
}

Reply Upstream::SendContent(Content const& content) {
    if (int const error = WriteContent(content)) return AfterBrokenWrite(error);
    Reply const reply = ReadReply(m_timeouts.finalMs);
    m_unsure = (!m_usable && reply.code != 421) || reply.group() == 3;
    if (reply.group() != 3) return reply;
    m_usable = false;
    return NotSmtp();
}

std::vector<Reply> Upstream::Send(Shipment const& shipment) {
    std::size_t const count = shipment.recipients.size();
    m_answered = false;
    m_unsure = false;
    Reply const refusal = Refusal(shipment);
    if (refusal.code) return std::vector<Reply>(count, refusal);
    std::vector<Reply> replies(count + 2, Closed());
    bool const dataAnswered = Exchange(Envelope(shipment), replies);
    Reply data = replies.back();
    std::vector<Reply> result(replies.begin() + 1, replies.end() - 1);
    if (replies[0].group() != 2) {  // MAIL was refused: that is why the others were
        m_usable = false;
        return std::vector<Reply>(count, replies[0].group() >= 4 ? replies[0] : NotSmtp());
    }
    bool const someAccepted =
        std::any_of(result.begin(), result.end(), [](Reply const& one) { return one.group() == 2; });
    bool const invited = dataAnswered && someAccepted && data.code == 354;
    bool const goAhead = invited && (!shipment.wanted || shipment.wanted());
    if (invited && !goAhead) data = {451, "4.4.2", "client left before the message went on"};
    if (goAhead) data = SendContent(shipment.content);
    if (!goAhead)
        m_usable = false;  // the transaction stays open at the server; only a new connection is sure to be clean
    if (!goAhead && data.group() < 4) data = NotSmtp();
    for (Reply& one : result) {
        if (one.group() == 3) one = NotSmtp();
        if (one.group() == 2) one = data;
    }
    return result;
}

}  // namespace smtp
