#include <velt/scanning/ScanAgent.h>

#include <velt/scanning/EFabricScanAgent.h>
#include <velt/scanning/ScanContext.h>

#include <cstring>

namespace VELT {

ScanAgent* (*ScanAgent::s_ScanAgent)() = nullptr;

ScanAgent* ScanAgent::get() { return s_ScanAgent ? s_ScanAgent() : nullptr; }

void ScanAgent::initialise(Config* config) {
    EFabricScanAgent::initialise(config);
    s_ScanAgent = []() -> ScanAgent* { return EFabricScanAgent::get(); };
}

void ScanAgent::start() { EFabricScanAgent::start(); }

void ScanAgent::set_time(long now) { EFabricScanAgent::set_time(now); }

void ScanAgent::segv() { EFabricScanAgent::segv(); }

void ScanAgent::finish() { EFabricScanAgent::finish(); }

bool ScanAgent::output_in_input(ScanContext* context) {
    if (!context) return false;
    IKORPropertyBag& properties = context->properties;
    IKORProperty const* const http = properties.GetProperty("ES_CONTEXT_HTTP");
    long isHttp = 0;
    if (!http || !http->GetLong(isHttp) || isHttp == 0) return false;
    IKORProperty const* const host = properties.GetProperty("ES_FORCEDHOST");
    char const* const name = host ? host->GetNarrow() : nullptr;
    return name && std::strcmp(name, "KORHTTPScan") == 0;
}

}  // namespace VELT
