// ScanAgent: what actually scans inside this process.
// Owner: the scanner that took it from get(). Thread: one; agents are unshared. Failure: -1.
#pragma once

#include <velt/Export.h>

namespace VELT {

class Config;
struct ScanContext;
struct ScanOutput;

class VELT_API ScanAgent {
public:
    ScanAgent() = default;
    ScanAgent(ScanAgent const&) = delete;
    ScanAgent& operator=(ScanAgent const&) = delete;

    virtual int setup_scan(ScanContext* context, unsigned int& count, long time) = 0;  // time 0: now
    virtual bool is_streaming_media() = 0;
    virtual bool is_av_scan_enabled(ScanContext* context, long time) = 0;
    virtual int scan(unsigned int index, ScanOutput*& output, bool fallback) = 0;
    virtual void set_protocol(void* protocol) = 0;
    virtual ~ScanAgent() = default;

    static ScanAgent* get();  // a new agent that the caller owns; null before initialise
    static void initialise(Config* config);
    static void start();             // once in each process that scans
    static void set_time(long now);  // from the clock thread
    static void segv();              // from the crash handler: keeps the item that this thread was scanning
    static void finish();

    // True only for a scan that the context forces to the host "KORHTTPScan": the content after it is in the input.
    static bool output_in_input(ScanContext* context);

private:
    static ScanAgent* (*s_ScanAgent)();
};

}  // namespace VELT
