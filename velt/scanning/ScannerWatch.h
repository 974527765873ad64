// ScannerWatch: what a scanner that scans on its session's thread inherits so that the session is called back about
// once a second meanwhile, and an engine that never returns is told of (stage one) and ended with its process (stage
// two, a minute later).
// Owner: the scanner. Threads: startscan and endscan on the session's; callbackscan on the watch's thread, or, where
// the process has none, in a handler of SIGALRM on the session's thread while it is inside the engine. In that variant
// all watches of a process share one alarm, and the first endscan stops it for all.
// Units: seconds; InlineScannerThreadStackSize in KiB. Failure: none of its own; a thread that cannot be started is an
// FWException<fw_exception_tag::resource>.
#pragma once

#include <atomic>
#include <ctime>
#include <memory>

#include <eFabric/Interned.h>
#include <velt/Export.h>
#include <velt/runtime/Thread.h>

namespace QXlog::detail {
class PreparedReport;
}

namespace VELT {

class Config;
class Connection;
class ScannerStream;

// What a scan is at work on, for the bundle of stage one.
struct WatchedItem {
    InternedString policy;
    InternedString identity;
    ScannerStream const* data = nullptr;
    int thread = 0;  // of the kernel; 0: not noted, as nothing is told of slow scans
};

class ScannerWatch;

// A watch's place in a bucket.
struct ScanLink {
    ScannerWatch* next = nullptr;
    ScannerWatch* previous = nullptr;
    void const* row = nullptr;  // null: in none
};

class VELT_API ScannerWatch {
public:
    ScannerWatch();
    ScannerWatch(ScannerWatch const&) = delete;
    ScannerWatch& operator=(ScannerWatch const&) = delete;

    static void initialise(Config* config);
    static void start();  // once in each process that scans

    // A scanner that scans again stays at the stage that it has reached; only reset takes it back.
    void startscan(Connection* session);
    void endscan();  // afterwards no callback runs for this scanner, and none will come
    void reset();

    void callbacktimer();             // one visit of the timer
    virtual void callbackscan() = 0;  // once a second of a watched scan; must bear the session being in the engine

    static void visit_bucket(unsigned bucket);  // each watch of it once
    ScanLink& link() { return place; }          // for the bucket that holds this

protected:
    ~ScannerWatch();

    void describe_item(WatchedItem const& described) { item = described; }  // before startscan

private:
    template <class Guard>
    static bool visit_next(unsigned bucket);
    void begin(Connection* session);
    void tell();
    [[noreturn]] void end_process() const;
    bool spins_for(unsigned seconds) const;

    std::time_t start_time = 0;
    Connection* connection = nullptr;
    unsigned run = 0;               // the bucket
    int spin_state;                 // 1: stage one is over
    bool waiting;                   // endscan waits for a callback that runs
    std::atomic<bool> in_callback;  // read without a lock where a signal handler sets it
    ScanLink place;
    WatchedItem item;
    std::unique_ptr<QXlog::detail::PreparedReport> report;  // of stage one, where a signal handler makes it
};

// The timer of all watches of the process.
class VELT_API ScannerWatchAliveThread : public ThreadRunner {
public:
    explicit ScannerWatchAliveThread(unsigned stackKiB);
    void ThreadMain() override;
};

}  // namespace VELT
