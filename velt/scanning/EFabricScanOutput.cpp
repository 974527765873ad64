#include <system/UUID.h>
#include <velt/runtime/Proxy.h>
#include <velt/scanning/EFabricScanAgent.h>
#include <velt/scanning/EngineVersions.h>

namespace VELT {

namespace {

constexpr unsigned long kAntiVirusResult = 1;
constexpr unsigned long kAntiSpamResult = 5;

void AddVersions(IKORScanResult const& result) {
    IKORPropertyBag* const bag = result.GetPropertyBag();
    IKORProperty const* const type = bag ? bag->GetProperty("E_SR_TYPE") : nullptr;
    unsigned long kind = 0;
    if (!type || type->GetType() != KORProp_ULong || !type->GetULong(kind)) return;
    if (kind == kAntiVirusResult) set_qx_version(*bag, s_AVEngine, s_AVDats);
    if (kind == kAntiSpamResult) set_qx_version(*bag, s_SPAMEngine, s_SPAMDats);
}

}  // namespace

void set_qx_version(IKORPropertyBag& bag, std::string const& engine, std::string const& dats) {
    IKORProperty* property = bag.GetProperty("QX_PROPERTIES");
    if (!property) property = bag.NewPropertyBagProperty("QX_PROPERTIES");
    if (!property->GetBag()) property->SetBag(nullptr);
    IKORPropertyBag* const inner = property->GetBag();
    if (!inner) return;
    inner->NewProperty("QX_ENGINE")->SetNarrow(engine.c_str());
    inner->NewProperty("QX_DATS")->SetNarrow(dats.c_str());
    inner->NewProperty("QX_SYSTEM_NAME")->SetNarrow(Proxy::GetProxyHostName(false).c_str());
}

EFabricScanOutput::EFabricScanOutput() : m_stream(UUID::get(), true) {}

EFabricScanOutput::~EFabricScanOutput() {
    if (scan_object) scan_object->Release();
}

void EFabricScanOutput::setResult(IScanObject* scanObject, IScanResultHandler const* handler) {
    if (handler) {
        long position = 0;
        for (IKORScanResult const* found = handler->FindFirstScanResult(position); found;
             found = handler->FindNextScanResult(position))
            AddVersions(*found);
    }
    scan_object = scanObject;
    result = handler;
}

}  // namespace VELT
