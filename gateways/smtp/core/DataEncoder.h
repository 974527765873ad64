// DataEncoder: the content of a message to the form in which it follows DATA: dots stuffed, every line end CRLF.
// What a scan engine rewrote may have other line ends; a lone CR or LF becomes CRLF here, so that no next server can
// read an end of message into the content.
// Owner: one delivery. Thread: the session's. Pieces point into the caller's block or at literals of this class, and
// must be used before the block goes. Failure: none.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace smtp {

class DataEncoder {
public:
    // Hands the wire form of a block to sink(std::string_view), in pieces as long as the content allows.
    template <class Sink>
    void Encode(std::string_view block, Sink&& sink);

    // The end of the message: completes the last line, then the "." line.
    template <class Sink>
    void Finish(Sink&& sink);

    static constexpr std::string_view kCrLf = "\r\n";
    static constexpr std::string_view kEnd = ".\r\n";

private:
    static char const* FindLineEnd(char const* from, char const* to);

    bool m_lineStart = true;
    bool m_afterCr = false;  // the last block ended in a CR; its line end is out already
};

template <class Sink>
void DataEncoder::Encode(std::string_view block, Sink&& sink) {
    char const* at = block.data();
    char const* const end = at + block.size();
    if (m_afterCr && at < end && *at == '\n') ++at;
    if (!block.empty()) m_afterCr = false;
    char const* run = at;
    auto flush = [&](char const* upTo) {
        if (upTo > run) sink(std::string_view(run, static_cast<std::size_t>(upTo - run)));
        run = upTo;
    };
    while (at < end) {
        if (m_lineStart && *at == '.') {
            flush(at);
            sink(std::string_view("."));
        }
        char const* const stop = FindLineEnd(at, end);
        m_lineStart = stop != end;
        if (stop == end) break;
        if (*stop == '\r' && stop + 1 < end && stop[1] == '\n') {  // the usual case stays part of the run
            at = stop + 2;
            continue;
        }
        flush(stop);
        sink(kCrLf);
        m_afterCr = *stop == '\r' && stop + 1 == end;
        at = run = stop + 1;
    }
    flush(end);
}

template <class Sink>
void DataEncoder::Finish(Sink&& sink) {
    if (!m_lineStart) sink(kCrLf);
    sink(kEnd);
}

inline char const* DataEncoder::FindLineEnd(char const* from, char const* to) {
    auto const find = [&](char const* limit, char wanted) {
        void const* const found = std::memchr(from, wanted, static_cast<std::size_t>(limit - from));
        return found ? static_cast<char const*>(found) : limit;
    };
    char const* const lf = find(to, '\n');
    return find(lf, '\r');
}

}  // namespace smtp
