// A library to be loaded before the C library, which stands for the kernel module of a resource manager. Its devices
// are files of the folder that VELT_MANAGER names: "qxrmgrctl", "qxrmgr0", and for each server "qxrmgr" and its number,
// which holds "ADDRESS PORT". A server whose file is gone is down; each change of the folder makes a new generation of
// the list. A daemon that
// announces itself is server 1, unless there is a file "refuses". Descriptors are the system's own.
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#undef _FORTIFY_SOURCE
#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr int kMostServers = 8;

struct SetupRecord {
    std::int32_t first, second, third;
    std::uint32_t address, port;
    char const* name;
};

struct WaitRecord {
    std::int32_t timeout, id, sequence;
    std::uint32_t address, port;
};

template <class Function>
Function Next(char const* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

std::string Folder() {
    char const* const folder = std::getenv("VELT_MANAGER");
    return folder ? folder : "";
}

// Where a device or an entry of the manager is in truth; every other path is what it was.
std::string PathFor(char const* path) {
    std::string_view const text(path);
    for (std::string_view const place : {"/dev/", "/proc/"}) {
        bool const ours = text.substr(0, place.size()) == place && text.substr(place.size(), 6) == "qxrmgr";
        if (ours && !Folder().empty()) return Folder() + '/' + std::string(text.substr(place.size()));
    }
    return path;
}

// The device that a descriptor was opened as; empty where it is none of ours.
std::string DeviceOf(int fd) {
    int const before = errno;
    char path[PATH_MAX] = "";
    ssize_t const length = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path - 1);
    errno = before;
    std::string const prefix = Folder() + "/qxrmgr";
    std::string const found(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    return found.compare(0, prefix.size(), prefix) == 0 ? found : "";
}

bool ReadServer(int number, sockaddr_in& address) {
    static auto const real = Next<std::FILE* (*)(char const*, char const*)>("fopen");
    std::FILE* const file = real((Folder() + "/qxrmgr" + std::to_string(number)).c_str(), "re");
    if (!file) return false;
    char host[32] = "";
    unsigned port = 0;
    bool const read = std::fscanf(file, "%31s %u", host, &port) == 2;
    std::fclose(file);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return read && ::inet_aton(host, &address.sin_addr) != 0;
}

// Of the list of servers: another one whenever the folder has changed.
std::int32_t Generation() {
    struct stat folder {};
    ::stat(Folder().c_str(), &folder);
    return static_cast<std::int32_t>((folder.st_mtim.tv_sec % 100000) * 10000 + folder.st_mtim.tv_nsec / 100000);
}

// One after the other.
int Wait(WaitRecord& record) {
    static std::atomic<int> turn{0};
    for (int tried = 0; tried < kMostServers; ++tried) {
        int const number = 1 + turn++ % kMostServers;
        sockaddr_in address{};
        if (!ReadServer(number, address)) continue;
        record.id = number;
        record.sequence = Generation();
        record.address = address.sin_addr.s_addr;
        record.port = address.sin_port;
        return number;
    }
    ::poll(nullptr, 0, record.timeout * 1000);
    errno = EAGAIN;
    return -1;
}

// A scanner process is server 1 from its announcement on.
int SetUp(SetupRecord const& record) {
    if (::faccessat(AT_FDCWD, (Folder() + "/refuses").c_str(), F_OK, 0) == 0) return -1;
    static auto const real = Next<std::FILE* (*)(char const*, char const*)>("fopen");
    std::FILE* const file = real((Folder() + "/announced").c_str(), "we");
    if (!file) return -1;
    in_addr const address{record.address};
    std::fprintf(file, "%s %u\n%d %s\n", ::inet_ntoa(address), ntohs(static_cast<std::uint16_t>(record.port)),
                 record.first, record.name);
    return std::fclose(file);
}

int MakeAvailable() { return std::rename((Folder() + "/announced").c_str(), (Folder() + "/qxrmgr1").c_str()); }

int Ask(std::string const& device, unsigned long request, void* argument) {
    switch (request) {
        case 1:
            return SetUp(*static_cast<SetupRecord*>(argument));
        case 2:
            return MakeAvailable();
        case 4:
            return Wait(*static_cast<WaitRecord*>(argument));
        case 5:
            return ::faccessat(AT_FDCWD, device.c_str(), F_OK, 0) == 0;
        case 6:
            return 1;
        case 7:
            std::strcpy(static_cast<char*>(argument), device.substr(device.rfind('/') + 1).c_str());
            return 0;
        default:
            errno = EINVAL;
            return -1;
    }
}

}  // namespace

#define PRELOADED extern "C" __attribute__((visibility("default")))

PRELOADED int open(char const* path, int flags, ...) {
    static auto const real = Next<int (*)(char const*, int, ...)>("open");
    va_list values;
    va_start(values, flags);
    unsigned const mode = va_arg(values, unsigned);
    va_end(values);
    return real(PathFor(path).c_str(), flags, mode);
}

PRELOADED std::FILE* fopen(char const* path, char const* mode) {
    static auto const real = Next<std::FILE* (*)(char const*, char const*)>("fopen");
    return real(PathFor(path).c_str(), mode);
}

PRELOADED int access(char const* path, int mode) noexcept {
    static auto const real = Next<int (*)(char const*, int)>("access");
    return real(PathFor(path).c_str(), mode);
}

PRELOADED int ioctl(int fd, unsigned long request, ...) noexcept {
    static auto const real = Next<int (*)(int, unsigned long, ...)>("ioctl");
    va_list values;
    va_start(values, request);
    void* const argument = va_arg(values, void*);
    va_end(values);
    std::string const device = request < 8 ? DeviceOf(fd) : "";
    return device.empty() ? real(fd, request, argument) : Ask(device, request, argument);
}
