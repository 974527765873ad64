// A library to be loaded before the C library, which stands for the kernel module of an interception device. Opening
// /dev/qxnat connects to the model of which VELT_DEVICE_MODEL names the abstract socket: a connection is an open
// device, so that copies, children and the last close are the kernel's own. /proc/qxnat lies in the folder
// VELT_DEVICE_PROC. Listeners take connections to addresses of others, which a module brings about unasked.
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#undef _FORTIFY_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr std::size_t kRecord = 3 * sizeof(sockaddr_in);
constexpr unsigned long kRequests = 8;

struct Question {
    std::uint32_t request;
    std::uint32_t length;
    char argument[kRecord];
};

struct Answer {
    std::int32_t result;
    std::int32_t error;
    char argument[kRecord];
};

template <class Function>
Function Next(char const* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

socklen_t ModelAddress(sockaddr_un& address) {
    char const* const name = std::getenv("VELT_DEVICE_MODEL");
    address = {};
    address.sun_family = AF_UNIX;
    std::size_t const length = name ? std::strlen(name) : 0;
    if (length == 0 || length >= sizeof address.sun_path) return 0;
    std::memcpy(address.sun_path + 1, name, length);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
}

bool IsDevice(int fd) {
    int const before = errno;
    sockaddr_un model, peer{};
    socklen_t length = sizeof peer;
    socklen_t const wanted = ModelAddress(model);
    bool const same = wanted && ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
                      length == wanted && std::memcmp(&model, &peer, wanted) == 0;
    errno = before;
    return same;
}

int Refused(int fd, int error) {
    ::close(fd);
    errno = error;
    return -1;
}

int OpenDevice(int flags) {
    sockaddr_un model;
    socklen_t const length = ModelAddress(model);
    int const fd = ::socket(AF_UNIX, SOCK_SEQPACKET | (flags & O_CLOEXEC ? SOCK_CLOEXEC : 0), 0);
    if (fd < 0) return -1;
    std::int32_t error = ENOENT;
    if (!length || ::connect(fd, reinterpret_cast<sockaddr*>(&model), length) != 0) return Refused(fd, ENOENT);
    if (::recv(fd, &error, sizeof error, 0) != sizeof error || error) return Refused(fd, error);
    return fd;
}

// Connection information has one address, the question about the route has nothing, the others a whole record.
std::size_t ArgumentBytes(unsigned long request) {
    return request == 2 ? sizeof(sockaddr_in) : request == 4 ? 0 : kRecord;
}

int AskDevice(int fd, unsigned long request, void* argument) {
    Question question{};
    question.request = static_cast<std::uint32_t>(request);
    question.length = static_cast<std::uint32_t>(ArgumentBytes(request));
    if (question.length) std::memcpy(question.argument, argument, question.length);
    Answer answer{};
    if (::send(fd, &question, sizeof question, MSG_NOSIGNAL) != sizeof question ||
        ::recv(fd, &answer, sizeof answer, 0) != sizeof answer) {
        errno = EIO;
        return -1;
    }
    if (question.length) std::memcpy(argument, answer.argument, question.length);
    if (answer.error) errno = answer.error;
    return answer.result;
}

std::string PathFor(char const* path) {
    constexpr std::string_view kProc = "/proc/qxnat/";
    char const* const folder = std::getenv("VELT_DEVICE_PROC");
    if (!folder || std::string_view(path).substr(0, kProc.size()) != kProc) return path;
    return std::string(folder) + '/' + (path + kProc.size());
}

}  // namespace

#define PRELOADED extern "C" __attribute__((visibility("default")))

PRELOADED int open(char const* path, int flags, ...) {
    static auto const real = Next<int (*)(char const*, int, ...)>("open");
    va_list values;
    va_start(values, flags);
    unsigned const mode = va_arg(values, unsigned);
    va_end(values);
    return std::string_view(path) == "/dev/qxnat" ? OpenDevice(flags) : real(path, flags, mode);
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
    return request < kRequests && IsDevice(fd) ? AskDevice(fd, request, argument) : real(fd, request, argument);
}

PRELOADED int listen(int fd, int backlog) noexcept {
    static auto const real = Next<int (*)(int, int)>("listen");
    int const on = 1;
    ::setsockopt(fd, SOL_IP, IP_TRANSPARENT, &on, sizeof on);
    return real(fd, backlog);
}
