// UuSpotter: finds uuencoded files that stand in a text without any field to say so, as some readers do, and decodes
// them. Owner: one content of one scan, its thread. Units: bytes; the memory is that of one line.
// Failure: none; lines that are not uuencode are decoded as far as they go.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace policyloader {

// One line of a uuencoded file, without its end: its first character tells how many bytes the others stand for. Blanks
// that were cut off its end are zeros.
void AppendUuLine(std::string_view line, std::string& bytes);

class UuSpotter {
public:
    // begin() tells of a file that begins, by its name, data() of its bytes, end() of its end; the end of the text ends
    // it too.
    struct Sink {
        std::function<void(std::string_view)> begin;
        std::function<void(std::string_view)> data;
        std::function<void()> end;
    };

    explicit UuSpotter(Sink sink) : m_sink(std::move(sink)) {}
    void feed(std::string_view piece);
    void finish();

private:
    std::size_t search(std::string_view piece, std::size_t at);
    std::size_t takeLine(std::string_view piece, std::size_t at);
    void line();

    Sink m_sink;
    std::string m_line;  // begun, while it may be of interest
    std::string m_decoded;
    bool m_atLineStart = true;  // of what is fed next, while nothing is held
    bool m_inFile = false;
};

}  // namespace policyloader
