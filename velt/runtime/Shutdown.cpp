#include <execinfo.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

#include <QXStats/QXCounter.h>
#include <velt/runtime/ServiceLoop.h>
#include <velt/runtime/Shutdown.h>

namespace VELT {

namespace {

constexpr int kStackFrames = 25;

std::atomic<ServiceLoop*> s_Services{nullptr};  // the newest service loop
std::atomic<int> s_ShutDownTimeout{0};          // seconds; 0: no last resort
std::atomic<QXStats::QXCounter*> s_pShutDownTimeouts{nullptr};

}  // namespace

// Without SA_RESTART: what waits has to look at the stop flag.
void HandleSignal(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
}

void SetStoppedByHangup(ServiceLoop* loop) {
    static QXStats::QXCounter& timeouts = *new QXStats::QXCounter("shutdowntimeouts");
    s_pShutDownTimeouts = &timeouts;
    s_Services = loop;
}

void ForgetStoppedByHangup(ServiceLoop* loop) { s_Services.compare_exchange_strong(loop, nullptr); }

void SetShutDownTimeout(int seconds) { s_ShutDownTimeout = seconds; }

void sigfinish_handler(int) {
    int const saved = errno;
    ServiceLoop::shutdown = true;
    if (ServiceLoop* const loop = s_Services) loop->StopServices();
    errno = saved;
}

void childshutdown_signal(int) {}

void setupshutdown() {
    int const seconds = s_ShutDownTimeout;
    if (seconds <= 0) return;
    HandleSignal(SIGALRM, shutdown_signal);
    ::alarm(static_cast<unsigned>(seconds));
}

void shutdown_signal(int) {
    if (QXStats::QXCounter* const timeouts = s_pShutDownTimeouts) (*timeouts)++;
    ::kill(0, SIGKILL);
}

void pdk_dump_stack() {
    void* frames[kStackFrames];
    int const count = ::backtrace(frames, kStackFrames);
    char** const symbols = ::backtrace_symbols(frames, count);
    if (!symbols) return;
    for (int i = 0; i < count; ++i) ::syslog(LOG_DAEMON | LOG_CRIT, "DUMP Trace %d : %s", i, symbols[i]);
    std::free(symbols);
}

}  // namespace VELT
