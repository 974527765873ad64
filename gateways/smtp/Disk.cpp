#include "Disk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>

namespace smtp {
namespace {

constexpr std::size_t kCopied = 65536;

std::string FolderOf(std::string const& path) { return path.substr(0, path.rfind('/') + 1); }

// Not every file system can refuse by itself; the names are such that nobody else comes by one of them meanwhile.
bool RenameUnlessTaken(std::string const& from, std::string const& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    if (::access(to.c_str(), F_OK) == 0) return errno = EEXIST, false;
    return ::rename(from.c_str(), to.c_str()) == 0;
}

bool CopyContent(int from, int to) {
    auto const block = std::make_unique<char[]>(kCopied);
    for (off_t at = 0;;) {
        ssize_t const count = ::pread(from, block.get(), kCopied, at);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return count == 0;
        if (!WriteAt(to, {block.get(), static_cast<std::size_t>(count)}, static_cast<std::uint64_t>(at))) return false;
        at += count;
    }
}

bool CopyFacts(int from, int to) {
    struct stat facts {};
    if (::fstat(from, &facts) != 0) return false;
    bool const foreign = facts.st_uid != ::geteuid() || facts.st_gid != ::getegid();
    timespec const times[2] = {facts.st_atim, facts.st_mtim};
    return (!foreign || ::fchown(to, facts.st_uid, facts.st_gid) == 0) && ::fchmod(to, facts.st_mode & 0777) == 0 &&
           ::futimens(to, times) == 0;
}

bool CopyFile(int from, std::string const& path) {
    int const to = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (to < 0) return false;
    bool const copied = CopyContent(from, to) && CopyFacts(from, to) && Flush(to);
    int const error = errno;
    bool const closed = ::close(to) == 0 || errno == EINTR;
    if (!copied) errno = error;
    return copied && closed;
}

bool CopyUnlessTaken(int fd, std::string const& to) {
    std::string const unfinished = to + ".tmp";
    if (::access(to.c_str(), F_OK) == 0) return errno = EEXIST, false;
    if (CopyFile(fd, unfinished) && RenameUnlessTaken(unfinished, to)) return true;
    int const error = errno;
    ::unlink(unfinished.c_str());
    errno = error;
    return false;
}

}  // namespace

bool WriteAt(int fd, std::string_view bytes, std::uint64_t at) {
    while (!bytes.empty()) {
        ssize_t const count = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(at));
        if (count < 0 && errno == EINTR) continue;
        if (count == 0) errno = ENOSPC;
        if (count <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(count));
        at += static_cast<std::uint64_t>(count);
    }
    return true;
}

bool Flush(int fd) {
    int result;
    do {
        result = ::fsync(fd);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

bool FlushDirectory(std::string const& directory) {
    int const fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    bool const flushed = Flush(fd);
    int const error = errno;
    ::close(fd);
    errno = error;
    return flushed;
}

bool MoveFile(int fd, std::string const& path, std::string const& directory) {
    std::string const to = directory + path.substr(path.rfind('/') + 1);
    bool const renamed = RenameUnlessTaken(path, to);
    if (!renamed && errno != EXDEV) return false;
    if (!renamed && !CopyUnlessTaken(fd, to)) return false;
    // It is to be in the new place before it is gone from the old one.
    if (!FlushDirectory(directory)) return false;
    if (!renamed && ::unlink(path.c_str()) != 0) return false;
    return FlushDirectory(FolderOf(path));
}

}  // namespace smtp
