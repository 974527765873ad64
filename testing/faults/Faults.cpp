// A library to be loaded before the C library: the calls that the plan names fail.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "testing/faults/FaultPlan.h"

using velt_testing::Fallible;
using velt_testing::FaultPlan;

namespace {

FaultPlan s_none;
FaultPlan* s_plan = &s_none;
thread_local bool t_spared __attribute__((tls_model("initial-exec"))) = false;

// The function of this name that stands behind this library's own.
template <class Function>
Function Next(char const* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

__attribute__((constructor)) void MapPlan() {
    char const* const path = std::getenv("VELT_FAULTS");
    int const fd = path ? Next<int (*)(char const*, int, ...)>("open")(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0) return;
    void* const plan = ::mmap(nullptr, sizeof(FaultPlan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (plan != MAP_FAILED) s_plan = static_cast<FaultPlan*>(plan);
    Next<int (*)(int)>("close")(fd);
}

bool IsConcerned() { return s_plan->process == 0 || s_plan->process == ::getpid() || s_plan->process == ::getppid(); }

bool IsPlanned(Fallible kind) {
    if (s_plan->armed != 1 || t_spared || !IsConcerned()) return false;
    std::int64_t const call = ++s_plan->calls[static_cast<int>(kind)];
    return static_cast<int>(kind) == s_plan->kind && call >= s_plan->first && call <= s_plan->last;
}

bool Fails(Fallible kind) {
    if (!IsPlanned(kind)) return false;
    errno = s_plan->error;
    return true;
}

// Of a transfer: `length` shrinks where a part is to go through.
bool Fails(Fallible kind, std::size_t& length) {
    if (!IsPlanned(kind)) return false;
    errno = s_plan->error;
    if (s_plan->error == 0) length = (length + 2) / 3;
    return s_plan->error != 0;
}

mode_t ModeOf(int flags, std::va_list arguments) {
    return flags & (O_CREAT | O_TMPFILE) ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

void velt_faults_spare_thread() { t_spared = true; }
FaultPlan* velt_faults_plan() { return s_plan; }

ssize_t read(int fd, void* data, std::size_t length) {
    static auto const next = Next<decltype(&::read)>("read");
    return Fails(Fallible::read, length) ? -1 : next(fd, data, length);
}

ssize_t pread(int fd, void* data, std::size_t length, off_t place) {
    static auto const next = Next<decltype(&::pread)>("pread");
    return Fails(Fallible::read, length) ? -1 : next(fd, data, length, place);
}

ssize_t recv(int fd, void* data, std::size_t length, int flags) {
    static auto const next = Next<decltype(&::recv)>("recv");
    return Fails(Fallible::read, length) ? -1 : next(fd, data, length, flags);
}

ssize_t write(int fd, void const* data, std::size_t length) {
    static auto const next = Next<decltype(&::write)>("write");
    return Fails(Fallible::write, length) ? -1 : next(fd, data, length);
}

ssize_t pwrite(int fd, void const* data, std::size_t length, off_t place) {
    static auto const next = Next<decltype(&::pwrite)>("pwrite");
    return Fails(Fallible::write, length) ? -1 : next(fd, data, length, place);
}

ssize_t send(int fd, void const* data, std::size_t length, int flags) {
    static auto const next = Next<decltype(&::send)>("send");
    return Fails(Fallible::write, length) ? -1 : next(fd, data, length, flags);
}

// A part is one of the first piece that is not empty.
ssize_t writev(int fd, iovec const* pieces, int count) {
    static auto const next = Next<decltype(&::writev)>("writev");
    std::size_t total = 0;
    for (int i = 0; i < count; ++i) total += pieces[i].iov_len;
    std::size_t allowed = total;
    if (Fails(Fallible::write, allowed)) return -1;
    if (allowed == total) return next(fd, pieces, count);
    while (pieces->iov_len == 0) ++pieces;
    iovec part{pieces->iov_base, pieces->iov_len < allowed ? pieces->iov_len : allowed};
    return next(fd, &part, 1);
}

ssize_t splice(int from, off64_t* from_place, int to, off64_t* to_place, std::size_t length, unsigned flags) {
    static auto const next = Next<decltype(&::splice)>("splice");
    return Fails(Fallible::write, length) ? -1 : next(from, from_place, to, to_place, length, flags);
}

int poll(pollfd* fds, nfds_t count, int timeout) {
    static auto const next = Next<decltype(&::poll)>("poll");
    return Fails(Fallible::poll) ? -1 : next(fds, count, timeout);
}

int epoll_wait(int set, epoll_event* events, int most, int timeout) {
    static auto const next = Next<decltype(&::epoll_wait)>("epoll_wait");
    return Fails(Fallible::poll) ? -1 : next(set, events, most, timeout);
}

int select(int count, fd_set* in, fd_set* out, fd_set* other, timeval* timeout) {
    static auto const next = Next<decltype(&::select)>("select");
    return Fails(Fallible::poll) ? -1 : next(count, in, out, other, timeout);
}

int open(char const* path, int flags, ...) {
    static auto const next = Next<decltype(&::open)>("open");
    std::va_list arguments;
    va_start(arguments, flags);
    mode_t const mode = ModeOf(flags, arguments);
    va_end(arguments);
    return Fails(Fallible::open) ? -1 : next(path, flags, mode);
}

std::FILE* fopen(char const* path, char const* mode) {
    static auto const next = Next<decltype(&::fopen)>("fopen");
    return Fails(Fallible::open) ? nullptr : next(path, mode);
}

int socket(int domain, int type, int protocol) {
    static auto const next = Next<decltype(&::socket)>("socket");
    return Fails(Fallible::open) ? -1 : next(domain, type, protocol);
}

int pipe(int* ends) {
    static auto const next = Next<decltype(&::pipe)>("pipe");
    return Fails(Fallible::open) ? -1 : next(ends);
}

int pipe2(int* ends, int flags) {
    static auto const next = Next<decltype(&::pipe2)>("pipe2");
    return Fails(Fallible::open) ? -1 : next(ends, flags);
}

int epoll_create1(int flags) {
    static auto const next = Next<decltype(&::epoll_create1)>("epoll_create1");
    return Fails(Fallible::open) ? -1 : next(flags);
}

int eventfd(unsigned value, int flags) {
    static auto const next = Next<decltype(&::eventfd)>("eventfd");
    return Fails(Fallible::open) ? -1 : next(value, flags);
}

int accept(int fd, sockaddr* address, socklen_t* length) {
    static auto const next = Next<decltype(&::accept)>("accept");
    return Fails(Fallible::accept) ? -1 : next(fd, address, length);
}

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    static auto const next = Next<decltype(&::accept4)>("accept4");
    return Fails(Fallible::accept) ? -1 : next(fd, address, length, flags);
}

int connect(int fd, sockaddr const* address, socklen_t length) {
    static auto const next = Next<decltype(&::connect)>("connect");
    return Fails(Fallible::connect) ? -1 : next(fd, address, length);
}

pid_t fork() {
    static auto const next = Next<decltype(&::fork)>("fork");
    return Fails(Fallible::fork) ? -1 : next();
}

int pthread_create(pthread_t* thread, pthread_attr_t const* attributes, void* (*entry)(void*), void* argument) {
    static auto const next = Next<decltype(&::pthread_create)>("pthread_create");
    return Fails(Fallible::thread) ? errno : next(thread, attributes, entry, argument);
}

off_t lseek(int fd, off_t place, int whence) {
    static auto const next = Next<decltype(&::lseek)>("lseek");
    return Fails(Fallible::place) ? -1 : next(fd, place, whence);
}

int ftruncate(int fd, off_t length) {
    static auto const next = Next<decltype(&::ftruncate)>("ftruncate");
    return Fails(Fallible::place) ? -1 : next(fd, length);
}

int fstat(int fd, struct stat* status) {
    static auto const next = Next<decltype(&::fstat)>("fstat");
    return Fails(Fallible::place) ? -1 : next(fd, status);
}

int stat(char const* path, struct stat* status) {
    static auto const next = Next<int (*)(char const*, struct stat*)>("stat");
    return Fails(Fallible::place) ? -1 : next(path, status);
}

int lstat(char const* path, struct stat* status) {
    static auto const next = Next<int (*)(char const*, struct stat*)>("lstat");
    return Fails(Fallible::place) ? -1 : next(path, status);
}

int futimens(int fd, timespec const* times) {
    static auto const next = Next<decltype(&::futimens)>("futimens");
    return Fails(Fallible::place) ? -1 : next(fd, times);
}

int rename(char const* from, char const* to) {
    static auto const next = Next<decltype(&::rename)>("rename");
    return Fails(Fallible::name) ? -1 : next(from, to);
}

int unlink(char const* path) {
    static auto const next = Next<decltype(&::unlink)>("unlink");
    return Fails(Fallible::name) ? -1 : next(path);
}

int lockf(int fd, int command, off_t length) {
    static auto const next = Next<decltype(&::lockf)>("lockf");
    std::int32_t waiting = velt_testing::kFromFirstLock;
    s_plan->armed.compare_exchange_strong(waiting, 1);
    return Fails(Fallible::lock) ? -1 : next(fd, command, length);
}

int fcntl(int fd, int command, ...) {
    static auto const next = Next<int (*)(int, int, ...)>("fcntl");
    std::va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return command == F_OFD_SETLK && Fails(Fallible::lock) ? -1 : next(fd, command, argument);
}

int fsync(int fd) {
    static auto const next = Next<decltype(&::fsync)>("fsync");
    return Fails(Fallible::place) ? -1 : next(fd);
}

int close(int fd) {
    static auto const next = Next<decltype(&::close)>("close");
    if (!Fails(Fallible::close)) return next(fd);
    int const error = errno;
    next(fd);
    errno = error;
    return -1;
}

// To look these up could ask for memory itself.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

void* malloc(std::size_t size) { return Fails(Fallible::memory) ? nullptr : __libc_malloc(size); }
void* calloc(std::size_t count, std::size_t size) {
    return Fails(Fallible::memory) ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) { return Fails(Fallible::memory) ? nullptr : __libc_realloc(block, size); }

}  // extern "C"
#pragma GCC visibility pop
