#include <velt/scanning/ScanAgent.h>

#include <velt/Config.h>
#include <velt/config_details/settings/scanning.h>
#include <velt/scanning/DebugScanAgent.h>
#include <velt/scanning/EFabricScanAgent.h>
#include <velt/scanning/NullScanAgent.h>
#include <velt/scanning/ScanContext.h>

#include <cstring>
#include <string_view>

namespace VELT {

ScanAgent* (*ScanAgent::s_ScanAgent)() = nullptr;

ScanAgent* ScanAgent::get() { return s_ScanAgent ? s_ScanAgent() : nullptr; }

// The names are compared as they stand: another spelling is another kind, and every other kind is the real one.
void ScanAgent::initialise(Config* config) {
    EFabricScanAgent::initialise(config);
    NullScanAgent::initialise(config);
    s_ScanAgent = EFabricScanAgent::get;
    char const* const text = ReadSetting<VELTCFG::scanning::ScannerAgent>(*config).c_str();
    std::string_view const kind = text ? text : "";
    if (kind == "debug") {
        DebugScanAgent::initialise(config);
        s_ScanAgent = DebugScanAgent::get;
    }
    if (kind == "null") s_ScanAgent = NullScanAgent::get;
}

void ScanAgent::start() {
    EFabricScanAgent::start();
    NullScanAgent::start();
    DebugScanAgent::start();
}

void ScanAgent::set_time(long now) {
    EFabricScanAgent::set_time(now);
    NullScanAgent::set_time(now);
    DebugScanAgent::set_time(now);
}

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
