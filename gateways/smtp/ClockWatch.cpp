#include "ClockWatch.h"

#include <time.h>

#include <cstdlib>

#include <velt/errors/Failures.h>
#include <velt/logging/Log.h>
#include <velt/runtime/Thread.h>

#include "RetryFile.h"
#include "SmtpEvents.h"

namespace smtp {
namespace {

constexpr int kStack = 0x40000;    // bytes
constexpr std::time_t kTold = 60;  // seconds

std::time_t SecondsOf(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return now.tv_sec;
}

class WatchThread : public VELT::ThreadRunner {
public:
    explicit WatchThread(std::string directory) : m_directory(std::move(directory)) {}
    void ThreadMain() override {
        timespec const pause{1, 0};
        ClockWatch watch;
        for (bool first = true;; first = false, ::nanosleep(&pause, nullptr)) {
            bool const back = watch.WasSetBack(std::time(nullptr), SecondsOf(CLOCK_BOOTTIME));
            if (back || first) RestFromNow(m_directory);
        }
    }

private:
    std::string const m_directory;
};

}  // namespace

bool ClockWatch::WasSetBack(std::time_t shown, std::time_t running) {
    std::time_t const ahead = shown - running;
    bool const back = m_known && m_ahead - ahead >= kTold;
    if (!m_known || back || ahead > m_ahead) m_ahead = ahead;
    m_known = true;
    return back;
}

std::time_t ClockJump::Take(std::time_t shown, std::time_t running) {
    std::time_t const jump = shown - running - m_ahead;
    if (std::abs(jump) < kTold) return 0;
    m_ahead += jump;
    return jump;
}

void RestFromNow(std::string const& directory) {
    unsigned long const changed = RestThoseAhead(directory);
    if (changed) VELT::LogEvent(events::CLOCK_SET_BACK, [&] { return KORlog::InfoBag(names::COUNT(changed)); });
}

void KeepRestingFromNow(std::string const& directory) {
    static WatchThread* watcher = nullptr;
    if (watcher) return;
    watcher = new WatchThread(directory);
    try {
        watcher->StartThread(kStack, VELT::Thread::DETACHED);
    } catch (VELT::FWException<VELT::fw_exception_tag::resource> const&) {
        delete watcher;
        watcher = nullptr;
    }
}

}  // namespace smtp
