#include <velt/scanning/ScannerProcessScanOutput.h>

#include <system/UUID.h>

namespace VELT {

ScannerProcessScanOutput::ScannerProcessScanOutput() : m_stream(UUID::get(), false) {}

ScannerProcessScanOutput::~ScannerProcessScanOutput() = default;

void ScannerProcessScanOutput::setResult(SerializedEFabricResult* verdict) {
    m_result.reset(verdict);
    result = verdict;
}

}  // namespace VELT
