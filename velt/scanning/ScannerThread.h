// ScannerThread: a pooled thread that scans for sessions; ScannerThreadRendevous: the scanner by which a session meets
// one. The session sleeps meanwhile, and is called back every five seconds.
// Owner: a ScannerThread lives as long as the process; a rendezvous is its session's, lends one thread for its life and
// gives it back to the pool. Threads: a rendezvous is used by one session thread; get and put by any; initialise and
// start by the one that starts the process. Units: seconds.
// Failure: get gives null where no thread is to be had, without waiting for one; a thread that cannot be made is an
// FWException<fw_exception_tag::resource>; scan gives -1, also for an exception out of an engine.
#pragma once

#include <pthread.h>

#include <deque>
#include <memory>

#include <velt/Export.h>
#include <velt/runtime/Lock.h>
#include <velt/runtime/Thread.h>
#include <velt/scanning/ScanAgent.h>
#include <velt/scanning/Scanner.h>

namespace QXStats {
class QXCounter;
}

namespace VELT {

class ScannerThreadRendevous;

class VELT_API ScannerThread final : public ThreadRunner {
public:
    static void initialise(Config* config);
    static void start();  // makes the threads of the start; before anyone can call get or put
    static ScannerThreadRendevous* get(ScanContext* context);
    static void put(ScannerThread* thread);  // back into the pool, behind the others; null does nothing

    // The steps of one scan, for a caller that does something of its own between the waits: start_scan, scan_completed
    // until it is true, end_scan. From the first to the last the caller touches neither the context nor the output.
    void start_scan(ScanContext* scanContext, ScanOutput*& scanOutput, bool fallbackScan);
    bool scan_completed();  // waits five seconds at most; false: they have passed
    int end_scan();         // the scan's result; waits for a scan that still runs

    void ScanData();  // one scan of the first identity, on the calling thread
    void MainLoop();
    void ThreadMain() override;

private:
    ScannerThread();
    ~ScannerThread() override;

    static ScannerThread* take();
    int Scanned();
    void WaitForRequest();
    void Complete();

    // Lent to one session; its thread writes these before the request, the worker until the end of the scan.
    bool fallback = false;
    std::unique_ptr<ScanAgent> agent;  // of the last scan, until the next one replaces it
    ScanContext* context = nullptr;
    ScanOutput** output = nullptr;
    int result = -1;
    unsigned count = 0;

    pthread_cond_t request;
    Lock request_lock;  // taken before done_lock where both are
    pthread_cond_t done;
    Lock done_lock;
    bool completed = false;  // guarded by done_lock while a scan is under way
    bool pending = false;    // guarded by request_lock: a scan is asked for and not yet begun

    static Lock s_Lock;                         // guards s_Pool and no_threads
    static std::deque<ScannerThread*>& s_Pool;  // the idle ones, first in, first out; sessions outlive statics
    static unsigned no_threads;                 // made on demand; those of the start are not counted
    static unsigned max_threads;
    static unsigned initial_threads;
    static QXStats::QXCounter* s_pscannerthreads;
    static QXStats::QXCounter* s_pscans;

    friend class ScannerThreadRendevous;
};

class VELT_API ScannerThreadRendevous : public Scanner {
public:
    ~ScannerThreadRendevous() override;

    int setup_scan(unsigned int& count) override;  // one scan, whatever the number of identities
    int scan(unsigned int index, ScanOutput*& output, bool fallback) override;  // of the first identity
    bool is_streaming_media() override;

private:
    friend class ScannerThread;
    explicit ScannerThreadRendevous(ScannerThread* lent) : thread(lent) {}

    ScannerThread* thread;
};

}  // namespace VELT
