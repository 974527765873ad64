// A library to be loaded before the C library: the process that makes the n-th call of those that change what is on
// disk dies of SIGKILL in its place. VELT_DYING_CALLS names a file with two numbers of 64 bits: n, and how many calls
// were made so far, by whatever process; n of 0: nobody dies. With -n the call fails with EIO instead. Whoever it hit
// has set n to 0.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

namespace {

struct Plan {
    std::atomic<long> at;
    std::atomic<long> made;
};

Plan* MapPlan() {
    char const* const path = std::getenv("VELT_DYING_CALLS");
    int const fd = path ? ::open(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0) return nullptr;
    void* const mapped = ::mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    return mapped == MAP_FAILED ? nullptr : static_cast<Plan*>(mapped);
}

bool Fails() {
    static Plan* const plan = MapPlan();
    long const at = plan ? plan->at.load() : 0;
    if (at == 0 || ++plan->made != std::labs(at)) return false;
    plan->at = 0;
    if (at > 0) ::kill(::getpid(), SIGKILL);
    errno = EIO;
    return true;
}

template <class Call>
Call Real(char const* name) {
    return reinterpret_cast<Call>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

#define SHOWN extern "C" __attribute__((visibility("default")))

SHOWN ssize_t pwrite(int fd, void const* data, size_t length, off_t at) {
    if (Fails()) return -1;
    return Real<ssize_t (*)(int, void const*, size_t, off_t)>("pwrite")(fd, data, length, at);
}
SHOWN int fsync(int fd) {
    if (Fails()) return -1;
    return Real<int (*)(int)>("fsync")(fd);
}
SHOWN int futimens(int fd, timespec const* times) {
    if (Fails()) return -1;
    return Real<int (*)(int, timespec const*)>("futimens")(fd, times);
}
SHOWN int rename(char const* from, char const* to) {
    if (Fails()) return -1;
    return Real<int (*)(char const*, char const*)>("rename")(from, to);
}
SHOWN int unlink(char const* path) {
    if (Fails()) return -1;
    return Real<int (*)(char const*)>("unlink")(path);
}
SHOWN int lockf(int fd, int command, off_t length) {
    if (Fails()) return -1;
    return Real<int (*)(int, int, off_t)>("lockf")(fd, command, length);
}
