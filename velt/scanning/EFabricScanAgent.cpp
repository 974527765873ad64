#include <velt/scanning/EFabricScanAgent.h>

#include <QXStats/QXCounter.h>
#include <signal.h>
#include <sys/stat.h>
#include <system/UUID.h>
#include <unistd.h>
#include <velt/Config.h>
#include <velt/config_details/settings/process.h>
#include <velt/results/SerializedEFabricResult.h>
#include <velt/runtime/Clock.h>
#include <velt/scanning/EFabricLibrary.h>
#include <velt/scanning/StreamTransport.h>

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace VELT {

namespace {

constexpr char const* kAntiVirusSwitch = "Settings:KORAVScanner:Kortex Anti-Virus Settings";
constexpr unsigned kTimeSlots = 4;
constexpr unsigned kSpoolSeconds = 10;  // for the item of a thread that crashed
constexpr mode_t kSpoolMask = 0077;     // it is for the operator's eyes

// The current time rotates through the slots, so that a reader that has just taken the pointer still reads a whole one.
std::array<ScanTime, kTimeSlots> s_ScanTimes;
std::atomic<ScanTime*> s_ScanTime{&s_ScanTimes[0]};
bool s_threadedclock = false;  // the clock thread refreshes the time; set at start-up

// The record of the scan under way on a thread. Until it is made nothing of it is asked: the crash handler may be
// first.
pthread_key_t s_scanner_key;
std::once_flag s_scanner_key_once;
std::atomic<bool> s_scanner_key_made{false};

std::unique_ptr<SerializedEFabricResult const> s_NullResult;  // the empty verdict
QXStats::QXCounter* s_pscans = nullptr;

void Rotate(long now) {
    ScanTime& slot = s_ScanTimes[static_cast<unsigned long>(now) % kTimeSlots];
    slot.Set(now, ST_LOCAL);
    s_ScanTime.store(&slot, std::memory_order_release);
}

// Marks the item that this thread scans, for as long as the engines are at work, so that a crash can keep it.
class ScanUnderWay {
public:
    ScanUnderWay(EFabricThreadRecord& record, ScanContext* context) : m_record(record) {
        m_record.context = context;
        m_record.scanning = true;
        if (s_scanner_key_made) ::pthread_setspecific(s_scanner_key, &m_record);
    }
    ~ScanUnderWay() {
        if (s_scanner_key_made) ::pthread_setspecific(s_scanner_key, nullptr);
        m_record.scanning = false;
    }
    ScanUnderWay(ScanUnderWay const&) = delete;
    ScanUnderWay& operator=(ScanUnderWay const&) = delete;

private:
    EFabricThreadRecord& m_record;
};

// Forces the host of a fallback scan for its duration. A forced host that the caller had set itself is gone after it.
class ForcedHost {
public:
    ForcedHost(KORPropertyBag& bag, bool on) : m_bag(bag), m_on(on) {
        if (m_on) m_bag.NewProperty("ES_FORCEDHOST")->SetNarrow("DefaultFormatPlugin");
    }
    ~ForcedHost() {
        if (m_on) m_bag.DeleteProperty("ES_FORCEDHOST");
    }
    ForcedHost(ForcedHost const&) = delete;
    ForcedHost& operator=(ForcedHost const&) = delete;

private:
    KORPropertyBag& m_bag;
    bool m_on;
};

// A crash handler's work comes to an end: it hangs no longer than the alarm allows, even where the crash was in the
// allocator that it needs itself. A thread that crashes meanwhile, or in the work itself, is turned away.
class LastWork {
public:
    LastWork() : m_entered(!s_underWay.exchange(true)) {
        if (!m_entered) return;
        ::signal(SIGALRM, SIG_DFL);
        sigset_t alarmOnly;
        ::sigemptyset(&alarmOnly);
        ::sigaddset(&alarmOnly, SIGALRM);
        ::pthread_sigmask(SIG_UNBLOCK, &alarmOnly, &m_before);
        ::alarm(kSpoolSeconds);
        m_mask = ::umask(kSpoolMask);
    }
    ~LastWork() {
        if (!m_entered) return;
        ::umask(m_mask);
        ::alarm(0);
        ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
        s_underWay = false;
    }
    LastWork(LastWork const&) = delete;
    LastWork& operator=(LastWork const&) = delete;
    explicit operator bool() const { return m_entered; }

private:
    static std::atomic<bool> s_underWay;

    bool m_entered;
    sigset_t m_before = {};
    mode_t m_mask = 0;
};

std::atomic<bool> LastWork::s_underWay{false};

// Hands the session's attributes to the framework, which owns them from then on.
void GiveAttributes(ScanContext& context) {
    if (!context.connection_attributes) return;
    context.properties.NewPropertyBagProperty("ES_SCANRESSUBSTITUTIONS")->SetBag(context.connection_attributes);
    context.connection_attributes = nullptr;
}

}  // namespace

bool EFabricScanAgent::load(std::string const& config, std::string const& name, bool antispam, char const* engine_xml) {
    load_efabric_library();
    bool loaded = false;
    // Contexts live as long as the process: threads keep records that name theirs.
    static auto& kept = *new std::vector<std::unique_ptr<EFabricScanContext>>;
    kept.push_back(std::make_unique<EFabricScanContext>(config, name, antispam, engine_xml, loaded));
    if (loaded && !s_pscans) s_pscans = new QXStats::QXCounter("scanner.efabric.scans");
    return loaded;
}

void EFabricScanAgent::initialise(Config* config) {
    if (!s_NullResult) s_NullResult.reset(SerializedEFabricResult::deserialize(nullptr));
    s_threadedclock = ReadSetting<VELTCFG::process::ForkedModelThreads>(*config);
}

void EFabricScanAgent::start() {
    long const now = static_cast<long>(Clock::getTime());
    for (ScanTime& slot : s_ScanTimes) slot.Set(now, ST_LOCAL);
    Rotate(now);
    std::call_once(s_scanner_key_once, [] { s_scanner_key_made = ::pthread_key_create(&s_scanner_key, nullptr) == 0; });
    post_fork_init_filedescriptors();
}

eFabric::IPolicyLoader* EFabricScanAgent::getPolicyLoader() {
    EFabricScanContext const* const context = EFabricScanContext::get();
    return context ? context->getPolicyLoader() : nullptr;
}

std::time_t EFabricScanAgent::get_time() {
    if (!s_threadedclock) Rotate(static_cast<long>(Clock::getTime()));
    return s_ScanTime.load(std::memory_order_acquire)->Get();
}

void EFabricScanAgent::set_time(long now) { Rotate(now); }

void EFabricScanAgent::finish() { EFabricLibrary::Shutdown(); }

void EFabricScanAgent::segv() {
    if (!s_scanner_key_made) return;
    auto const* const record = static_cast<EFabricThreadRecord*>(::pthread_getspecific(s_scanner_key));
    if (!record || !record->scanning || !record->context || !record->context->data) return;
    LastWork const work;
    if (!work) return;
    char const* const policy = record->policy.c_str();
    std::string const path = record->owner->segvPrefix() + "_" + (policy ? policy : "") + "_" + UUID::get();
    record->context->data->spool_to_disk(path.c_str());
}

ScanAgent* EFabricScanAgent::get() { return get(EFabricScanContext::get()); }

EFabricScanAgent* EFabricScanAgent::get(EFabricScanContext* context) {
    auto* const agent = new EFabricScanAgent(context);
    agent->scan_time.Set();
    return agent;
}

EFabricScanAgent::EFabricScanAgent(EFabricScanContext* scanEngine) : engine(scanEngine) {}

void EFabricScanAgent::set_protocol(void* protocol) { engine = static_cast<EFabricScanContext*>(protocol); }

bool EFabricScanAgent::is_streaming_media() { return false; }

bool EFabricScanAgent::set_scan_policy(InternedString const& policy) {
    if (tls->policy == policy) return true;
    if (!tls->scan_thread || !tls->scan_thread->SetPolicy(policy)) return false;
    tls->policy = policy;
    return true;
}

// The thread's scan thread object, with the context's policy, at the time asked for.
bool EFabricScanAgent::prepare(ScanContext* scanContext, long time) {
    context = scanContext;
    if (!context || !engine || !engine->getPolicyLoader()) return false;
    tls = engine->load_tls_info();
    if (!tls->scan_thread || !set_scan_policy(context->policy)) return false;
    scan_time.Set(time != 0 ? time : static_cast<long>(s_ScanTime.load(std::memory_order_acquire)->Get()), ST_LOCAL);
    return true;
}

int EFabricScanAgent::setup_scan(ScanContext* scanContext, unsigned int& count, long time) {
    count = 0;
    if (!prepare(scanContext, time)) return -1;
    count = static_cast<unsigned>(context->identities.size());
    return 0;
}

IScanObject* EFabricScanAgent::CreateScanObject(eFabric::IStreamTransport& transport, InternedString identity,
                                                bool fallback) {
    if (!tls || !tls->scan_thread) return nullptr;
    if (fallback != tls->fallback_mode) {
        tls->scan_thread->SelectEngines(!fallback, nullptr);
        if (fallback) tls->scan_thread->SelectEngines(true, "KORAVScanner");
        tls->fallback_mode = fallback;
    }
    IScanObject* const object = tls->scan_thread->NewScanObject(transport, identity);
    if (!object) write_efabric_error(__func__, __LINE__, "Cannot Create Scanner ", tls->scan_thread->LastError());
    return object;
}

int EFabricScanAgent::scan(unsigned int index, ScanOutput*& output, bool fallback) {
    if (fallback) {
        delete output;
        output = nullptr;
    }
    if (!context || !context->data || index >= context->identities.size()) return -1;
    if (s_pscans) ++*s_pscans;

    StreamTransport input(*context->data);
    auto result = std::make_unique<EFabricScanOutput>();
    context->data->seek(0, 0);
    StreamTransport out(result->stream());
    input.setExternalBag(&context->properties);
    GiveAttributes(*context);
    ForcedHost const forced(context->properties, fallback);
    result->output_in_input = output_in_input(context);
    if (!result->output_in_input) out.setExternalBag(&result->properties);

    IScanObject* const object = CreateScanObject(input, context->identities[index], fallback);
    if (!object) return -1;
    result->setResult(object, nullptr);  // released with it, also when an engine throws
    {
        ScanUnderWay const mark(*tls, context);
        result->setResult(object, object->Scan(result->output_in_input ? nullptr : &out, &scan_time));
    }
    result->output = result->output_in_input ? context->data : &result->stream();
    result->input_modified = result->output_in_input && input.IsModified();
    result->identity = context->identities[index];
    output = result.release();
    return 0;
}

// Every failure answers true: a session that cannot be told takes the anti-virus scan to be on.
bool EFabricScanAgent::is_av_scan_enabled(ScanContext* scanContext, long time) {
    ScannerStream empty(0u);
    StreamTransport transport(empty);
    if (!prepare(scanContext, time)) return true;
    InternedString const identity = context->identities.empty() ? InternedString() : context->identities.front();
    IScanObject* const object = CreateScanObject(transport, identity, false);
    if (!object) return true;
    bool const on = object->IsSettingOn(kAntiVirusSwitch, &scan_time);
    object->Release();
    return on;
}

}  // namespace VELT
