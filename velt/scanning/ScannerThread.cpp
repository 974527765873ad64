#include <velt/scanning/ScannerThread.h>

#include <QXStats/QXCounter.h>
#include <cxxabi.h>
#include <velt/Config.h>
#include <velt/config_details/settings/scanning.h>
#include <velt/connection/Connection.h>
#include <velt/runtime/Clock.h>
#include <velt/scanning/ScanContext.h>

#include <algorithm>

namespace VELT {

namespace {

constexpr std::time_t kCallbackSeconds = 5;

// Before initialise there is nothing to count in.
void Count(QXStats::QXCounter* counter) {
    if (counter) ++*counter;
}

// Holds a lock for a scope that may be left by an exception.
class Holding {
public:
    explicit Holding(Lock& lock) : m_lock(lock) { m_lock.Acquire(); }
    ~Holding() { m_lock.Release(); }
    Holding(Holding const&) = delete;
    Holding& operator=(Holding const&) = delete;

private:
    Lock& m_lock;
};

}  // namespace

Lock ScannerThread::s_Lock;
std::deque<ScannerThread*>& ScannerThread::s_Pool = *new std::deque<ScannerThread*>;
unsigned ScannerThread::no_threads = 0;
unsigned ScannerThread::max_threads = 0;
unsigned ScannerThread::initial_threads = 0;
QXStats::QXCounter* ScannerThread::s_pscannerthreads = nullptr;
QXStats::QXCounter* ScannerThread::s_pscans = nullptr;

void ScannerThread::initialise(Config* config) {
    max_threads = ReadSetting<VELTCFG::scanning::MaxScannerThreads>(*config);
    initial_threads = std::min(ReadSetting<VELTCFG::scanning::InitialScannerThreads>(*config), max_threads);
    if (s_pscannerthreads) return;
    s_pscannerthreads = new QXStats::QXCounter("scanner.threads.started");
    s_pscans = new QXStats::QXCounter("scanner.threads.scans");
}

// No lock: nobody else knows the pool yet.
void ScannerThread::start() {
    for (unsigned i = 0; i < initial_threads; ++i) s_Pool.push_back(new ScannerThread);
}

ScannerThread* ScannerThread::take() {
    Holding const lock(s_Lock);
    if (!s_Pool.empty()) {
        ScannerThread* const idle = s_Pool.front();
        s_Pool.pop_front();
        return idle;
    }
    if (no_threads >= max_threads) return nullptr;
    auto* const made = new ScannerThread;
    ++no_threads;
    return made;
}

ScannerThreadRendevous* ScannerThread::get(ScanContext* context) {
    ScannerThread* const thread = take();
    if (!thread) return nullptr;
    auto* const scanner = new ScannerThreadRendevous(thread);
    scanner->set_context(context);
    return scanner;
}

void ScannerThread::put(ScannerThread* thread) {
    if (!thread) return;
    Holding const lock(s_Lock);
    s_Pool.push_back(thread);
}

// The thread runs from the last statement on.
ScannerThread::ScannerThread() {
    ::pthread_cond_init(&request, nullptr);
    ::pthread_cond_init(&done, nullptr);
    Count(s_pscannerthreads);
    StartThread(0, Thread::DETACHED);
}

ScannerThread::~ScannerThread() = default;

// done_lock is taken before request_lock is let go, and held until a wait releases it: the worker cannot tell of the
// end before somebody waits for it.
void ScannerThread::start_scan(ScanContext* scanContext, ScanOutput*& scanOutput, bool fallbackScan) {
    context = scanContext;
    completed = false;
    agent.reset();
    output = &scanOutput;
    fallback = fallbackScan;
    request_lock.Acquire();
    pending = true;
    ::pthread_cond_signal(&request);
    done_lock.Acquire();
    request_lock.Release();
}

bool ScannerThread::scan_completed() {
    std::time_t const until = Clock::getTime() + kCallbackSeconds;
    while (!completed) {
        if (done_lock.WaitUntil(done, until) != 0) return false;
    }
    return true;
}

int ScannerThread::end_scan() {
    while (!completed) done_lock.Wait(done);
    int const answer = result;
    done_lock.Release();
    return answer;
}

int ScannerThread::Scanned() {
    agent.reset(ScanAgent::get());
    if (!agent) return -1;
    int const ready = agent->setup_scan(context, count, 0);
    return ready != 0 ? ready : agent->scan(0, *output, fallback);
}

// What an engine throws cannot reach the session from here; to it the scan has failed.
void ScannerThread::ScanData() {
    result = -1;
    try {
        result = Scanned();
    } catch (abi::__forced_unwind&) {  // the thread is being cancelled
        throw;
    } catch (...) {
    }
}

void ScannerThread::WaitForRequest() {
    request_lock.Acquire();
    while (!pending) request_lock.Wait(request);
    pending = false;
    request_lock.Release();
}

void ScannerThread::Complete() {
    done_lock.Acquire();
    completed = true;
    ::pthread_cond_signal(&done);
    done_lock.Release();
}

void ScannerThread::MainLoop() {
    for (;;) {
        WaitForRequest();
        ScanData();
        Complete();
    }
}

void ScannerThread::ThreadMain() { MainLoop(); }

// --- ScannerThreadRendevous ---

ScannerThreadRendevous::~ScannerThreadRendevous() {
    ScannerThread::put(thread);
    thread = nullptr;
}

int ScannerThreadRendevous::setup_scan(unsigned int& count) {
    count = 1;
    return 0;
}

// An exception out of the host's callback waits for the scan, which writes through `output`.
int ScannerThreadRendevous::scan(unsigned int, ScanOutput*& output, bool fallback) {
    Count(ScannerThread::s_pscans);
    thread->start_scan(context, output, fallback);
    try {
        while (!thread->scan_completed()) {
            if (context->connection) context->connection->ScannerCallback();
        }
    } catch (...) {
        thread->end_scan();
        throw;
    }
    return thread->end_scan();
}

bool ScannerThreadRendevous::is_streaming_media() { return false; }

}  // namespace VELT
