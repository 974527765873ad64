#include <velt/streams/BufferedStream.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>

#include <velt/streams/BufferPool.h>

namespace VELT {

BufferedStream::~BufferedStream() {
    if (buffer_from_pool && buffer) pool->release_buffer(buffer);
}

int BufferedStream::get_file() { return -1; }
void BufferedStream::flush() {}
void BufferedStream::close_io_stream() {}
char* BufferedStream::stream_info(unsigned&, unsigned&, unsigned&) { return nullptr; }
BufferPool* BufferedStream::get_pool() { return nullptr; }

void BufferedStream::initialise_buffering() {
    if (buffering_started) return;
    buffering_started = true;
    file_size = 0;
    buffer_size = 0;
    buffer = stream_info(posn, file_size, buffer_size);
    if (buffer) return;
    pool = get_pool();
    if (!pool) return;
    buffer = pool->obtain_buffer(buffer_size);
    buffer_from_pool = true;
}

void BufferedStream::reset_buffered_stream() {
    if (buffer_from_pool && buffer) pool->release_buffer(buffer);
    buffering_started = false;
    buffer_from_pool = false;
    buffer = nullptr;
    pool = nullptr;
    saved_posn = -1;
    file_size = 0;
    buffer_size = 0;
    posn = 0;
    saved_chr = 0;
    buffer_is_store = false;
    scanned_to = 0;
}

int BufferedStream::perform_io(bool force, bool& io_done) {
    if (io_done && !force) {
        errno = 0;
        return -1;
    }
    unsigned received = 0;
    if (unsigned const room = free_space()) {
        if (int const error = read(buffer + file_size, room, &received)) {
            errno = error;
            return -1;
        }
    }
    if (!force) io_done = true;
    file_size += received;
    return static_cast<int>(received);
}

int BufferedStream::getline(char*& line, bool force, bool& io_done, LINE_STATE_T& state, bool strip_cr) {
    restore_saved_chr();
    if (!have_buffer()) {
        line = nullptr;
        state = LINE_CLOSED;
        return -1;
    }
    unsigned end;
    if (find_line_end(end)) return complete_line(end, line, state, strip_cr);
    return read_line(line, force, io_done, state, strip_cr);
}

// Bytes that an earlier search has seen are not searched again, so a line that comes in pieces is searched once.
inline bool BufferedStream::find_line_end(unsigned& end) {
    unsigned const from = std::max(posn, scanned_to);
    if (from >= file_size) return false;
    void const* const found = std::memchr(buffer + from, '\n', file_size - from);
    if (!found) {
        scanned_to = buffer_is_store ? 0 : file_size;
        return false;
    }
    end = static_cast<unsigned>(static_cast<char const*>(found) - buffer);
    return true;
}

inline int BufferedStream::complete_line(unsigned end, char*& line, LINE_STATE_T& state, bool strip_cr) {
    unsigned const start = posn;
    posn = end + 1;
    // The byte before may lie before the line, when a block read ended between '\r' and '\n'.
    if (strip_cr && end != 0 && buffer[end - 1] == '\r') --end;
    line = buffer + start;
    saved_posn = static_cast<int>(end);
    saved_chr = buffer[end];
    buffer[end] = 0;
    state = LINE_COMPLETE;
    return static_cast<int>(end - start);
}

// Reads until the line is whole, does not fit, or nothing more comes now.
int BufferedStream::read_line(char*& line, bool force, bool& io_done, LINE_STATE_T& state, bool strip_cr) {
    line = nullptr;
    state = LINE_INCOMPLETE;
    for (;;) {
        if (posn != 0 && !buffer_is_store) compact();
        if (is_overflow()) return overflow_line(line, state, strip_cr);
        bool const may_read = force || !io_done;
        int const count = perform_io(force, io_done);
        if (count <= 0) {
            if (may_read) state = LINE_CLOSED;
            return count;
        }
        unsigned end;
        if (find_line_end(end)) return complete_line(end, line, state, strip_cr);
    }
}

void BufferedStream::compact() {
    unsigned const left = unread();
    if (left) std::memmove(buffer, buffer + posn, left);
    file_size = left;
    posn = 0;
    scanned_to = left;  // the caller has searched it all
}

// A store that is full to the last byte has no room for the NUL behind a line: what is unfinished there stays.
bool BufferedStream::is_overflow() const {
    return buffer_size > 1 && unread() == buffer_size - 1 && file_size != buffer_size;
}

int BufferedStream::overflow_line(char*& line, LINE_STATE_T& state, bool strip_cr) {
    unsigned end = file_size;
    state = LINE_OVERFLOW;
    line = buffer + posn;
    bool const held_return = strip_cr && buffer[end - 1] == '\r';
    if (held_return) --end;
    if (held_return || buffer_is_store) {
        saved_posn = static_cast<int>(end);
        saved_chr = buffer[end];
    }
    buffer[end] = 0;
    int const length = static_cast<int>(end - posn);
    file_size = 0;
    posn = 0;
    scanned_to = 0;
    return length;
}

int BufferedStream::readdata(char*& data, unsigned max, bool force, bool& io_done) {
    restore_saved_chr();
    if (!have_buffer()) return -1;
    unsigned available;
    while ((available = unread()) == 0) {
        file_size = 0;
        posn = 0;
        scanned_to = 0;
        int const count = perform_io(force, io_done);
        if (count <= 0) return count;
    }
    data = buffer + posn;
    unsigned const count = std::min(available, max);
    posn += count;
    return static_cast<int>(count);
}

int BufferedStream::buffereddata(char*& data) {
    data = nullptr;
    restore_saved_chr();
    if (!have_buffer()) return -1;
    scanned_to = 0;  // the caller may change what it is shown
    data = buffer + std::min(posn, file_size);
    return static_cast<int>(unread());
}

bool BufferedStream::is_line_buffered() const {
    unsigned const from = std::max(posn, scanned_to);
    return buffer && from < file_size && std::memchr(buffer + from, '\n', file_size - from);
}

bool BufferedStream::empty_overflow() {
    bool io_done = false;
    char* line = nullptr;
    LINE_STATE_T state;
    do {
        if (getline(line, true, io_done, state, false) < 0) return false;
    } while (state == LINE_OVERFLOW);
    return state == LINE_COMPLETE;
}

int BufferedStream::rewind(char const* p) {
    std::less<char const*> const below;
    if (!buffer || below(p, buffer) || !below(p, buffer + file_size)) return -1;
    restore_saved_chr();
    posn = static_cast<unsigned>(p - buffer);
    scanned_to = 0;
    return 0;
}

void BufferedStream::seek_posn(long position) {
    posn = static_cast<unsigned>(position);
    scanned_to = 0;
}

void BufferedStream::set_file_size(unsigned size) {
    restore_saved_chr();
    file_size = size;
    posn = std::min(posn, size);
    scanned_to = 0;
}

void BufferedStream::invalidate_buffer(bool keep) {
    saved_posn = -1;
    posn = 0;
    scanned_to = 0;
    if (!keep) file_size = 0;
}

}  // namespace VELT
