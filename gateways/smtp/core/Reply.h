// Replies: those that this server gives, and those that it reads from the next one.
// Values only, any thread. Failure of the parser: an enum; a server that breaks the form of a reply is not understood.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace smtp {

// A reply with an enhanced status code (RFC 3463), such as {554, "5.7.1", "refused"}.
struct Reply {
    int code = 0;
    std::string status;  // empty where RFC 2034 wants none: greeting, EHLO, 3xx
    std::string text;    // "\n" separates the lines of a long reply

    int group() const { return code / 100; }
    std::string wire() const;  // every line with its code and CRLF
};

// Text of foreign origin made fit for a reply line, an event or a header: printable ASCII, other bytes "?", cut.
std::string Printable(std::string_view text, std::size_t limit = 200);

// Reads the reply of a server line by line.
class ReplyParser {
public:
    enum class Status { More, Complete, Malformed };

    // `line` without its line end. After Complete, reply() and lines() hold until the next Take.
    Status Take(std::string_view line);

    Reply const& reply() const { return m_reply; }  // text: the lines joined by blanks, without the status code
    std::vector<std::string> const& lines() const { return m_lines; }  // as sent, behind "250-"

private:
    Status Finish();

    Reply m_reply;
    std::vector<std::string> m_lines;
    bool m_open = false;
    static constexpr std::size_t kMaxLines = 100;
};

// What a server says of itself in its answer to EHLO.
struct Capabilities {
    bool pipelining = false;
    bool eightBitMime = false;
    bool size = false;
    unsigned long long maxSize = 0;  // 0: no limit told

    static Capabilities FromEhlo(std::vector<std::string> const& lines);
};

// The status code of a reply as a delivery report needs it: its own, or the class of the code with ".0.0".
std::string StatusOf(Reply const& reply);

}  // namespace smtp
