// DataDecoder: what follows DATA, from the wire to the content of the message.
// Only CRLF "." CRLF ends the message. A CR or LF that is not part of a CRLF pair ends nothing, is never repaired and
// makes the message unfit to pass on: the next server might read another end into it.
// Owner: the session. Thread: the session's. Sizes in bytes of content: dots that were stuffed do not count.
// Failure: fault() tells the first one; decoding goes on to the end of the message, and no more content comes out.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace smtp {

class DataDecoder {
public:
    enum class Fault { None, BareLineEnd, LineTooLong, HeaderTooLarge, MessageTooLarge };

    struct Limits {
        std::size_t line = 1000;  // with its CRLF; 0: none
        std::size_t header = 0;   // 0: none
        std::uint64_t size = 0;   // 0: none
    };

    explicit DataDecoder(Limits limits) : m_limits(limits) {}

    // Takes bytes up to the end of the message and hands their content to sink(char const*, std::size_t), in runs as
    // long as the input allows. Gives the count taken; what is left behind the end belongs to the next command.
    template <class Sink>
    std::size_t Feed(char const* data, std::size_t length, Sink&& sink);

    bool done() const { return m_state == State::End; }
    Fault fault() const { return m_fault; }
    std::uint64_t size() const { return m_size; }
    std::size_t receivedHeaders() const { return m_receivedHeaders; }
    bool hasLeadingDots() const { return m_leadingDots; }  // some line of the content begins with "."

private:
    enum class State {
        LineStart,
        Text,
        Cr,     // behind a CR inside a line
        Dot,    // behind the first "." of a line
        DotCr,  // behind ".CR" at the start of a line: content or the end
        End,
    };

    char const* Step(char const* at, char const* end);
    char const* Text(char const* at, char const* end);
    char const* StartLine(char const* at);
    void EndLine();
    void EndHeaderLine();
    void Grow(char const* from, char const* to);
    void Fail(Fault fault);

    Limits m_limits;
    State m_state = State::LineStart;
    Fault m_fault = Fault::None;
    bool m_inHeader = true;
    bool m_leadingDots = false;
    std::uint64_t m_size = 0;
    std::size_t m_lineLength = 0;  // content of the line so far, without its CR
    std::size_t m_headerSize = 0;
    std::size_t m_receivedHeaders = 0;
    std::array<char, 9> m_lineHead{};  // the first bytes of a header line, to tell "Received:"
};

template <class Sink>
std::size_t DataDecoder::Feed(char const* data, std::size_t length, Sink&& sink) {
    char const* const end = data + length;
    char const* at = data;
    char const* run = data;  // content not handed out yet begins here
    auto flush = [&](char const* upTo) {
        if (upTo > run && m_fault == Fault::None) sink(run, static_cast<std::size_t>(upTo - run));
    };
    while (at < end && m_state != State::End) {
        State const before = m_state;
        char const* const next = Step(at, end);
        if (before == State::LineStart && m_state == State::Dot) {  // the dot itself is no content
            flush(at);
            run = next;
        } else if (m_state == State::DotCr) {  // held back until the next byte tells what it is
            run = next;
        } else if (before == State::DotCr && m_state != State::End) {
            run = next;  // ".CR" without LF: a bare line end, nothing of this message goes out any more
        }
        at = next;
    }
    if (m_state != State::End && m_state != State::DotCr) flush(at);
    return static_cast<std::size_t>(at - data);
}

}  // namespace smtp
