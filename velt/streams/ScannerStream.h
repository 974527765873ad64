// ScannerStream: one message body, or any other blob to be scanned, while it passes through the proxy. It lies in one
// memory buffer while it fits and in a file of the spool directory from the byte on that does not; who reads or writes
// it need not know which. It has two read cursors: the ordinary one, and the trickle one, by which a client is fed
// while the object is still being written. Owner: whoever makes it; its spool file is deleted with it. Threads: one at
// a time, no lock; set_buffer_pool and set_spool_dir run before threads start. Units: bytes; positions are 32 bits
// wide, so that an object is below 4 GiB. Failure: -1 or false, never an exception. After a failed write the content is
// incomplete and nothing marks it: drop the object.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <velt/Export.h>
#include <velt/streams/BufferedStream.h>

namespace VELT {

class BufferPool;

class VELT_API ScannerStream : public BufferedStream {
public:
    using Replacements = std::vector<std::pair<std::string, std::string>>;

    // Set-up of the process. The pool comes first: a stream built before it has no memory and lies on disk only.
    static void set_buffer_pool(unsigned initial_count, unsigned size);  // bytes; an object below that stays in memory
    static void set_spool_dir(std::string& path);  // makes it, and "segv" in it, open to all; an existing one is fine

    // The id becomes part of a path as it stands: it is never text from the network.
    ScannerStream(std::string const& id, bool outbound);  // memory of the pool; spools to ID.in, or ID.out if outbound
    explicit ScannerStream(unsigned size);                // memory of its own; 0: none, all goes to disk
    ~ScannerStream() override;
    ScannerStream(ScannerStream const&) = delete;
    ScannerStream& operator=(ScannerStream const&) = delete;

    // The forms with a count answer 0 or -1, the others the count or -1. An object of exactly the memory's size is on
    // disk already: the last byte is kept free.
    int write(char const* data, unsigned length, unsigned* written) override;
    long write(char const* data, unsigned length);

    // Adds to *written. Each buffer moves the cursor twice, so that it stands beyond the data: seek before going on.
    int writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* written) override;

    // On disk the cursor moves by what was asked for, not by what came: seek before asking for the position.
    int read(char* data, unsigned length, unsigned* got) override;
    long read(char* data, unsigned long length);

    // whence 0: from the start, 1: from the cursor. The new position, or -1. In memory it may lie beyond the data.
    long seek(long offset, int whence);

    unsigned size() const { return eof; }
    std::string const& get_spool_file() const { return disk_file; }  // empty in memory, and for a file not ours

    void set_id(std::string const& name);  // the later spool file is NAME.out; one that exists keeps its name
    bool setsize(unsigned length);         // cuts, or grows by zero bytes

    void reset();    // empty and in memory again; a spool file of its own is deleted
    void release();  // gives the memory up: what lies in memory is lost
    void close_io_stream() override;
    char* stream_info(unsigned& position, unsigned& length, unsigned& limit) override;

    // The second cursor. In memory it never passes what was written. A failed read on disk gives 0 with *got =
    // UINT_MAX.
    int trickle_read(char* data, unsigned length, unsigned* got);
    long trickle_seekto(int position);

    // Copies of the whole content, wherever the cursor stands.
    int spool_to_disk(char const* path);
    int spool_to_stream(BufferedStream* target);

    // The same for a mail: each header that starts with a pair's first text (in any case of letters) is written as that
    // text, a blank and the second one, its folded lines dropped. Line ends up to the first empty line become "\n". The
    // cursor is at the start afterwards. A last header without line end counts as body.
    int spool_to_disk(char const* path, Replacements const& replacements);

    int spool_from_stream(BufferedStream* source, unsigned count);  // -1 too when the source ends before
    // The same in as few reads as the source allows: what fits the memory is read straight into it.
    int take_from_stream(BufferedStream* source, unsigned count);

    // Replace the content. A file that does not fit into memory is used where it is; it is not deleted afterwards.
    int spool_from_disk(char const* path);  // read-only when used in place
    int set_disk_file(char const* path);    // always in place, read-write

    int reopen_disk_file();  // after another process worked on the spool file; nothing to do in memory

    // For the crash handler: the content to `path`, its state as text to `path`.info. Always 0.
    int emergency_dump(char const* path);

    // For a scan that does not come back, from a signal handler on the thread that owns the stream: the file of this
    // name in an open directory is another name of the spool file, or a copy of what lies in memory. No state changes.
    bool keep_copy(int directory, char const* name) const;

    static BufferPool* s_bufferpool;
    static unsigned s_buffersize;
    static std::string s_spooldir;  // ends in "/"

private:
    bool on_disk() const { return disk_fd >= 0; }
    unsigned room() const { return memory ? capacity : 0; }
    unsigned in_memory() const;  // bytes of the content that memory really holds
    bool is_own_buffer(char const* data) const;
    unsigned free_bytes_at(char const* data) const;

    struct HeaderRewrite;

    long create_disk_file(char const* data, unsigned length);
    long write_disk(char const* data, unsigned length);
    long write_memory(char const* data, unsigned length);
    void grow_to(unsigned length);
    void advance(unsigned long count);
    long read_memory(char* data, unsigned long length);
    long read_disk(char* data, unsigned long length);
    long seek_memory(long target);
    long seek_disk(long target);
    bool setsize_disk(unsigned length);
    bool open_trickle();
    int adopt_file(char const* path, int flags, unsigned& length);
    int load_memory(int fd, unsigned length);
    bool copy_to(int fd);
    int copy_disk_to_stream(BufferedStream* target);
    bool replaceheader(char const* path, int fd, char const* line, Replacements const& replacements, bool& failed);
    bool writefile(char const* path, int fd, char const* data, unsigned long length);
    bool dropfile(char const* path, int fd);
    void write_dump_info(char const* path) const;

    bool outbound;
    char* memory;
    unsigned capacity;
    int disk_fd;
    int trickle_fd;
    bool reading;
    unsigned posn;
    unsigned eof;
    unsigned trickle_posn;
    std::string disk_file;
    std::string id;
    bool own_memory;
};

}  // namespace VELT
