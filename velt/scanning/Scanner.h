// Scanner: the one door through which a session has content scanned.
// Use: fill a ScanContext, Scanner::get(&context), setup_scan(count), then scan(index, output, false) for each index
// below count; each success leaves a new ScanOutput that the caller owns. Delete the scanner, reset the context.
// Owner: the session. Thread: the session's. Failure: scan gives 0, or -1 for every way in which nothing was scanned;
// a result other than 0 from setup_scan, or a count of 0, means that nothing will be scanned: that is not a verdict.
#pragma once

#include <velt/Export.h>
#include <velt/scanning/ScannerWatch.h>

namespace VELT {

class Config;
class ScanAgent;
struct ScanContext;
struct ScanOutput;

class VELT_API Scanner {
public:
    Scanner(Scanner const&) = delete;
    Scanner& operator=(Scanner const&) = delete;

    virtual ~Scanner();
    virtual int setup_scan(unsigned int& count) = 0;
    virtual int scan(unsigned int index, ScanOutput*& output, bool fallback) = 0;  // fallback deletes the output first
    virtual bool is_av_enabled();                                                  // base: true
    virtual bool is_streaming_media() = 0;

    static Scanner* get(ScanContext* context);     // never null; the caller owns it
    static void initialise(Config* config);        // once per process, before any fork or thread
    static void start(bool force, bool threaded);  // once in each process that scans
    [[noreturn]] static void finish();             // the end of the process; cut off after 2 seconds

    void set_context(ScanContext* scanContext) { context = scanContext; }

protected:
    Scanner() = default;

    ScanContext* context = nullptr;  // not owned
    ScanAgent* agent = nullptr;      // owned; null unless a subclass sets it
};

// The only scanner a session ever holds; chooses its inner one when it is made, and keeps it for the item.
class VELT_API ScannerWrapper : public Scanner {
public:
    static Scanner* get(ScanContext* context);
    static void initialise(Config* config);
    static void start();
    ~ScannerWrapper() override;

    int setup_scan(unsigned int& count) override;
    int scan(unsigned int index, ScanOutput*& output, bool fallback) override;
    bool is_av_enabled() override;  // asks a temporary agent; nothing is scanned
    bool is_streaming_media() override;

private:
    explicit ScannerWrapper(ScanContext* scanContext);
    static Scanner* Choose(ScanContext* context);

    Scanner* inner;  // owned
};

// Scans on the session's own thread, under the watch. setup_scan is not watched.
class VELT_API ScannerInline : public Scanner, public ScannerWatch {
public:
    static Scanner* get(ScanContext* context);  // null when disabled
    static void initialise(Config* config);     // disabled when connection threads have a stack too small for engines
    static void start();
    static void disable();  // for hosts; before threads start

    int setup_scan(unsigned int& count) override;
    int scan(unsigned int index, ScanOutput*& output, bool fallback) override;
    bool is_streaming_media() override;
    void callbackscan() override;

private:
    ScannerInline();

    static bool s_disabled;
};

// The end of the chain: nothing is scanned, and setup_scan says so.
class VELT_API ScannerNull : public Scanner {
public:
    static Scanner* get(ScanContext* context);
    static void initialise(Config* config);
    static void start();

    int setup_scan(unsigned int& count) override;
    int scan(unsigned int index, ScanOutput*& output, bool fallback) override;
    bool is_streaming_media() override;
};

}  // namespace VELT
