// SpoolModel: what a ScannerStream holds and hands out, said by strings and numbers alone, with the oddities that its
// callers know: a vectored write moves the cursor twice, a read on disk moves it by what was asked for, and lines read
// from memory leave the cursor at the end. Nothing fails in it: it stands for a disk that takes everything.
// Owner: the test. Thread: one. Units: bytes. Failure: none.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include <velt/streams/BufferedStream.h>

namespace velt_testing {

class SpoolModel {
public:
    // Memory of `capacity` bytes under a buffered layer that goes by `limit` bytes.
    SpoolModel(std::size_t capacity, std::size_t limit) : m_capacity(capacity), m_limit(limit) {}

    struct Line {
        VELT::LINE_STATE_T state;
        long length;
        std::string text;
        std::size_t start;  // in the buffer, where there is a line
    };

    std::size_t size() const { return m_eof; }
    bool onDisk() const { return m_onDisk; }
    std::string const& bytes() const { return m_bytes; }  // of the object in memory, or of its file

    void Write(std::string const& text) {
        if (m_onDisk) return WriteDisk(text);
        if (m_cursor + text.size() >= m_capacity) {
            ToDisk();
            return WriteDisk(text);
        }
        if (text.empty()) return;
        Place(m_cursor, text);
        m_cursor += text.size();
        m_eof = std::max(m_eof, m_cursor);
    }
    void WriteVector(std::vector<std::string> const& texts) {
        for (std::string const& text : texts) {
            Write(text);
            m_cursor += text.size();
        }
    }
    std::string Read(std::size_t count) {
        std::string const text = From(m_onDisk ? m_file : m_cursor, count);
        if (m_onDisk) m_file += text.size();
        m_cursor += m_onDisk ? count : text.size();
        return text;
    }
    std::size_t Seek(std::size_t target) {
        if (!m_onDisk && m_cursor < m_capacity) {
            m_size = m_bytes.size();
            m_at = target;
        } else {
            if (!m_onDisk) ToDisk();
            m_file = target;
            Forget();
        }
        return m_cursor = target;
    }
    std::size_t SeekBy(std::size_t offset) { return Seek(m_cursor + offset); }
    void Resize(std::size_t size) {
        if (!m_onDisk && size > m_capacity) ToDisk();
        m_bytes.resize(size);
        m_eof = size;
        if (!m_onDisk) {
            m_size = size;
            m_at = std::min(m_at, size);
        } else if (size < m_cursor) {
            Forget();
            m_file = size;
        }
        m_cursor = std::min(m_cursor, size);
    }
    void Reset() { *this = SpoolModel(m_capacity, m_limit); }
    void Reopen() {
        if (!m_onDisk) return;
        m_eof = m_bytes.size();
        m_cursor = m_file = 0;
        Forget();
    }

    std::string Trickle(std::size_t count) {
        if (m_onDisk) m_trickleOpen = true;
        std::string const text = From(m_trickle, count);
        m_trickle += text.size();
        return text;
    }
    std::size_t SeekTrickle(std::size_t place) {
        if (m_onDisk) m_trickleOpen = true;
        if (m_onDisk || place < m_eof) m_trickle = place;
        return m_trickle;
    }
    bool trickleOpen() const { return m_trickleOpen; }

    // The buffered layer: without memory there is none.
    Line GetLine(bool force, bool& ioDone, bool strip) {
        if (!Start()) return {VELT::LINE_CLOSED, -1, "", 0};
        for (;;) {
            std::size_t const feed = Buffer().find('\n', m_at);
            if (feed != std::string::npos && feed < m_size) return Whole(feed, strip);
            if (m_onDisk) Compact();
            if (m_limit > 1 && Unread() == m_limit - 1 && m_size != m_limit) return Overlong(strip);
            bool const mayRead = force || !ioDone;
            int const count = Fill(force, ioDone);
            if (count <= 0) return {mayRead ? VELT::LINE_CLOSED : VELT::LINE_INCOMPLETE, count, "", 0};
        }
    }
    struct Block {
        int count;
        std::string text;
    };
    Block ReadData(std::size_t most, bool force, bool& ioDone) {
        if (!Start()) return {-1, ""};
        while (Unread() == 0) {
            Forget();
            int const count = Fill(force, ioDone);
            if (count <= 0) return {count, ""};
        }
        std::string const text = Buffer().substr(m_at, std::min(most, Unread()));
        m_at += text.size();
        return {static_cast<int>(text.size()), text};
    }
    Block Buffered() {
        if (!Start()) return {-1, ""};
        return {static_cast<int>(Unread()), Unread() ? Buffer().substr(m_at, Unread()) : ""};
    }
    bool HasLine() const {
        if (!m_started) return false;
        std::size_t const feed = Buffer().find('\n', m_at);
        return feed != std::string::npos && feed < m_size;
    }
    bool Rewind(std::size_t start) {
        if (start >= m_size) return false;
        m_at = start;
        return true;
    }
    bool EmptyOverflow() {
        bool ioDone = false;
        for (;;) {
            VELT::LINE_STATE_T const state = GetLine(true, ioDone, false).state;
            if (state != VELT::LINE_OVERFLOW) return state == VELT::LINE_COMPLETE;
        }
    }

private:
    std::string From(std::size_t place, std::size_t count) const {
        return place < m_bytes.size() ? m_bytes.substr(place, count) : "";
    }
    void Place(std::size_t at, std::string const& text) {
        if (text.empty()) return;
        m_bytes.resize(std::max(m_bytes.size(), at + text.size()));
        m_bytes.replace(at, text.size(), text);
    }
    void ToDisk() {
        m_onDisk = true;
        m_file = m_cursor;
        Forget();
    }
    void WriteDisk(std::string const& text) {
        Forget();
        Place(m_file, text);
        m_file += text.size();
        m_cursor += text.size();
        if (!text.empty()) m_eof = std::max(m_eof, m_cursor);
    }

    void Forget() {
        m_at = 0;
        m_size = 0;
        m_cache.clear();
    }
    std::string const& Buffer() const { return m_onDisk ? m_cache : m_bytes; }
    std::size_t Unread() const { return m_size > m_at ? m_size - m_at : 0; }
    bool Start() {
        if (m_started || m_capacity == 0) return m_started;
        m_started = true;
        if (m_onDisk) {
            Forget();
            return true;
        }
        m_at = m_cursor;
        m_size = m_cursor = m_eof;
        return true;
    }
    void Compact() {
        m_cache.erase(0, m_at);
        m_size = m_cache.size();
        m_at = 0;
    }
    int Fill(bool force, bool& ioDone) {
        if (ioDone && !force) return -1;
        if (!force) ioDone = true;
        if (!m_onDisk || m_limit <= m_size + 1) return 0;
        std::size_t const asked = m_limit - m_size - 1;
        std::size_t const room = m_capacity > m_size + 1 ? m_capacity - m_size - 1 : 0;
        std::string const text = From(m_file, std::min(asked, room));
        m_file += text.size();
        m_cursor += asked;
        m_cache += text;
        m_size = m_cache.size();
        return static_cast<int>(text.size());
    }
    // A '\r' in front of the line is stepped back over as well, to a length of -1.
    Line Whole(std::size_t feed, bool strip) {
        std::size_t const start = m_at;
        m_at = feed + 1;
        bool const back = strip && feed > 0 && Buffer()[feed - 1] == '\r';
        long const length = static_cast<long>(feed) - static_cast<long>(start) - (back ? 1 : 0);
        return {VELT::LINE_COMPLETE, length, length > 0 ? Buffer().substr(start, length) : "", start};
    }
    Line Overlong(bool strip) {
        std::string text = Buffer().substr(m_at, Unread());
        if (strip && text.back() == '\r') text.pop_back();
        std::size_t const start = m_onDisk ? 0 : m_at;
        Forget();
        return {VELT::LINE_OVERFLOW, static_cast<long>(text.size()), text, start};
    }

    std::size_t m_capacity, m_limit;
    std::string m_bytes;  // of the file they may be fewer than m_eof: the cursor may stand ahead of the file's own
    std::size_t m_eof = 0;
    std::size_t m_cursor = 0;
    bool m_onDisk = false;
    std::size_t m_file = 0;     // the descriptor's position
    std::size_t m_trickle = 0;  // of either kind
    bool m_trickleOpen = false;

    bool m_started = false;
    std::size_t m_at = 0, m_size = 0;
    std::string m_cache;  // on disk; in memory the bytes are the buffer
};

}  // namespace velt_testing
