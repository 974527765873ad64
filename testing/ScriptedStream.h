// ScriptedStream: a stream whose peer says what a test tells it to, one piece per read, and then falls silent, closes
// or fails. What is written to it is kept.
// Owner: the test. Thread: the test's. Units: bytes. Failure: as the script says.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <velt/streams/BufferPool.h>
#include <velt/streams/BufferedStream.h>

namespace velt_testing {

enum class EndsWith { close, silence, reset };

class ScriptedStream : public VELT::BufferedStream {
public:
    explicit ScriptedStream(std::deque<std::string> pieces, EndsWith end = EndsWith::close, unsigned bufferSize = 4096)
        : m_pool(bufferSize, 0), m_pieces(std::move(pieces)), m_end(end) {}
    // The pool goes before the base, so the buffer goes back first.
    ~ScriptedStream() override { reset_buffered_stream(); }

    void Say(std::string piece) { m_pieces.push_back(std::move(piece)); }
    void EndWith(EndsWith end) { m_end = end; }
    void RefuseBuffer() { m_hasPool = false; }

    int reads() const { return m_reads; }
    std::vector<unsigned> const& asked() const { return m_asked; }  // the room that each read offered
    std::string const& written() const { return m_written; }

    int read(char* data, unsigned length, unsigned* received) override {
        ++m_reads;
        m_asked.push_back(length);
        *received = 0;
        if (m_pieces.empty()) return m_end == EndsWith::close ? 0 : m_end == EndsWith::reset ? ECONNRESET : ETIMEDOUT;
        std::string& piece = m_pieces.front();
        *received = static_cast<unsigned>(std::min<std::size_t>(length, piece.size()));
        std::memcpy(data, piece.data(), *received);
        piece.erase(0, *received);
        if (piece.empty()) m_pieces.pop_front();
        return 0;
    }
    int write(char const* data, unsigned length, unsigned* sent) override {
        m_written.append(data, length);
        *sent = length;
        return 0;
    }
    int writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) override {
        *sent = 0;
        for (unsigned i = 0; i < count; ++i) {
            m_written.append(buffers[i], lengths[i]);
            *sent += lengths[i];
        }
        return 0;
    }
    VELT::BufferPool* get_pool() override { return m_hasPool ? &m_pool : nullptr; }

    // What one getline gave.
    struct Line {
        VELT::LINE_STATE_T state;
        int length;
        std::string text;  // empty when there was none
        int error;         // errno behind it
    };
    Line GetLine(bool strip_cr = true) {
        bool io_done = false;
        return GetLine(true, io_done, strip_cr);
    }
    Line GetLine(bool force, bool& io_done, bool strip_cr = true) {
        char* text = nullptr;
        VELT::LINE_STATE_T state;
        errno = 0;
        int const length = getline(text, force, io_done, state, strip_cr);
        int const error = errno;
        return {state, length, text && length > 0 ? std::string(text, static_cast<std::size_t>(length)) : "", error};
    }
    // One block, empty where readdata gave 0 or less.
    std::string GetBlock(unsigned max = 0x7FFFFFFF) {
        bool io_done = false;
        char* data = nullptr;
        int const count = readdata(data, max, true, io_done);
        return count > 0 ? std::string(data, static_cast<std::size_t>(count)) : "";
    }
    std::string Buffered() {
        char* data = nullptr;
        int const count = buffereddata(data);
        return count > 0 ? std::string(data, static_cast<std::size_t>(count)) : "";
    }

private:
    VELT::BufferPool m_pool;
    std::deque<std::string> m_pieces;
    EndsWith m_end;
    bool m_hasPool = true;
    int m_reads = 0;
    std::vector<unsigned> m_asked;
    std::string m_written;
};

}  // namespace velt_testing
