// The engine adapter: all contact with the scanning framework in libpolicyloader.so.
// EFabricScanContext loads it, once per process; EFabricScanAgent runs one scan through it; EFabricScanOutput holds
// what came of it. The framework's policy loader is also the store behind Config.
// Threads: load and initialise at start-up; an agent belongs to one thread; the framework's scan thread objects are one
// per thread and kept for the thread's life. Failure: load gives false; setup_scan and scan give -1; the framework's
// own words go to syslog.
#pragma once

#include <pthread.h>

#include <ctime>
#include <string>

#include <eFabric/Policy.h>
#include <velt/Export.h>
#include <velt/scanning/ScanAgent.h>
#include <velt/scanning/ScanContext.h>
#include <velt/streams/ScannerStream.h>

namespace VELT {

class EFabricScanContext;

// What one thread that scans keeps between its scans.
struct EFabricThreadRecord {
    InternedString policy;  // last set on the scan thread object
    IScanThread* scan_thread = nullptr;
    bool scanning = false;           // a scan is under way
    bool fallback_mode = false;      // the engine selection last set
    ScanContext* context = nullptr;  // of the scan under way
    EFabricScanContext* owner = nullptr;
};

void remove_efabric_tls(void* record);  // when its thread ends

class VELT_API EFabricScanContext {
public:
    EFabricScanContext(std::string const& product, std::string const& name, bool antispam, char const* engineXml,
                       bool& loaded);
    EFabricScanContext(EFabricScanContext const&) = delete;
    EFabricScanContext& operator=(EFabricScanContext const&) = delete;

    static EFabricScanContext* get();
    eFabric::IPolicyLoader* getPolicyLoader() const { return loader; }

    void set_policy(ScanContext* context, char const* name) const;
    void set_identity(ScanContext* context, char const* name) const;  // null: one scan without an identity

    EFabricThreadRecord* load_tls_info();  // this thread's record, with a scan thread object unless that failed
    std::string const& segvPrefix() const { return segv_prefix; }

private:
    bool create_policy_loader(bool antispam, char const* engineXml);
    void read_engine_versions();

    pthread_key_t tls_key;
    InternedString default_policy;
    eFabric::IPolicyLoader* loader = nullptr;
    eFabric::eConfig config;
    std::string product_config;
    std::string segv_prefix;
};

class VELT_API EFabricScanAgent : public ScanAgent {
public:
    static bool load(std::string const& config, std::string const& name, bool antispam, char const* engine_xml);
    static void initialise(Config* config);
    static void start();
    static ScanAgent* get();
    static EFabricScanAgent* get(EFabricScanContext* context);
    static eFabric::IPolicyLoader* getPolicyLoader();  // null before load
    static std::time_t get_time();
    static void set_time(long now);
    static void finish();
    static void segv();

    int setup_scan(ScanContext* scanContext, unsigned int& count, long time) override;
    bool is_streaming_media() override;
    bool is_av_scan_enabled(ScanContext* scanContext, long time) override;
    int scan(unsigned int index, ScanOutput*& output, bool fallback) override;
    void set_protocol(void* protocol) override;

private:
    explicit EFabricScanAgent(EFabricScanContext* scanEngine);

    bool set_scan_policy(InternedString const& policy);
    bool prepare(ScanContext* scanContext, long time);
    IScanObject* CreateScanObject(eFabric::IStreamTransport& transport, InternedString identity, bool fallback);

    ScanContext* context = nullptr;
    ScanTime scan_time;
    EFabricScanContext* engine;
    EFabricThreadRecord* tls = nullptr;
};

class VELT_API EFabricScanOutput : public ScanOutput {
public:
    EFabricScanOutput();
    ~EFabricScanOutput() override;  // releases the scan object, and with it the verdict

    // Adds the versions of the engines to each result, and keeps both.
    void setResult(IScanObject* scanObject, IScanResultHandler const* handler);
    ScannerStream& stream() { return m_stream; }

private:
    IScanObject* scan_object = nullptr;
    ScannerStream m_stream;
};

}  // namespace VELT
