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

// Not every file system can refuse by itself; the names are such that nobody else comes by one of them meanwhile.
bool RenameUnlessTaken(std::string const& from, std::string const& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    if (::access(to.c_str(), F_OK) == 0) return errno = EEXIST, false;
    return ::rename(from.c_str(), to.c_str()) == 0;
}

// It is to be in the new place before it is gone from the old one.
bool MoveFile(std::string const& path, std::string const& directory) {
    return RenameUnlessTaken(path, directory + path.substr(path.rfind('/') + 1)) && FlushDirectory(directory) &&
           FlushDirectory(FolderOf(path));
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
    return (!foreign || ::fchown(to, facts.st_uid, facts.st_gid) == 0) && ::fchmod(to, facts.st_mode & 0777) == 0;
}

}  // namespace smtp
