// The process's one contact with the scanning framework: its start, and the scan thread object of each thread.
#include <syslog.h>
#include <system/SegvHandler.h>
#include <system/SystemPath.h>
#include <velt/runtime/Clock.h>
#include <velt/runtime/Lock.h>
#include <velt/runtime/Proxy.h>
#include <velt/scanning/EFabricLibrary.h>
#include <velt/scanning/EFabricScanAgent.h>
#include <velt/scanning/EngineVersions.h>

#include <cstdlib>
#include <memory>
#include <tuple>
#include <utility>

namespace VELT {

namespace {

EFabricScanContext* s_ScanContext = nullptr;
Lock s_ScanThreadLock;  // making the scan thread objects, one thread at a time

// The lock is given back also when the framework throws.
IScanThread* MakeScanThread(eFabric::IPolicyLoader& loader, InternedString const& policy) {
    struct Turn {
        Turn() { s_ScanThreadLock.Acquire(); }
        ~Turn() { s_ScanThreadLock.Release(); }
    } const turn;
    return loader.createScanThread(policy);
}

std::wstring Widen(std::string const& path) { return KORtk::Utf8Array(path).wstr(); }

void SetText(KORPropertyBag& bag, char const* name, char const* text) { bag.NewProperty(name)->SetNarrow(text); }

}  // namespace

std::string s_AVEngine, s_AVDats, s_SPAMEngine, s_SPAMDats;

// Nobody else holds the record: agents belong to the thread, and its scans have ended.
void remove_efabric_tls(void* record) {
    std::unique_ptr<EFabricThreadRecord> const ended(static_cast<EFabricThreadRecord*>(record));
    if (ended->scan_thread) ended->scan_thread->Release();
}

EFabricScanContext* EFabricScanContext::get() { return s_ScanContext; }

EFabricScanContext::EFabricScanContext(std::string const& product, std::string const& name, bool antispam,
                                       char const* engineXml, bool& loaded)
    : product_config(product), segv_prefix(Proxy::s_pProxyInstance->m_scanDir + "/segv/" + name) {
    s_ScanContext = this;
    loaded = ::pthread_key_create(&tls_key, remove_efabric_tls) == 0 && create_policy_loader(antispam, engineXml);
}

bool EFabricScanContext::create_policy_loader(bool antispam, char const* engineXml) {
    eFabric::IPolicyLoader* const created = EFabricLibrary::CreateLoader();
    if (!created) return false;

    std::string const& scanDir = Proxy::s_pProxyInstance->m_scanDir;
    config.plugin_dir = Widen(SystemPath("/opt/KORAeFCM/eplugin"));
    config.product_config = Widen(product_config);
    config.rules = Widen(SystemPath("/config/qxxmlconf/rules.xml"));
    config.av_dat = Widen(SystemPath("/opt/KORAqxs/avengine/dat"));
    config.av_lib = Widen(SystemPath("/opt/KORAqxs/avengine/lib"));
    config.scan_dir = Widen(scanDir);
    ::setenv("TMPDIR", scanDir.c_str(), 1);

    KORPropertyBag bag;
    SetText(bag, "TarvosAVProductID", "13011");
    SetText(bag, "TarvosAVLocaleID", "0");
    if (antispam) SetText(bag, "ASSDKInstallPath", "/usr/lib/");
    if (engineXml) SetText(bag, "EngineXMLFilePath", engineXml);

    bool const initialised = created->initialise(config, 0, &bag);
    SegvHandler::Install();
    if (!initialised) {
        write_efabric_error(__func__, __LINE__, "Cannot initialise eFabric", created->lastError());
        return false;
    }
    loader = created;
    read_engine_versions();
    pre_fork_init_filedescriptors();
    default_policy = loader->internAttribute("content_in");
    return true;
}

void EFabricScanContext::read_engine_versions() {
    auto const text = [](IKORPropertyBag const& bag, char const* name) -> std::string {
        IKORProperty const* const property = bag.GetProperty(name);
        char const* const value = property ? property->GetNarrow() : nullptr;
        return value ? value : "";
    };
    auto const versions = [&text](IKORPropertyBag const& bag) {
        return std::pair(text(bag, "Version"), text(bag, "Definitions"));
    };
    for (int i = 0; i < loader->countEngines(); ++i) {
        IKORPropertyBag const* const engine = loader->engineInformation(i);
        if (!engine) continue;
        std::string const type = text(*engine, "EngineType");
        if (type == "KORAVScanner") std::tie(s_AVEngine, s_AVDats) = versions(*engine);
        if (type == "SpamScanner") std::tie(s_SPAMEngine, s_SPAMDats) = versions(*engine);
    }
}

void EFabricScanContext::set_policy(ScanContext* scanContext, char const* name) const {
    scanContext->policy = loader->internAttribute(name);
}

void EFabricScanContext::set_identity(ScanContext* scanContext, char const* name) const {
    scanContext->identities.assign(1, name ? loader->internAttribute(name) : InternedString());
}

EFabricThreadRecord* EFabricScanContext::load_tls_info() {
    auto* record = static_cast<EFabricThreadRecord*>(::pthread_getspecific(tls_key));
    if (!record) {
        record = new EFabricThreadRecord;
        ::pthread_setspecific(tls_key, record);
    }
    if (record->scan_thread) return record;

    record->scan_thread = MakeScanThread(*loader, default_policy);
    if (record->scan_thread)
        record->scan_thread->SetTimeSource(Clock::getTime);
    else
        write_efabric_error(__func__, __LINE__, "Cannot Create ScanThreadObject", loader->lastError());
    record->policy = default_policy;
    record->owner = this;
    return record;
}

}  // namespace VELT
