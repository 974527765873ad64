#include <velt/scanning/Scanner.h>

#include <QXStats/QXCounter.h>
#include <QXlog/QXlog.h>
#include <signal.h>
#include <unistd.h>
#include <velt/connection/Connection.h>
#include <velt/errors/Failures.h>
#include <velt/ldap/LDAPQuery.h>
#include <velt/lookup/Resolver.h>
#include <velt/runtime/Clock.h>
#include <velt/runtime/MemCheck.h>
#include <velt/runtime/Proxy.h>
#include <velt/scanning/ScanAgent.h>
#include <velt/scanning/ScanContext.h>
#include <velt/scanning/ScannerConn.h>
#include <velt/scanning/ScannerServer.h>
#include <velt/scanning/ScannerThread.h>
#include <velt/streams/TCPStream.h>

#include <cstdlib>
#include <memory>
#include <utility>

namespace VELT {

namespace {

constexpr unsigned kLeastStackForEngines = 0x80000;  // bytes
constexpr unsigned kFinishSeconds = 2;
constexpr int kDrainStepMs = 500;
constexpr int kDrainSteps = 60;

QXStats::QXCounter* s_pInlineScans = nullptr;
QXStats::QXCounter* s_pNullScans = nullptr;
pid_t s_Started = 0;  // the process that was started

// Before initialise there is nothing to count in.
void Count(QXStats::QXCounter* counter) {
    if (counter) ++*counter;
}

void KillGroup(int) { ::kill(0, SIGKILL); }

// A process that one connection child of the forked model stands for scans; its parent, which only accepts, does not.
bool ScansHere(bool force) {
    Proxy const* const proxy = Proxy::s_pProxyInstance;
    return force || !proxy->m_forkedModel || proxy->m_maxConnections == 1;
}

// A retryer starts what it needs by itself, before its monitor would. Every fork has its own to start.
bool StartedHere() { return std::exchange(s_Started, ::getpid()) == ::getpid(); }

}  // namespace

Scanner::~Scanner() { delete agent; }

bool Scanner::is_av_enabled() { return true; }

Scanner* Scanner::get(ScanContext* context) { return ScannerWrapper::get(context); }

// The stack size is checked once it is known whether scanner processes are in use, and before the scanner that may have
// to run on such a stack.
void Scanner::initialise(Config* config) {
    Resolver::initialise(config);
    ScanAgent::initialise(config);
    ScannerConn::initialise(config);
    Proxy::CheckStackSize();
    ScannerWatch::initialise(config);
    ScannerInline::initialise(config);
    ScannerThread::initialise(config);
    ScannerNull::initialise(config);
    ScannerWrapper::initialise(config);
    LDAPQuery::initialise(config);
    TCPStream::initialise(config);
    MemCheck::initialise(config);
}

void Scanner::start(bool force, bool threaded) {
    if (!ScansHere(force) || StartedHere()) return;
    ::setsid();
    ::setpgrp();
    ScanAgent::start();
    ScannerConn::start();
    ScannerInline::start();
    ScannerThread::start();
    ScannerNull::start();
    ScannerWrapper::start();
    ScannerWatch::start();
    LDAPQuery::start();
    [[maybe_unused]] static Clock* clock = nullptr;  // kept for the life of the process
    clock = new Clock(threaded);
    Resolver::start();
    if (threaded) QXlog::goAsyncEvRep(0);
}

// A long queue of reports that a slow sink takes one by one is no hang; one that stands still is left to the alarm.
void Scanner::finish() {
    QXlog::detail::drain(kDrainStepMs, kDrainSteps);
    struct sigaction action = {};
    action.sa_handler = KillGroup;
    ::sigaction(SIGALRM, &action, nullptr);
    sigset_t alarmOnly;
    ::sigemptyset(&alarmOnly);
    ::sigaddset(&alarmOnly, SIGALRM);
    ::pthread_sigmask(SIG_UNBLOCK, &alarmOnly, nullptr);  // whoever started this process may have left it blocked
    ::alarm(kFinishSeconds);
    QXlog::detail::noLogging();
    QXlog::shutdownEvRep();
    ScanAgent::finish();
    std::exit(0);
}

// --- ScannerWrapper ---

// A thread that the system refuses is a thread that is not to be had.
Scanner* ScannerWrapper::Choose(ScanContext* context) {
    try {
        if (Scanner* const pooled = ScannerThread::get(context)) return pooled;
    } catch (FWException<fw_exception_tag::resource> const&) {
    }
    if (ScannerProcessActive()) return ScannerConn::get(context);
    if (Scanner* const own = ScannerInline::get(context)) return own;
    return ScannerNull::get(context);
}

ScannerWrapper::ScannerWrapper(ScanContext* scanContext) : inner(Choose(scanContext)) { set_context(scanContext); }

ScannerWrapper::~ScannerWrapper() { delete inner; }

Scanner* ScannerWrapper::get(ScanContext* context) { return new ScannerWrapper(context); }

void ScannerWrapper::initialise(Config*) {}

void ScannerWrapper::start() {}

int ScannerWrapper::setup_scan(unsigned int& count) { return inner->setup_scan(count); }

int ScannerWrapper::scan(unsigned int index, ScanOutput*& output, bool fallback) {
    return inner->scan(index, output, fallback);
}

bool ScannerWrapper::is_av_enabled() {
    std::unique_ptr<ScanAgent> const asked(ScanAgent::get());
    return asked ? asked->is_av_scan_enabled(context, 0) : true;
}

bool ScannerWrapper::is_streaming_media() { return inner->is_streaming_media(); }

// --- ScannerInline ---

namespace {

// The watch over one scan, which also ends with an exception out of an engine.
class Watched {
public:
    Watched(ScannerWatch& watch, Connection* session) : m_watch(watch) { m_watch.startscan(session); }
    ~Watched() { m_watch.endscan(); }
    Watched(Watched const&) = delete;
    Watched& operator=(Watched const&) = delete;

private:
    ScannerWatch& m_watch;
};

}  // namespace

bool ScannerInline::s_disabled = false;

ScannerInline::ScannerInline() { agent = ScanAgent::get(); }

Scanner* ScannerInline::get(ScanContext* context) {
    if (s_disabled) return nullptr;
    auto* const scanner = new ScannerInline;
    scanner->set_context(context);
    return scanner;
}

void ScannerInline::initialise(Config*) {
    if (!s_pInlineScans) s_pInlineScans = new QXStats::QXCounter("scanner.inline.scans");
    unsigned const stack = Proxy::s_pProxyInstance->m_handlerStackSize;
    if (stack != 0 && stack < kLeastStackForEngines) s_disabled = true;
}

void ScannerInline::start() {}

void ScannerInline::disable() { s_disabled = true; }

// The agent's failure shows as a count of 0: there is nothing to run.
int ScannerInline::setup_scan(unsigned int& count) {
    Count(s_pInlineScans);
    count = 0;
    if (agent) agent->setup_scan(context, count, 0);
    return 0;
}

int ScannerInline::scan(unsigned int index, ScanOutput*& output, bool fallback) {
    if (!agent) return -1;
    describe_item({context->policy, index < context->identities.size() ? context->identities[index] : InternedString(),
                   context->data});
    Watched const watched(*this, context->connection);
    return agent->scan(index, output, fallback);
}

bool ScannerInline::is_streaming_media() { return false; }

void ScannerInline::callbackscan() {
    if (context->connection) context->connection->ScannerCallback();
}

// --- ScannerNull ---

Scanner* ScannerNull::get(ScanContext* context) {
    auto* const scanner = new ScannerNull;
    scanner->set_context(context);
    return scanner;
}

void ScannerNull::initialise(Config*) {
    if (!s_pNullScans) s_pNullScans = new QXStats::QXCounter("scanner.null.scans");
}

void ScannerNull::start() {}

int ScannerNull::setup_scan(unsigned int& count) {
    Count(s_pNullScans);
    count = 0;
    return -1;
}

int ScannerNull::scan(unsigned int, ScanOutput*&, bool) { return -1; }

bool ScannerNull::is_streaming_media() { return false; }

}  // namespace VELT
