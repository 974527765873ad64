#include <velt/scanning/Scanner.h>

#include <QXStats/QXCounter.h>
#include <QXlog/QXlog.h>
#include <signal.h>
#include <unistd.h>
#include <velt/lookup/Resolver.h>
#include <velt/runtime/Clock.h>
#include <velt/runtime/Proxy.h>
#include <velt/scanning/ScanAgent.h>
#include <velt/scanning/ScanContext.h>
#include <velt/streams/TCPStream.h>

#include <cstdlib>
#include <memory>

namespace VELT {

namespace {

constexpr unsigned kLeastStackForEngines = 0x80000;  // bytes
constexpr unsigned kFinishSeconds = 2;

QXStats::QXCounter* s_pInlineScans = nullptr;
QXStats::QXCounter* s_pNullScans = nullptr;

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

}  // namespace

Scanner::~Scanner() { delete agent; }

bool Scanner::is_av_enabled() { return true; }

Scanner* Scanner::get(ScanContext* context) { return ScannerWrapper::get(context); }

// The stack size is checked before the scanner that may have to run on such a stack.
void Scanner::initialise(Config* config) {
    Resolver::initialise(config);
    ScanAgent::initialise(config);
    Proxy::CheckStackSize();
    ScannerInline::initialise(config);
    ScannerNull::initialise(config);
    ScannerWrapper::initialise(config);
    TCPStream::initialise(config);
}

void Scanner::start(bool force, bool threaded) {
    if (!ScansHere(force)) return;
    ::setsid();
    ::setpgrp();
    ScanAgent::start();
    ScannerInline::start();
    ScannerNull::start();
    ScannerWrapper::start();
    [[maybe_unused]] static Clock* clock = nullptr;  // kept for the life of the process
    clock = new Clock(threaded);
    Resolver::start();
    if (threaded) QXlog::goAsyncEvRep(0);
}

void Scanner::finish() {
    struct sigaction action = {};
    action.sa_handler = KillGroup;
    ::sigaction(SIGALRM, &action, nullptr);
    ::alarm(kFinishSeconds);
    QXlog::detail::noLogging();
    QXlog::shutdownEvRep();
    ScanAgent::finish();
    std::exit(0);
}

// --- ScannerWrapper ---

ScannerWrapper::ScannerWrapper(ScanContext* scanContext) : inner(ScannerInline::get(scanContext)) {
    if (!inner) inner = ScannerNull::get(scanContext);
    set_context(scanContext);
}

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
    return agent ? agent->scan(index, output, fallback) : -1;
}

bool ScannerInline::is_streaming_media() { return false; }

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
