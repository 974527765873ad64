#include <velt/scanning/NullScanAgent.h>

#include <QXStats/QXCounter.h>
#include <velt/scanning/ScannerProcessScanOutput.h>

namespace VELT {

namespace {

QXStats::QXCounter* s_pscans = nullptr;

}  // namespace

NullScanAgent::~NullScanAgent() = default;

ScanAgent* NullScanAgent::get() { return new NullScanAgent; }

void NullScanAgent::initialise(Config*) {
    if (!s_pscans) s_pscans = new QXStats::QXCounter("scanner.nullagent.scans");
}

void NullScanAgent::start() {}

void NullScanAgent::set_time(long) {}

int NullScanAgent::setup_scan(ScanContext* context, unsigned int& count, long) {
    if (!context) return -1;
    count = static_cast<unsigned>(context->identities.size());
    return 0;
}

bool NullScanAgent::is_streaming_media() { return false; }

bool NullScanAgent::is_av_scan_enabled(ScanContext*, long) { return true; }

int NullScanAgent::scan(unsigned int, ScanOutput*& output, bool fallback) {
    if (s_pscans) ++*s_pscans;
    if (fallback) {
        delete output;
        output = nullptr;
    }
    auto made = std::make_unique<ScannerProcessScanOutput>();
    made->setResult(SerializedEFabricResult::deserialize(nullptr));
    if (!made->result) return -1;
    output = made.release();
    return 0;
}

void NullScanAgent::set_protocol(void*) {}

}  // namespace VELT
