// LzmaReader: what a file compressed by one of the LZMA methods holds, in pieces, in memory of a stated size.
// Owner: the reader of one archive, its thread.  Units: bytes.
// Failure: std::bad_alloc; a broken file ends early and `state` says so.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

#include <lzma.h>

#include <policyloader/engines/ArchiveKind.h>

namespace policyloader {

class LzmaReader {
public:
    using More = std::function<std::string_view()>;  // the next bytes of the file; empty: its end
    enum class State { Good, Broken, TooLarge };     // the last: it takes more memory than it may

    // xz, lzma or lzip.
    LzmaReader(ArchiveKind kind, std::size_t mostMemory, More more);
    ~LzmaReader() { lzma_end(&m_stream); }
    LzmaReader(LzmaReader const&) = delete;
    LzmaReader& operator=(LzmaReader const&) = delete;

    static bool reads(ArchiveKind kind);
    std::size_t read(char* to, std::size_t count);  // 0: at its end, or where it breaks
    State state() const { return m_state; }

private:
    lzma_ret step();

    More m_more;
    lzma_stream m_stream = LZMA_STREAM_INIT;
    bool m_ended = false;  // no more bytes
    bool m_over = false;
    State m_state = State::Good;
};

}  // namespace policyloader
