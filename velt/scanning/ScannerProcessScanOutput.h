// ScannerProcessScanOutput: an output whose verdict was read from its text form, with a stream of its own for the
// content after the scan. Owner: the session. Thread: the session's. It owns the verdict it is given; `output` points
// at the stream only where whoever made it says so.
#pragma once

#include <memory>

#include <velt/Export.h>
#include <velt/results/SerializedEFabricResult.h>
#include <velt/scanning/ScanContext.h>
#include <velt/streams/ScannerStream.h>

namespace VELT {

class VELT_API ScannerProcessScanOutput : public ScanOutput {
public:
    ScannerProcessScanOutput();
    ~ScannerProcessScanOutput() override;  // the verdict goes first, then the stream

    void setResult(SerializedEFabricResult* verdict);  // takes it over; it is `result` too
    ScannerStream& stream() { return m_stream; }

private:
    ScannerStream m_stream;
    std::unique_ptr<SerializedEFabricResult> m_result;
};

}  // namespace VELT
