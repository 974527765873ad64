// A library to be loaded before the C library. It counts the calls that change what is on disk in the places of
// VELT_ROOT where mail waits or is spooled, whichever process makes them, and ends the process that makes the n-th with
// SIGKILL. VELT_FILE_CALLS names a file with three numbers of 64 bits: n (0: nobody dies; who died has set it to 0),
// how many calls were made so far while n was set, and where in the call the process dies, as in Manner.
// VELT_FILE_CALLS_RECORD names a file to which each call that succeeded is written in its order, and what went out
// through sockets: a line "name inode offset length-of-path length-of-data", then path and data.
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#undef _FORTIFY_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

enum Manner : long {
    kInstead,  // it dies, and the call is not made
    kInPart,   // it dies when the first half of a write was made
    kBehind,   // it dies when the call was made
    kFails,    // the call fails with EIO
    kHolds,    // it stands still; once it goes on the call fails
};

struct Plan {
    std::atomic<long> at;
    std::atomic<long> made;
    std::atomic<long> manner;
};

template <class Call>
Call Next(char const* name) {
    return reinterpret_cast<Call>(::dlsym(RTLD_NEXT, name));
}

int OpenBeneath(char const* path, int flags) {
    static auto const next = Next<int (*)(char const*, int, ...)>("open");
    return path ? next(path, flags, 0600) : -1;
}

Plan* MapPlan() {
    int const fd = OpenBeneath(std::getenv("VELT_FILE_CALLS"), O_RDWR | O_CLOEXEC);
    if (fd < 0) return nullptr;
    void* const mapped = ::mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    return mapped == MAP_FAILED ? nullptr : static_cast<Plan*>(mapped);
}

Plan* ThePlan() {
    static Plan* const plan = MapPlan();
    return plan;
}

bool IsWatched(std::string_view path) {
    static char const* const root = std::getenv("VELT_ROOT");
    if (!root || path.substr(0, std::string_view(root).size()) != root) return false;
    std::string_view const place = path.substr(std::string_view(root).size());
    for (std::string_view const one : {"/deferred/", "/quarantine/", "/scandir/"}) {
        if (place.substr(0, one.size()) == one) return true;
    }
    return false;
}

std::string PathOf(int fd) {
    char path[PATH_MAX];
    std::string const link = "/proc/self/fd/" + std::to_string(fd);
    ssize_t const length = ::readlink(link.c_str(), path, sizeof path);
    return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : "";
}

// One call: what was planned for it happens.
class Step {
public:
    explicit Step(std::string path) : m_path(std::move(path)), m_hit(IsWatched(m_path) && IsPlanned()) {
        if (Is(kInstead)) Die();
        if (m_hit) ThePlan()->at = 0;
        if (Is(kHolds)) ::kill(::getpid(), SIGSTOP);
    }
    ~Step() {
        if (Is(kInPart) || Is(kBehind)) Die();
    }
    std::string const& path() const { return m_path; }
    bool watched() const { return IsWatched(m_path); }
    bool Fails() const {
        bool const fails = Is(kFails) || Is(kHolds);
        if (fails) errno = EIO;
        return fails;
    }
    std::size_t PartOf(std::size_t length) const { return Is(kInPart) ? (length + 1) / 2 : length; }

private:
    static bool IsPlanned() {
        Plan* const plan = ThePlan();
        return plan && plan->at != 0 && ++plan->made == plan->at;
    }
    static void Die() {
        ThePlan()->at = 0;
        ::kill(::getpid(), SIGKILL);
    }
    bool Is(Manner manner) const { return m_hit && ThePlan()->manner == manner; }

    std::string m_path;
    bool m_hit;
};

long InodeOf(int fd) {
    struct stat facts {};
    return fd >= 0 && ::fstat(fd, &facts) == 0 ? static_cast<long>(facts.st_ino) : 0;
}

void Record(char const* name, long inode, long offset, std::string_view path, std::string_view data = {}) {
    static auto const next = Next<ssize_t (*)(int, iovec const*, int)>("writev");
    static int const to = OpenBeneath(std::getenv("VELT_FILE_CALLS_RECORD"), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC);
    if (to < 0) return;
    std::string const head = std::string(name) + ' ' + std::to_string(inode) + ' ' + std::to_string(offset) + ' ' +
                             std::to_string(path.size()) + ' ' + std::to_string(data.size()) + '\n';
    iovec const parts[] = {{const_cast<char*>(head.data()), head.size()},
                           {const_cast<char*>(path.data()), path.size()},
                           {const_cast<char*>(data.data()), data.size()}};
    int const error = errno;
    [[maybe_unused]] ssize_t const written = next(to, parts, 3);
    errno = error;
}

bool IsSocket(int fd) {
    struct stat facts {};
    return ::fstat(fd, &facts) == 0 && S_ISSOCK(facts.st_mode);
}

void RecordSent(int fd, void const* data, ssize_t length) {
    if (length > 0 && IsSocket(fd))
        Record("sent", fd, 0, {}, {static_cast<char const*>(data), static_cast<std::size_t>(length)});
}

template <class Call>
int OpenAt(std::string const& path, int flags, Call open) {
    if (!(flags & (O_CREAT | O_TRUNC))) return open();
    Step const step(path);
    int const fd = step.Fails() ? -1 : open();
    if (fd >= 0 && step.watched()) Record(flags & O_TRUNC ? "truncated" : "opened", InodeOf(fd), 0, path);
    return fd;
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

int open(char const* path, int flags, ...) {
    static auto const next = Next<int (*)(char const*, int, ...)>("open");
    std::va_list arguments;
    va_start(arguments, flags);
    mode_t const mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return OpenAt(path, flags, [=] { return next(path, flags, mode); });
}

int openat(int folder, char const* path, int flags, ...) {
    static auto const next = Next<int (*)(int, char const*, int, ...)>("openat");
    std::va_list arguments;
    va_start(arguments, flags);
    mode_t const mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (!(flags & (O_CREAT | O_TRUNC))) return next(folder, path, flags, mode);
    std::string const whole = *path == '/' ? path : PathOf(folder) + '/' + path;
    return OpenAt(whole, flags, [=] { return next(folder, path, flags, mode); });
}

ssize_t write(int fd, void const* data, size_t length) {
    static auto const next = Next<ssize_t (*)(int, void const*, size_t)>("write");
    Step const step(PathOf(fd));
    long const at = step.watched() ? ::lseek(fd, 0, SEEK_CUR) : 0;
    ssize_t const count = step.Fails() ? -1 : next(fd, data, step.PartOf(length));
    if (count > 0 && step.watched()) {
        Record("written", InodeOf(fd), at, step.path(), {static_cast<char const*>(data), static_cast<size_t>(count)});
    }
    return count;
}

ssize_t pwrite(int fd, void const* data, size_t length, off_t at) {
    static auto const next = Next<ssize_t (*)(int, void const*, size_t, off_t)>("pwrite");
    Step const step(PathOf(fd));
    ssize_t const count = step.Fails() ? -1 : next(fd, data, step.PartOf(length), at);
    if (count > 0 && step.watched()) {
        Record("written", InodeOf(fd), at, step.path(), {static_cast<char const*>(data), static_cast<size_t>(count)});
    }
    return count;
}

ssize_t send(int fd, void const* data, size_t length, int flags) {
    static auto const next = Next<ssize_t (*)(int, void const*, size_t, int)>("send");
    ssize_t const count = next(fd, data, length, flags);
    RecordSent(fd, data, count);
    return count;
}

ssize_t writev(int fd, iovec const* pieces, int count) {
    static auto const next = Next<ssize_t (*)(int, iovec const*, int)>("writev");
    ssize_t const sent = next(fd, pieces, count);
    for (ssize_t left = sent; left > 0; left -= static_cast<ssize_t>(pieces++->iov_len)) {
        RecordSent(fd, pieces->iov_base,
                   left < static_cast<ssize_t>(pieces->iov_len) ? left : static_cast<ssize_t>(pieces->iov_len));
    }
    return sent;
}

int ftruncate(int fd, off_t length) {
    static auto const next = Next<int (*)(int, off_t)>("ftruncate");
    Step const step(PathOf(fd));
    int const result = step.Fails() ? -1 : next(fd, length);
    if (result == 0 && step.watched()) Record("cut", InodeOf(fd), length, step.path());
    return result;
}

int fsync(int fd) {
    static auto const next = Next<int (*)(int)>("fsync");
    Step const step(PathOf(fd) + '/');  // the slash: a folder itself is watched, too
    int const result = step.Fails() ? -1 : next(fd);
    if (result == 0 && step.watched()) Record("flushed", InodeOf(fd), 0, PathOf(fd));
    return result;
}

int fdatasync(int fd) {
    static auto const next = Next<int (*)(int)>("fdatasync");
    Step const step(PathOf(fd));
    int const result = step.Fails() ? -1 : next(fd);
    if (result == 0 && step.watched()) Record("flushed", InodeOf(fd), 0, step.path());
    return result;
}

int futimens(int fd, timespec const* times) {
    static auto const next = Next<int (*)(int, timespec const*)>("futimens");
    Step const step(PathOf(fd));
    return step.Fails() ? -1 : next(fd, times);
}

int rename(char const* from, char const* to) {
    static auto const next = Next<int (*)(char const*, char const*)>("rename");
    Step const step(from);
    int const result = step.Fails() ? -1 : next(from, to);
    if (result == 0 && step.watched()) Record("renamed", 0, 0, from, to);
    return result;
}

int renameat2(int fromFolder, char const* from, int toFolder, char const* to, unsigned flags) {
    static auto const next = Next<int (*)(int, char const*, int, char const*, unsigned)>("renameat2");
    Step const step(from);  // a path by itself, as all callers have it
    int const result = step.Fails() ? -1 : next(fromFolder, from, toFolder, to, flags);
    if (result == 0 && step.watched()) Record("renamed", 0, 0, from, to);
    return result;
}

int link(char const* from, char const* to) {
    static auto const next = Next<int (*)(char const*, char const*)>("link");
    Step const step(to);
    int const result = step.Fails() ? -1 : next(from, to);
    if (result == 0 && step.watched()) Record("linked", 0, 0, from, to);
    return result;
}

int unlink(char const* path) {
    static auto const next = Next<int (*)(char const*)>("unlink");
    Step const step(path);
    int const result = step.Fails() ? -1 : next(path);
    if (result == 0 && step.watched()) Record("unlinked", 0, 0, path);
    return result;
}

int remove(char const* path) {
    static auto const next = Next<int (*)(char const*)>("remove");
    Step const step(path);
    int const result = step.Fails() ? -1 : next(path);
    if (result == 0 && step.watched()) Record("unlinked", 0, 0, path);
    return result;
}

int lockf(int fd, int command, off_t length) {
    static auto const next = Next<int (*)(int, int, off_t)>("lockf");
    Step const step(PathOf(fd));
    return step.Fails() ? -1 : next(fd, command, length);
}

int fcntl(int fd, int command, ...) {
    static auto const next = Next<int (*)(int, int, ...)>("fcntl");
    std::va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (command != F_OFD_SETLK) return next(fd, command, argument);
    Step const step(PathOf(fd));
    return step.Fails() ? -1 : next(fd, command, argument);
}

}  // extern "C"
#pragma GCC visibility pop
