// RefusedCalls: the system refuses a call, as it does when it has run out of what the call needs.
// Owner: nobody; functions. Threads: the calling one, and all that it starts from then on. There is no way back: for a
// process that ends with its test, as InChild makes one. Failure: std::system_error where the system has no filters.
#pragma once

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <system_error>

#include "testing/Child.h"

namespace velt_testing {

namespace detail {

template <std::size_t N>
void Install(std::array<sock_filter, N> filter) {
    sock_fprog const program{static_cast<unsigned short>(N), filter.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == -1 || ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == -1)
        throw std::system_error(errno, std::generic_category(), "seccomp");
}

constexpr sock_filter Load(std::size_t offset) {
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(offset));
}
constexpr sock_filter SkipUnless(unsigned value, unsigned char count) {
    return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, count);
}
constexpr sock_filter SkipIfSet(unsigned bits, unsigned char count) {
    return BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, bits, count, 0);
}
constexpr sock_filter Fail(int error) {
    return BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error));
}
constexpr sock_filter kAllow = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);

}  // namespace detail

// By the number of sys/syscall.h.
inline void RefuseCall(long number, int error) {
    using namespace detail;
    Install(std::array{Load(offsetof(seccomp_data, nr)), SkipUnless(static_cast<unsigned>(number), 1), Fail(error),
                       kAllow});
}

// Only with this value, of 32 bits, for the argument of this number.
inline void RefuseCallWith(long number, unsigned argument, unsigned value, int error) {
    using namespace detail;
    std::size_t const at = offsetof(seccomp_data, args) + argument * sizeof(seccomp_data::args[0]);
    Install(std::array{Load(offsetof(seccomp_data, nr)), SkipUnless(static_cast<unsigned>(number), 3), Load(at),
                       SkipUnless(value, 1), Fail(error), kAllow});
}

// No process from here on; threads, which share their memory, may still be started.
inline void RefuseForks() {
    using namespace detail;
    Install(std::array{Load(offsetof(seccomp_data, nr)), SkipUnless(SYS_clone, 3),
                       Load(offsetof(seccomp_data, args[0])), SkipIfSet(CLONE_VM, 1), Fail(EAGAIN), kAllow});
}

// Whether the system lets a process refuse itself a call.
inline bool CanRefuse() {
    return InChild([] {
        try {
            RefuseForks();
            return true;
        } catch (std::system_error const&) {
            return false;
        }
    });
}

}  // namespace velt_testing
