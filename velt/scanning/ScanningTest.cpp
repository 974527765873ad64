#include "velt/scanning/ScanningTest.h"

#include <signal.h>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <system_error>

extern "C" {
std::time_t __real_time(std::time_t* out);
std::time_t __wrap_time(std::time_t* out);
unsigned __real_sleep(unsigned seconds);
unsigned __wrap_sleep(unsigned seconds);
int __real_usleep(useconds_t microseconds);
int __wrap_usleep(useconds_t microseconds);
int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, timespec const* until);
unsigned __real_alarm(unsigned seconds);
unsigned __wrap_alarm(unsigned seconds);
int __real_kill(pid_t process, int signal);
int __wrap_kill(pid_t process, int signal);
void __wrap_syslog(int priority, char const* format, ...);
void __wrap___syslog_chk(int priority, int flag, char const* format, ...);
}

namespace {

std::atomic<unsigned> s_lastPause{0};

void Say(int priority, char const* format, va_list arguments) {
    auto* const notes = velt_testing::NotedEnd::s_notes;
    if (!notes) return ::vsyslog(priority, format, arguments);
    notes->priority = priority;
    std::vsnprintf(notes->text, sizeof notes->text, format, arguments);
    if (notes->syslogHangs && notes->lastAlarm != 0) ::ualarm(1000, 0);
    while (notes->syslogHangs) ::pause();
}

}  // namespace

velt_testing::NotedEnd::NotedEnd() {
    void* const shared = ::mmap(nullptr, sizeof(Notes), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
    s_notes = new (shared) Notes{};
}

velt_testing::NotedEnd::~NotedEnd() { ::munmap(std::exchange(s_notes, nullptr), sizeof(Notes)); }

std::time_t __wrap_time(std::time_t* out) {
    std::time_t const shown = velt_testing::FixedTime::Shown();
    if (shown == 0) return __real_time(out);
    if (out) *out = shown;
    return shown;
}

// Where the time stands still, nobody sleeps.
unsigned __wrap_sleep(unsigned seconds) {
    if (velt_testing::NotedEnd::s_notes) velt_testing::NotedEnd::s_notes->slept += seconds;
    return velt_testing::FixedTime::Shown() == 0 ? __real_sleep(seconds) : 0;
}

// Where the time stands still, a pause is short, and known.
int __wrap_usleep(useconds_t microseconds) {
    if (velt_testing::FixedTime::Shown() == 0) return __real_usleep(microseconds);
    s_lastPause = microseconds;
    return __real_usleep(1000);
}

unsigned velt_testing::LastPause() { return s_lastPause; }

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, timespec const* until) {
    auto const& answer = velt_testing::ScriptedWaits::s_answer;
    return answer ? answer(condition, mutex, until) : __real_pthread_cond_timedwait(condition, mutex, until);
}

int __wrap_kill(pid_t process, int signal) {
    auto* const notes = velt_testing::NotedEnd::s_notes;
    if (!notes || signal != SIGABRT) return __real_kill(process, signal);
    notes->process = process;
    notes->signal = signal;
    return 0;
}

void __wrap_syslog(int priority, char const* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Say(priority, format, arguments);
    va_end(arguments);
}

void __wrap___syslog_chk(int priority, int, char const* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Say(priority, format, arguments);
    va_end(arguments);
}

unsigned __wrap_alarm(unsigned seconds) {
    if (velt_testing::NotedEnd::s_notes) velt_testing::NotedEnd::s_notes->lastAlarm = seconds;
    return __real_alarm(seconds);
}
