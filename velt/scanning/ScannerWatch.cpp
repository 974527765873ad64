#include <velt/scanning/ScannerWatch.h>

#include <QXStats/QXCounter.h>
#include <QXlog/Prepared.h>
#include <cxxabi.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>
#include <velt/Config.h>
#include <velt/config_details/settings/process.h>
#include <velt/config_details/settings/scanning.h>
#include <velt/connection/Connection.h>
#include <velt/logging/Events.h>
#include <velt/logging/Keys.h>
#include <velt/logging/Log.h>
#include <velt/runtime/Clock.h>
#include <velt/scanning/ScanRun.h>
#include <velt/scanning/SpinBundle.h>

#include <cerrno>
#include <cstdlib>
#include <iterator>

namespace VELT {

namespace {

constexpr unsigned kStageTwoSeconds = 60;  // after stage one
constexpr unsigned kAbortSeconds = 10;     // for the process to end by itself
constexpr unsigned kSyslogSeconds = 2;     // for a word to syslog that may never come back
constexpr unsigned kStepMicroseconds = 100000;
constexpr int kSyslogPriority = 0x1E;

ScanRun s_Scanners[10];
pthread_mutex_t s_Lock = PTHREAD_MUTEX_INITIALIZER;  // guards the buckets and the two flags of each watch
pthread_cond_t s_Signal = PTHREAD_COND_INITIALIZER;  // a callback has ended
// Read by the timer, beside a host that initialises again.
std::atomic<bool> s_usethread{true};
std::atomic<unsigned> s_flatspintimeout{0};
unsigned s_stacksize = 128;
QXStats::QXCounter* s_pspins = nullptr;
ScannerWatchAliveThread* s_thread = nullptr;  // lives as long as the process

class HoldingLock {
public:
    HoldingLock() { ::pthread_mutex_lock(&s_Lock); }
    ~HoldingLock() { ::pthread_mutex_unlock(&s_Lock); }
    HoldingLock(HoldingLock const&) = delete;
    HoldingLock& operator=(HoldingLock const&) = delete;
};

// The lock of the variant with a signal handler: the handler takes it too, so that who holds it has the alarm blocked,
// and holds it for a few instructions only. The handler may run on another thread than the session's.
class HoldingBucket {
public:
    HoldingBucket() {
        sigset_t alarm;
        ::sigemptyset(&alarm);
        ::sigaddset(&alarm, SIGALRM);
        ::pthread_sigmask(SIG_BLOCK, &alarm, &m_before);
        while (s_bucketHeld.test_and_set(std::memory_order_acquire)) ::sched_yield();
    }
    ~HoldingBucket() {
        s_bucketHeld.clear(std::memory_order_release);
        ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
    HoldingBucket(HoldingBucket const&) = delete;
    HoldingBucket& operator=(HoldingBucket const&) = delete;

private:
    static inline std::atomic_flag s_bucketHeld = ATOMIC_FLAG_INIT;
    sigset_t m_before;
};

KORlog::InfoBag SpinBag(Connection const* session) {
    KORlog::InfoBag attributes;
    if (session) session->LogConnectionAttributes(attributes);
    return KORlog::InfoBag(QXPROP_CONNECTION(attributes));
}

// Null where nobody would read the report.
std::unique_ptr<QXlog::detail::PreparedReport> PrepareReport(Connection const* session) {
    if (s_flatspintimeout == 0 || !QXlog::detail::is_loggable(events::FLAT_SPIN)) return nullptr;
    try {
        return QXlog::detail::prepare(events::FLAT_SPIN, KORtk::Here(), {}, SpinBag(session));
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        return nullptr;
    }
}

// What the host throws must not end the process: the scan goes on.
void Visit(ScannerWatch* watch) {
    try {
        watch->callbacktimer();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
    }
}

// A word to syslog can hang, as where the engine is inside it itself: the alarm then ends the process. Nor may a
// handler's or a thread's mask keep the abort away.
void ArmLastAlarm() {
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    ::sigaction(SIGALRM, &standard, nullptr);
    sigset_t ends;
    ::sigemptyset(&ends);
    ::sigaddset(&ends, SIGALRM);
    ::sigaddset(&ends, SIGABRT);
    ::pthread_sigmask(SIG_UNBLOCK, &ends, nullptr);
    ::alarm(kSyslogSeconds);
}

}  // namespace

void ScannerWatch::initialise(Config* config) {
    s_usethread = ReadSetting<VELTCFG::process::ForkedModelThreads>(*config);
    s_stacksize = ReadSetting<VELTCFG::scanning::InlineScannerThreadStackSize>(*config);
    s_flatspintimeout = ReadSetting<VELTCFG::scanning::FlatSpinTimeout>(*config);
    if (!s_pspins) s_pspins = new QXStats::QXCounter("scanner.flatspins");
}

void ScannerWatch::start() {
    ::pthread_mutex_init(&s_Lock, nullptr);
    ::pthread_cond_init(&s_Signal, nullptr);
    if (s_flatspintimeout != 0) SpinBundle::start();
    if (s_usethread) s_thread = new ScannerWatchAliveThread(s_stacksize);
}

ScannerWatch::ScannerWatch() : spin_state(0), waiting(false), in_callback(false) {}

ScannerWatch::~ScannerWatch() = default;

void ScannerWatch::reset() {
    spin_state = 0;
    waiting = false;
    in_callback = false;
}

void ScannerWatch::begin(Connection* session) {
    start_time = Clock::getTime();
    connection = session;
    item.thread = s_flatspintimeout != 0 ? static_cast<int>(::syscall(SYS_gettid)) : 0;
}

unsigned start_scan(ScannerWatch* watch) {
    HoldingLock const lock;
    unsigned best = 0;
    for (unsigned i = 1; i < std::size(s_Scanners); ++i) {
        if (s_Scanners[i].size() < s_Scanners[best].size()) best = i;
    }
    s_Scanners[best].add(watch);
    return best;
}

// The timer may visit the watch as soon as it is in a bucket, so its fields are set before.
void ScannerWatch::startscan(Connection* session) {
    begin(session);
    if (s_usethread) {
        run = start_scan(this);
        return;
    }
    report = PrepareReport(session);
    run = 0;
    {
        HoldingBucket const lock;
        s_Scanners[0].add(this);
    }
    struct sigaction action;
    ::sigaction(SIGALRM, nullptr, &action);
    action.sa_handler = alarm_handler;
    ::sigaction(SIGALRM, &action, nullptr);
    ::alarm(1);
}

void ScannerWatch::endscan() {
    if (!s_usethread) {
        ::alarm(0);
        {
            HoldingBucket const lock;
            s_Scanners[0].remove(this);
        }
        while (in_callback) ::sleep(1);
        ::alarm(0);
        return;
    }
    HoldingLock const lock;
    s_Scanners[run].remove(this);
    while (in_callback) {
        waiting = true;
        ::pthread_cond_wait(&s_Signal, &s_Lock);
    }
}

template <class Guard>
bool ScannerWatch::visit_next(unsigned bucket) {
    ScannerWatch* watch = nullptr;
    {
        Guard const lock;
        watch = s_Scanners[bucket].get();
        if (!watch) return false;
        watch->in_callback = true;
    }
    Visit(watch);
    Guard const lock;
    watch->in_callback = false;
    if (watch->waiting) ::pthread_cond_broadcast(&s_Signal);
    return true;
}

void ScannerWatch::visit_bucket(unsigned bucket) {
    if (s_usethread) {
        while (visit_next<HoldingLock>(bucket)) {
        }
        return;
    }
    while (visit_next<HoldingBucket>(bucket)) {
    }
}

void run_callback(unsigned bucket) { ScannerWatch::visit_bucket(bucket); }

void alarm_handler(int) {
    int const before = errno;
    run_callback(0);
    ::alarm(1);
    errno = before;
}

bool ScannerWatch::spins_for(unsigned seconds) const {
    return s_flatspintimeout != 0 && Clock::getTime() - start_time > static_cast<std::time_t>(seconds);
}

void ScannerWatch::callbacktimer() {
    bool const told = spin_state != 0;
    if (!told && spins_for(s_flatspintimeout)) tell();
    if (told && spins_for(s_flatspintimeout + kStageTwoSeconds)) end_process();
    callbackscan();
}

// Where a handler does this it takes no lock and no memory.
void ScannerWatch::tell() {
    if (s_pspins) ++*s_pspins;
    if (s_usethread)
        LogEvent(events::FLAT_SPIN, [this] { return SpinBag(connection); });
    else if (report)
        QXlog::detail::emit_prepared(*report);
    spin_state = 1;
    SpinBundle::write(item, connection ? connection->getId().c_str() : "", Clock::getTime() - start_time);
}

// An id that would name a group or every process stands for this one.
void ScannerWatch::end_process() const {
    int const process = connection && connection->m_workerId > 1 ? connection->m_workerId : ::getpid();
    ArmLastAlarm();
    ::syslog(kSyslogPriority, "Flat spin detected in process %d", process);
    ::alarm(0);
    ::kill(process, SIGABRT);
    ::sleep(kAbortSeconds);
    if (s_usethread) std::exit(0);
    ::_exit(0);
}

// --- ScannerWatchAliveThread ---

ScannerWatchAliveThread::ScannerWatchAliveThread(unsigned stackKiB) {
    StartThread(static_cast<int>(stackKiB * 1024), Thread::DETACHED);
}

void ScannerWatchAliveThread::ThreadMain() {
    for (unsigned i = 0;; i = (i + 1) % std::size(s_Scanners)) {
        run_callback(i);
        ::usleep(kStepMicroseconds);
    }
}

}  // namespace VELT
