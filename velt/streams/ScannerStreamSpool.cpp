// Whole contents: copies out of a ScannerStream, and files and streams taken in.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <velt/streams/ScannerStream.h>
#include <velt/streams/SpoolFile.h>

namespace VELT {

namespace {

constexpr unsigned kBlock = 1024;           // bytes copied at a time
constexpr unsigned kMaxReadFailures = 100;  // in a row: a directory, for one, fails for ever
constexpr unsigned kMaxDumpPath = 4096;     // with ".info" and the NUL

bool IsTransient(int error) { return error == EAGAIN || error == EINTR; }

ssize_t ReadBlock(int fd, char (&block)[kBlock]) {
    ssize_t count;
    do count = ::read(fd, block, sizeof block);
    while (count < 0 && IsTransient(errno));
    return count;
}

bool WriteAllTo(BufferedStream& target, char const* data, unsigned length) {
    while (length > 0) {
        unsigned sent = 0;
        if (target.write(data, length, &sent) != 0 || sent == 0) return false;
        data += sent;
        length -= sent;
    }
    return true;
}

int CloseKeepingErrno(int fd) {
    int const error = errno;
    ::close(fd);
    errno = error;
    return -1;
}

// The size of an open file. A position is 32 bits wide, so that a file beyond that is refused, not cut.
bool FileLength(int fd, unsigned& length) {
    struct stat status;
    if (::fstat(fd, &status) != 0) return false;
    if (status.st_size > static_cast<off_t>(UINT_MAX)) {
        errno = EFBIG;
        return false;
    }
    length = static_cast<unsigned>(status.st_size);
    return true;
}

}  // namespace

bool WriteAll(int fd, char const* data, unsigned long length) {
    while (length > 0) {
        ssize_t const sent = ::write(fd, data, length);
        if (sent < 0 && IsTransient(errno)) continue;
        if (sent <= 0) return false;
        data += sent;
        length -= static_cast<unsigned long>(sent);
    }
    return true;
}

int CloseWritten(int fd, char const* path, bool complete) {
    int error = errno;
    if (::close(fd) != 0 && errno != EINTR) {
        if (complete) error = errno;
        complete = false;
    }
    if (complete) return 0;
    ::unlink(path);
    errno = error;
    return -1;
}

int ScannerStream::spool_to_disk(char const* path) {
    restore_saved_chr();
    int const fd = ::open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return -1;
    return CloseWritten(fd, path, on_disk() ? copy_to(fd) : WriteAll(fd, memory, in_memory()));
}

// True when all of it was copied, and the cursor stands where it did.
bool ScannerStream::copy_to(int fd) {
    off_t const here = ::lseek(disk_fd, 0, SEEK_CUR);
    if (here < 0 || ::lseek(disk_fd, 0, SEEK_SET) != 0) return false;
    char block[kBlock];
    ssize_t count;
    do count = ReadBlock(disk_fd, block);
    while (count > 0 && WriteAll(fd, block, static_cast<unsigned long>(count)));
    int const error = errno;
    if (::lseek(disk_fd, here, SEEK_SET) != here) return false;
    errno = error;
    return count == 0;
}

int ScannerStream::spool_to_stream(BufferedStream* target) {
    restore_saved_chr();
    if (on_disk()) return copy_disk_to_stream(target);
    return WriteAllTo(*target, memory, in_memory()) ? 0 : -1;
}

int ScannerStream::copy_disk_to_stream(BufferedStream* target) {
    off_t const here = ::lseek(disk_fd, 0, SEEK_CUR);
    if (here < 0 || ::lseek(disk_fd, 0, SEEK_SET) != 0) return -1;
    char block[kBlock];
    ssize_t count;
    while ((count = ReadBlock(disk_fd, block)) > 0)
        if (!WriteAllTo(*target, block, static_cast<unsigned>(count))) return -1;
    return count == 0 && ::lseek(disk_fd, here, SEEK_SET) == here ? 0 : -1;
}

int ScannerStream::spool_from_stream(BufferedStream* source, unsigned count) {
    restore_saved_chr();
    while (count > 0) {
        char* data = nullptr;
        bool io_done = false;
        int const got = source->readdata(data, count, true, io_done);
        if (got < 1) return -1;
        if (!WriteAllTo(*this, data, static_cast<unsigned>(got))) return -1;
        count -= static_cast<unsigned>(got);
    }
    return 0;
}

// What the source has at hand already comes by way of its buffer.
int ScannerStream::take_from_stream(BufferedStream* source, unsigned count) {
    restore_saved_chr();
    char* data = nullptr;
    int const at_hand = source->buffereddata(data);
    unsigned const first = at_hand > 0 ? std::min(static_cast<unsigned>(at_hand), count) : 0;
    if (spool_from_stream(source, first) != 0) return -1;
    count -= first;
    if (on_disk() || std::uint64_t{posn} + count >= room()) return spool_from_stream(source, count);
    if (posn > eof) grow_to(posn);
    while (count > 0) {
        unsigned got = 0;
        int const error = source->read(memory + posn, count, &got);
        if (error) errno = error;
        if (error || got == 0) return -1;
        posn += got;
        eof = std::max(eof, posn);
        count -= got;
    }
    return 0;
}

// Empties the stream and opens the file that is to take its place: the descriptor, or -1.
int ScannerStream::adopt_file(char const* path, int flags, unsigned& length) {
    reset();
    int const fd = ::open(path, flags | O_CLOEXEC);
    if (fd < 0) return -1;
    return FileLength(fd, length) ? fd : CloseKeepingErrno(fd);
}

int ScannerStream::spool_from_disk(char const* path) {
    unsigned length = 0;
    int const fd = adopt_file(path, O_RDONLY, length);
    if (fd < 0) return -1;
    if (room() > length) return load_memory(fd, length);
    eof = length;
    disk_fd = fd;
    return 0;
}

int ScannerStream::load_memory(int fd, unsigned length) {
    unsigned failures = 0;
    while (eof < length) {
        ssize_t const count = ::read(fd, memory + eof, length - eof);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno != EAGAIN && ++failures < kMaxReadFailures) continue;
        if (count == 0) errno = EIO;  // shorter than it said
        if (count <= 0) return CloseKeepingErrno(fd);
        eof += static_cast<unsigned>(count);
        failures = 0;
    }
    ::close(fd);
    return 0;
}

int ScannerStream::set_disk_file(char const* path) {
    unsigned length = 0;
    int const fd = adopt_file(path, O_RDWR, length);
    if (fd < 0) return -1;
    eof = length;
    disk_fd = fd;
    return 0;
}

// Without a file the stream counts as in memory, and there is nothing in memory: it is empty.
int ScannerStream::reopen_disk_file() {
    restore_saved_chr();
    if (!on_disk()) return 0;
    ::close(disk_fd);
    posn = 0;
    eof = 0;
    reading = false;
    invalidate_buffer(false);
    disk_fd = ::open(disk_file.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    if (disk_fd < 0) return -1;
    if (FileLength(disk_fd, eof)) return 0;
    CloseKeepingErrno(disk_fd);
    disk_fd = -1;
    return -1;
}

int ScannerStream::emergency_dump(char const* path) {
    restore_saved_chr();
    if (on_disk())
        static_cast<void>(std::rename(disk_file.c_str(), path));
    else
        spool_to_disk(path);
    write_dump_info(path);
    return 0;
}

bool ScannerStream::keep_copy(int directory, char const* name) const {
    if (on_disk()) return ::linkat(AT_FDCWD, disk_file.c_str(), directory, name, 0) == 0;
    int const fd = ::openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    bool const whole = WriteAll(fd, memory, in_memory());
    ::close(fd);
    return whole;
}

void ScannerStream::write_dump_info(char const* path) const {
    char name[kMaxDumpPath];
    int const length = std::snprintf(name, sizeof name, "%s.info", path);
    if (length < 0 || length >= static_cast<int>(sizeof name)) return;
    std::FILE* const info = std::fopen(name, "we");
    if (!info) return;
    if (on_disk())
        std::fprintf(info, "FileType: OffDisk\nFileName : %s\n", disk_file.c_str());
    else
        std::fputs("FileType: In Memory\n", info);
    std::fprintf(info, "Posn: %d\nEof : %d\n", static_cast<int>(posn), static_cast<int>(eof));
    std::fclose(info);
}

}  // namespace VELT
