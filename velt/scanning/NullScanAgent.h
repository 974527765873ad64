// NullScanAgent: lets everything pass without a look at it; each scan gives the empty verdict. It is chosen by the
// setting "ScannerAgent" and counted in "scanner.nullagent.scans", so that unscanned content never looks like scanned.
// Owner: as every ScanAgent. Thread: one. Failure: none but a missing context.
#pragma once

#include <velt/Export.h>
#include <velt/scanning/ScanAgent.h>

namespace VELT {

class VELT_API NullScanAgent : public ScanAgent {
public:
    ~NullScanAgent() override;

    static ScanAgent* get();
    static void initialise(Config* config);
    static void start();
    static void set_time(long now);

    int setup_scan(ScanContext* context, unsigned int& count, long time) override;
    bool is_streaming_media() override;
    bool is_av_scan_enabled(ScanContext* context, long time) override;
    int scan(unsigned int index, ScanOutput*& output, bool fallback) override;  // whatever the index
    void set_protocol(void* protocol) override;
};

}  // namespace VELT
