// Line and block reading of a stream that the network cuts anywhere, against a model that keeps all bytes in a string.
#include <algorithm>
#include <deque>
#include <string>

#include "fuzz/Input.h"
#include "testing/ScriptedStream.h"

using velt_fuzz::Require;
using velt_testing::EndsWith;
using velt_testing::ScriptedStream;

namespace {

// The model: what has arrived and was not handed out yet, and what is still to come.
class Model {
public:
    Model(std::deque<std::string> pieces, unsigned room) : m_pieces(std::move(pieces)), m_room(room) {}

    ScriptedStream::Line GetLine(bool strip_cr) {
        for (;;) {
            std::size_t const end = m_held.find('\n');
            if (end != std::string::npos) return Take(end, strip_cr);
            if (m_held.size() == m_room) return Overflow(strip_cr);
            if (!Receive()) return {VELT::LINE_CLOSED, 0, "", 0};
        }
    }
    std::string GetBlock(unsigned max) {
        if (m_held.empty()) Receive();
        std::string const block = m_held.substr(0, max);
        m_held.erase(0, block.size());
        if (!block.empty()) m_before = block.back();
        return block;
    }
    std::string const& held() const { return m_held; }

private:
    ScriptedStream::Line Take(std::size_t end, bool strip_cr) {
        std::string text = m_held.substr(0, end);
        int length = static_cast<int>(end);
        bool const return_before = end == 0 ? m_before == '\r' : text.back() == '\r';
        if (strip_cr && return_before) {
            --length;
            if (end != 0) text.pop_back();
        }
        m_held.erase(0, end + 1);
        m_before = '\n';
        return {VELT::LINE_COMPLETE, length, text, 0};
    }
    ScriptedStream::Line Overflow(bool strip_cr) {
        std::string text = std::move(m_held);
        m_held.clear();
        m_before = 0;
        if (strip_cr && text.back() == '\r') text.pop_back();
        int const length = static_cast<int>(text.size());
        return {VELT::LINE_OVERFLOW, length, std::move(text), 0};
    }
    // A read comes after what was handed out has left the buffer, and with it the byte before.
    bool Receive() {
        m_before = 0;
        if (m_pieces.empty()) return false;
        std::string& next = m_pieces.front();
        std::size_t const count = std::min<std::size_t>(next.size(), m_room - m_held.size());
        m_held.append(next, 0, count);
        next.erase(0, count);
        if (next.empty()) m_pieces.pop_front();
        return true;
    }

    std::string m_held;
    std::deque<std::string> m_pieces;
    unsigned m_room;
    char m_before = 0;  // the byte in front of m_held that is still in the buffer
};

std::deque<std::string> Cut(velt_fuzz::Input& input) {
    std::deque<std::string> pieces;
    while (!input.empty()) {
        std::string piece = input.Text(1 + input.Byte() % 40);
        if (!piece.empty()) pieces.push_back(std::move(piece));
    }
    return pieces;
}

void CheckLine(ScriptedStream& stream, Model& model, bool strip_cr) {
    ScriptedStream::Line const got = stream.GetLine(strip_cr);
    ScriptedStream::Line const expected = model.GetLine(strip_cr);
    Require(got.state == expected.state, "the same state");
    Require(got.length == expected.length, "the same length");
    Require(got.text == expected.text, "the same line");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    velt_fuzz::Input input(data, size);
    unsigned const bufferSize = 2 + input.Byte() % 62;
    std::string const steps = input.Text(input.Byte());
    std::deque<std::string> const pieces = Cut(input);
    ScriptedStream stream(pieces, EndsWith::close, bufferSize);
    Model model(pieces, bufferSize - 1);
    for (unsigned char const step : steps) {
        if (step % 8 < 6)
            CheckLine(stream, model, step % 2 == 0);
        else
            Require(stream.GetBlock(1 + step / 8) == model.GetBlock(1 + step / 8), "the same block");
        Require(stream.Buffered() == model.held(), "the same rest");
        Require(stream.is_line_buffered() == (model.held().find('\n') != std::string::npos), "the same line at hand");
    }
    return 0;
}
