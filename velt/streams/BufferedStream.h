// BufferedStream: base of every stream; it lays one line-oriented input buffer over a raw read.
// Lines and blocks are handed out as pointers into that buffer. They, and the NUL behind a line, last until the next
// operation on the stream.
// Owner: one session at a time. Thread: the owner's; there is no lock. Units: bytes.
// Failure: reads answer -1 with errno set, 0 in errno where only the one permitted read was used up; nothing throws.
#pragma once

#include <velt/Export.h>

namespace VELT {

class BufferPool;

enum LINE_STATE_T {
    LINE_COMPLETE = 0,    // a whole line is returned
    LINE_CLOSED = 1,      // no line and none to come: no buffer, a failed read, or the peer closed
    LINE_OVERFLOW = 2,    // the line did not fit; its first part is returned
    LINE_INCOMPLETE = 3,  // no whole line yet, and the caller's one read has been used
};

class VELT_API BufferedStream {
public:
    BufferedStream() = default;
    virtual ~BufferedStream();
    BufferedStream(BufferedStream const&) = delete;
    BufferedStream& operator=(BufferedStream const&) = delete;

    // The raw operations: 0 or an error code. A read that sets the count to 0 met the end of the stream.
    virtual int read(char* data, unsigned length, unsigned* received) = 0;
    virtual int write(char const* data, unsigned length, unsigned* sent) = 0;
    virtual int writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) = 0;
    virtual int get_file();          // the descriptor; the base has none and answers -1
    virtual void flush();            // the base does nothing
    virtual void close_io_stream();  // the base does nothing
    // Asked once, when buffering starts: a stream with memory of its own answers it, and what it holds already. The
    // base answers null.
    virtual char* stream_info(unsigned& posn, unsigned& size, unsigned& capacity);
    virtual BufferPool* get_pool();  // asked when stream_info gave nothing; the base answers null

    // The length of the line, without its end and with a NUL behind it; 0 or -1 where `state` is not LINE_COMPLETE
    // or LINE_OVERFLOW. A '\r' that a block read left in front of a lone '\n' is stripped too: length -1,
    // LINE_COMPLETE. After LINE_OVERFLOW the next call gets the tail as a line of its own.
    int getline(char*& line, bool force, bool& io_done, LINE_STATE_T& state, bool strip_cr);
    // Hands out what is buffered, else reads once: the count, 0 at the end of the stream, -1 on failure.
    int readdata(char*& data, unsigned max, bool force, bool& io_done);
    // The count of bytes at hand, without a read; they stay at hand. -1 and null when no buffer can be had.
    int buffereddata(char*& data);
    bool is_line_buffered() const;
    bool empty_overflow();  // drops the rest of an over-long line; false: the stream failed or ended first

    int rewind(char const* p);      // back to a place inside the buffer: 0, or -1 where `p` is outside
    void seek_posn(long position);  // not checked; at a place beyond the data nothing is at hand
    void set_file_size(unsigned size);
    void invalidate_buffer(bool keep);  // forgets the saved byte without putting it back; `keep`: the data stays
    void restore_saved_chr() {
        if (saved_posn < 0) return;
        buffer[saved_posn] = saved_chr;
        saved_posn = -1;
    }
    void initialise_buffering();
    void reset_buffered_stream();  // gives the buffer back; the stream can be used anew

protected:
    // The one read that a caller may make each time its socket is known to be readable: it owns `io_done` and clears it
    // then. `force` reads regardless. The count, 0 at the end of the stream, or -1 with errno.
    int perform_io(bool force, bool& io_done);

    // Set while the buffer is the subclass's own storage: an unfinished line is then not moved to the front.
    void set_buffer_is_store(bool on) { buffer_is_store = on; }

    bool buffering_started = false;
    bool buffer_from_pool = false;  // the buffer goes back to `pool`
    char* buffer = nullptr;         // borrowed, unless buffer_from_pool
    BufferPool* pool = nullptr;
    int saved_posn = -1;       // where getline put its NUL; -1: nowhere
    unsigned file_size = 0;    // one past the last valid byte
    unsigned buffer_size = 0;  // capacity; one byte less is ever held, so that there is room for a NUL
    unsigned posn = 0;         // next byte to hand out
    char saved_chr = 0;        // the byte that belongs at saved_posn
    bool buffer_is_store = false;
    unsigned scanned_to = 0;  // no '\n' stands from posn up to here

private:
    bool have_buffer() {
        if (!buffering_started) initialise_buffering();  // once: a stream that got no buffer does not ask again
        return buffer != nullptr;
    }
    unsigned unread() const { return posn < file_size ? file_size - posn : 0; }
    unsigned free_space() const { return buffer_size > file_size ? buffer_size - file_size - 1 : 0; }
    int complete_line(unsigned end, char*& line, LINE_STATE_T& state, bool strip_cr);
    bool is_overflow() const;
    int overflow_line(char*& line, LINE_STATE_T& state, bool strip_cr);
    int read_line(char*& line, bool force, bool& io_done, LINE_STATE_T& state, bool strip_cr);
    bool find_line_end(unsigned& end);
    void compact();
};

}  // namespace VELT
