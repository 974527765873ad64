// Processes that a test makes for what ends, or changes, the whole of one. Owner: functions, which wait for the
// process. Threads: one at a time, as they set what becomes of children for the time of the call. Failure: the status
// says it.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace velt_testing {

constexpr int kCameBack = 77;

// How a process ends that runs this, as waitpid(2) has it; one that comes back ends at once with kCameBack.
template <class Body>
int RawStatusOf(Body body) {
    struct sigaction standard = {}, before = {};
    standard.sa_handler = SIG_DFL;
    ::sigaction(SIGCHLD, &standard, &before);
    std::fflush(nullptr);
    pid_t const child = ::fork();
    if (child == 0) {
        body();
        ::_exit(kCameBack);
    }
    int status = SIGKILL;
    while (::waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    ::sigaction(SIGCHLD, &before, nullptr);
    return status;
}

inline bool Exited(int status, int code) { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
inline bool EndedBy(int status, int signal) { return WIFSIGNALED(status) && WTERMSIG(status) == signal; }

// What it exits with, when it exits with what this gives; -1 when a signal ended it. It leads a group, as the library
// may kill its own.
template <class Body>
int StatusOfChild(Body body) {
    int const status = RawStatusOf([&] {
        ::setpgid(0, 0);
        std::exit(body());
    });
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// True when what is run in a process of its own gives true there; false when the library ended that process before.
template <class Body>
bool InChild(Body body) {
    constexpr int kTrue = 42;
    return StatusOfChild([&] { return body() ? kTrue : 1; }) == kTrue;
}

}  // namespace velt_testing
