#include "Loop.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>

namespace velt_load {

namespace {

epoll_event EventFor(bool toWrite, std::uint64_t number) {
    epoll_event event{};
    event.events = toWrite ? EPOLLOUT : EPOLLIN;
    event.data.u64 = number;
    return event;
}

}  // namespace

// The signals that end a run are read as input: none can come between a look and a wait.
Loop::Loop() : m_set(::epoll_create1(EPOLL_CLOEXEC)) {
    sigset_t ends;
    ::sigemptyset(&ends);
    for (int const signal : {SIGINT, SIGTERM}) ::sigaddset(&ends, signal);
    ::sigprocmask(SIG_BLOCK, &ends, nullptr);
    m_signals = ::signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK);
    Add(m_signals, false, kSignals);
}

Loop::~Loop() {
    ::close(m_signals);
    ::close(m_set);
}

void Loop::Add(int fd, bool toWrite, std::uint64_t number) {
    epoll_event event = EventFor(toWrite, number);
    ::epoll_ctl(m_set, EPOLL_CTL_ADD, fd, &event);
}

void Loop::Change(int fd, bool toWrite, std::uint64_t number) {
    epoll_event event = EventFor(toWrite, number);
    ::epoll_ctl(m_set, EPOLL_CTL_MOD, fd, &event);
}

void Loop::Remove(int fd) { ::epoll_ctl(m_set, EPOLL_CTL_DEL, fd, nullptr); }

// A file that cannot be waited for, such as /dev/null, has no end to wait for: only a signal ends the run then.
void Loop::WatchStandardInput() { Add(STDIN_FILENO, false, kStandardInput); }

bool Loop::ended() const { return m_inputEnded || m_stopped; }

std::size_t Loop::Wait(double seconds) {
    double const bounded = std::clamp(seconds, 0.0, 3600.0);
    timespec const limit{static_cast<time_t>(bounded), static_cast<long>(std::fmod(bounded, 1.0) * 1e9)};
    int const ready = ::epoll_pwait2(m_set, m_ready.data(), static_cast<int>(m_ready.size()), &limit, nullptr);
    std::size_t count = ready < 0 ? 0 : static_cast<std::size_t>(ready);
    DropOwn(count);
    return count;
}

void Loop::DropOwn(std::size_t& count) {
    for (std::size_t i = 0; i < count; ++i) {
        if (number(i) == kStandardInput) {
            ReadStandardInput();
        } else if (number(i) == kSignals) {
            m_stopped = true;
            Remove(m_signals);
        } else {
            continue;
        }
        m_ready[i--] = m_ready[--count];
    }
}

void Loop::ReadStandardInput() {
    char block[64];
    if (::read(STDIN_FILENO, block, sizeof block) > 0) return;
    m_inputEnded = true;
    Remove(STDIN_FILENO);
}

void RaiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace velt_load
