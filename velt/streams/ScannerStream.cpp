#include <velt/streams/ScannerStream.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <velt/streams/BufferPool.h>

namespace VELT {

BufferPool* ScannerStream::s_bufferpool = nullptr;
unsigned ScannerStream::s_buffersize = 0;
std::string ScannerStream::s_spooldir;

namespace {

constexpr int kInvalidSeekLine = 78;  // the number by which operators know the report of a bad `whence`

void MakeOpenDirectory(std::string const& path) {
    ::mkdir(path.c_str(), 0777);
    ::chmod(path.c_str(), 0777);
}

void CloseIfOpen(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

// Every pool ever made stays: a stream may still hold a buffer of an older one.
void KeepPool(BufferPool* pool) {
    static auto& pools = *new std::vector<std::unique_ptr<BufferPool>>;
    pools.emplace_back(pool);
}

}  // namespace

void ScannerStream::set_buffer_pool(unsigned initial_count, unsigned size) {
    s_bufferpool = new BufferPool(size, initial_count);
    KeepPool(s_bufferpool);
    s_buffersize = size;
}

void ScannerStream::set_spool_dir(std::string& path) {
    s_spooldir = path;
    MakeOpenDirectory(s_spooldir);
    if (s_spooldir.empty() || s_spooldir.back() != '/') s_spooldir += '/';
    MakeOpenDirectory(s_spooldir + "segv");
}

ScannerStream::ScannerStream(std::string const& name, bool is_outbound)
    : outbound(is_outbound), memory(nullptr), capacity(0), disk_fd(-1), trickle_fd(-1), id(name), own_memory(false) {
    if (s_bufferpool) memory = s_bufferpool->obtain_buffer(capacity);
    reset();
}

// One byte more than it uses: where the memory is full, the buffered layer may put its NUL behind it.
ScannerStream::ScannerStream(unsigned size)
    : outbound(false),
      memory(size ? new (std::nothrow) char[std::size_t{size} + 1] : nullptr),
      capacity(size),
      disk_fd(-1),
      trickle_fd(-1),
      own_memory(true) {
    reset();
}

ScannerStream::~ScannerStream() {
    release();
    CloseIfOpen(disk_fd);
    CloseIfOpen(trickle_fd);
    if (!disk_file.empty()) ::unlink(disk_file.c_str());
}

void ScannerStream::reset() {
    restore_saved_chr();
    reading = false;
    eof = 0;
    posn = 0;
    CloseIfOpen(trickle_fd);
    close_io_stream();
    if (!disk_file.empty()) ::unlink(disk_file.c_str());
    disk_fd = -1;
    disk_file.clear();
    trickle_posn = 0;
    reset_buffered_stream();
}

// The buffered layer reads out of the memory, so that it lets go of it first.
void ScannerStream::release() {
    restore_saved_chr();
    reset_buffered_stream();
    if (own_memory)
        delete[] memory;
    else if (s_bufferpool && s_bufferpool->size() == capacity)
        s_bufferpool->release_buffer(memory);
    else
        std::free(memory);
    memory = nullptr;
}

void ScannerStream::close_io_stream() {
    restore_saved_chr();
    CloseIfOpen(disk_fd);
}

void ScannerStream::set_id(std::string const& name) {
    restore_saved_chr();
    id = name;
    outbound = true;
}

unsigned ScannerStream::in_memory() const { return std::min(eof, room()); }

// True for the places that the buffered layer reads into. With memory filled to its last byte that is one past the end.
bool ScannerStream::is_own_buffer(char const* data) const {
    if (!memory) return false;
    auto const offset = reinterpret_cast<std::uintptr_t>(data) - reinterpret_cast<std::uintptr_t>(memory);
    return offset < capacity || (offset == capacity && buffer == memory && file_size == capacity);
}

// How much may be read to a place inside the memory; the last byte stays free for a NUL.
unsigned ScannerStream::free_bytes_at(char const* data) const {
    unsigned const used = static_cast<unsigned>(data - memory);
    return used + 1 < capacity ? capacity - 1 - used : 0;
}

long ScannerStream::write(char const* data, unsigned length) {
    restore_saved_chr();
    return on_disk() ? write_disk(data, length) : write_memory(data, length);
}

int ScannerStream::write(char const* data, unsigned length, unsigned* written) {
    long const count = write(data, length);
    if (count < 0) return -1;
    *written = static_cast<unsigned>(count);
    return 0;
}

int ScannerStream::writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* written) {
    for (unsigned i = 0; i < count; ++i) {
        unsigned sent = 0;
        if (write(buffers[i], lengths[i], &sent) != 0) return -1;
        advance(sent);  // on top of what write itself did: callers seek before they go on
        *written += sent;
    }
    return 0;
}

// The room is never filled to the last byte, which the buffered layer needs for its NUL.
long ScannerStream::write_memory(char const* data, unsigned length) {
    std::uint64_t const end = std::uint64_t{posn} + length;
    if (end >= room()) return create_disk_file(data, length);
    if (length == 0) return 0;
    if (posn > eof) grow_to(posn);
    std::memcpy(memory + posn, data, length);
    posn = static_cast<unsigned>(end);
    eof = std::max(eof, posn);
    return length;
}

// Pool memory holds what another session left: a gap reads as zero bytes, as it does in a file.
void ScannerStream::grow_to(unsigned length) {
    if (length > eof) std::memset(memory + eof, 0, length - eof);
    eof = length;
}

long ScannerStream::create_disk_file(char const* data, unsigned length) {
    disk_file = s_spooldir + id + (outbound ? ".out" : ".in");
    disk_fd = ::open(disk_file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (!on_disk()) {
        disk_file.clear();
        return -1;
    }
    set_buffer_is_store(false);
    unsigned const held = in_memory();
    if (held > 0 && ::write(disk_fd, memory, held) != static_cast<ssize_t>(held)) return -1;
    if (::lseek(disk_fd, posn, SEEK_SET) < 0) return -1;
    return write_disk(data, length);
}

long ScannerStream::write_disk(char const* data, unsigned length) {
    invalidate_buffer(false);
    if (length > UINT_MAX - posn) {
        errno = EFBIG;
        return -1;
    }
    for (unsigned left = length; left > 0;) {
        ssize_t const sent = ::write(disk_fd, data, left);
        if (sent <= 0) return -1;
        data += sent;
        left -= static_cast<unsigned>(sent);
        posn += static_cast<unsigned>(sent);
        eof = std::max(eof, posn);
    }
    return length;
}

long ScannerStream::read(char* data, unsigned long length) {
    restore_saved_chr();
    return on_disk() ? read_disk(data, length) : read_memory(data, length);
}

int ScannerStream::read(char* data, unsigned length, unsigned* got) {
    long const count = read(data, static_cast<unsigned long>(length));
    *got = count < 0 ? 0 : static_cast<unsigned>(count);
    return count < 0 ? -1 : 0;
}

// The buffered layer works on the memory itself: what it asks for lies there already.
long ScannerStream::read_memory(char* data, unsigned long length) {
    if (is_own_buffer(data) || posn >= in_memory()) return 0;
    unsigned const count = static_cast<unsigned>(std::min<unsigned long>(length, in_memory() - posn));
    std::memcpy(data, memory + posn, count);
    posn += count;
    return count;
}

// The buffered layer goes by the pool's size, which a stream's own memory need not have.
long ScannerStream::read_disk(char* data, unsigned long length) {
    unsigned long const limit = is_own_buffer(data) ? std::min<unsigned long>(length, free_bytes_at(data)) : length;
    ssize_t const count = ::read(disk_fd, data, limit);
    if (count < 0) return -1;
    advance(length);  // what was asked for
    return count;
}

// The last position is where the cursor stops: from there on a write is refused.
void ScannerStream::advance(unsigned long count) {
    posn = static_cast<unsigned>(std::min<unsigned long>(posn + std::min<unsigned long>(count, UINT_MAX), UINT_MAX));
}

long ScannerStream::seek(long offset, int whence) {
    restore_saved_chr();
    if (whence != SEEK_SET && whence != SEEK_CUR) {
        ::syslog(LOG_DAEMON | LOG_INFO, "%s:%d Invalid Seek position", "seek", kInvalidSeekLine);
        return -1;
    }
    long target = offset;
    if (whence == SEEK_CUR && __builtin_add_overflow(offset, static_cast<long>(posn), &target)) target = -1;
    if (target < 0 || target > static_cast<long>(UINT_MAX)) {
        errno = EINVAL;
        return -1;
    }
    if (!on_disk() && posn < room()) return seek_memory(target);
    if (!on_disk() && create_disk_file(nullptr, 0) < 0) return -1;
    return seek_disk(target);
}

// The buffered layer moves without a read: all there is lies in its buffer.
long ScannerStream::seek_memory(long target) {
    invalidate_buffer(true);
    if (buffering_started) set_file_size(in_memory());
    seek_posn(target);
    posn = static_cast<unsigned>(target);
    return target;
}

long ScannerStream::seek_disk(long target) {
    invalidate_buffer(false);
    long const place = ::lseek(disk_fd, target, SEEK_SET);
    if (place >= 0) posn = static_cast<unsigned>(place);
    return place;
}

bool ScannerStream::setsize(unsigned length) {
    restore_saved_chr();
    if (!on_disk() && length > room() && create_disk_file(nullptr, 0) < 0) return false;
    if (on_disk()) return setsize_disk(length);
    grow_to(length);
    if (buffering_started) set_file_size(length);
    posn = std::min(posn, length);
    return true;
}

bool ScannerStream::setsize_disk(unsigned length) {
    if (::ftruncate(disk_fd, length) != 0) return false;
    eof = length;
    if (length >= posn) return true;
    invalidate_buffer(false);
    if (::lseek(disk_fd, length, SEEK_SET) < 0) return false;
    posn = length;
    return true;
}

char* ScannerStream::stream_info(unsigned& position, unsigned& length, unsigned& limit) {
    restore_saved_chr();
    limit = own_memory && s_bufferpool ? s_bufferpool->size() : capacity;
    set_buffer_is_store(!on_disk());
    position = 0;
    length = 0;
    if (on_disk()) return memory;
    position = posn;
    length = in_memory();
    posn = eof;  // the buffered layer is the reader from here on
    return memory;
}

int ScannerStream::trickle_read(char* data, unsigned length, unsigned* got) {
    restore_saved_chr();
    if (on_disk()) {
        if (!open_trickle()) return -1;
        *got = static_cast<unsigned>(::read(trickle_fd, data, length));
        return 0;
    }
    unsigned const end = in_memory();
    *got = trickle_posn < end ? std::min(length, end - trickle_posn) : 0;
    if (*got > 0) std::memcpy(data, memory + trickle_posn, *got);
    trickle_posn += *got;
    return 0;
}

long ScannerStream::trickle_seekto(int position) {
    restore_saved_chr();
    if (on_disk()) return open_trickle() ? ::lseek(trickle_fd, position, SEEK_SET) : -1;
    if (position >= 0 && static_cast<unsigned>(position) < eof) trickle_posn = static_cast<unsigned>(position);
    return trickle_posn;
}

bool ScannerStream::open_trickle() {
    if (trickle_fd >= 0) return true;
    ::fsync(disk_fd);
    trickle_fd = ::open(disk_file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (trickle_fd < 0) return false;
    if (::lseek(trickle_fd, trickle_posn, SEEK_SET) >= 0) return true;
    CloseIfOpen(trickle_fd);
    return false;
}

}  // namespace VELT
