// A libpolicyloader.so in front of the real one, whose path is in VELT_ENGINES, for the tests that have engines fail:
// loaded first (LD_PRELOAD), it is found under that name. A message with a field "X-Fault: NAME" is scanned by nobody
// but has that fault; every other goes to the real engines. Threads and owners: as those of what it stands for.
#include <dlfcn.h>
#include <eFabric/Policy.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

#include <testing/ScriptedFramework.h>

namespace {

constexpr std::size_t kHeadBytes = 4096;

// What follows "X-Fault: " at the item's beginning; empty when there is none.
std::string FaultOf(eFabric::IStreamTransport& in) {
    std::string head(kHeadBytes, '\0');
    in.seek(0);
    head.resize(in.read(reinterpret_cast<unsigned char*>(head.data()), head.size()));
    in.seek(0);
    std::string const field = "\nX-Fault: ";
    std::size_t const at = head.find(field);
    if (at == std::string::npos) return {};
    std::size_t const begin = at + field.size();
    return head.substr(begin, head.find_first_of("\r\n", begin) - begin);
}

// The item is too large to be unpacked: the library asks for the fallback scan.
constexpr char kLimit[] = "limit-";

bool IsLimit(std::string const& fault) { return fault.rfind(kLimit, 0) == 0; }

class FaultyResult final : public velt_testing::ScriptedVerdict::Result {
public:
    explicit FaultyResult(bool isError) : m_isError(isError) {}
    bool GetScanErrorStatus() const override { return m_isError; }

private:
    bool m_isError;
};

// A verdict that no sound engine gives, or one of a limit.
class FaultyVerdict final : public velt_testing::ScriptedVerdict {
public:
    explicit FaultyVerdict(std::string fault) : m_fault(std::move(fault)) {
        if (m_fault == "error") {
            Result& error = Take(true);
            error.bag.NewProperty("E_SR_TYPE")->SetULong(7);
            error.bag.NewProperty("E_SR_SCANERROR_LVL")->SetULong(0);  // which the library passes over in silence
        } else if (IsLimit(m_fault)) {
            Result& limit = Take(false);
            limit.bag.NewProperty("E_SR_TYPE")->SetULong(4);
            limit.bag.NewProperty("E_SR_DOS_TYPE")->SetWide(L"SIZE");
        }
    }
    bool IsModified() const override { return m_fault == "modified"; }
    bool IsTriggered() const override {
        return m_fault == "no-action" || m_fault == "unknown-action" || IsLimit(m_fault);
    }
    char const* GetMasterActionCode() const override {
        if (IsLimit(m_fault)) return "LOG";
        if (m_fault == "modified") return "CLEAN";
        return m_fault == "unknown-action" ? "SOMETHING" : nullptr;
    }
    IKORScanResult const* GetMasterScanResult() const override {
        return IsLimit(m_fault) ? results.front().get() : nullptr;
    }

private:
    Result& Take(bool isError) {
        results.push_back(std::make_unique<FaultyResult>(isError));
        return *results.back();
    }

    std::string m_fault;
};

// The test says by a file, whose path is in the variable, that this is so at present.
bool IsSo(char const* variable) {
    char const* const file = std::getenv(variable);
    return file && ::access(file, F_OK) == 0;
}

// An engine that is slow for as long as the test needs it.
void WaitForRelease() {
    while (IsSo("VELT_ENGINES_WAIT")) ::poll(nullptr, 0, 10);
}

// No thread gets engines that has none yet.
bool EnginesAreAway() { return IsSo("VELT_ENGINES_AWAY"); }

bool IsFallback(eFabric::IStreamTransport& in) {
    IKORPropertyBag const* const bag = in.GetPropertyBag();
    return bag && bag->GetProperty("ES_FORCEDHOST");
}

// What is left of a fault in this scan: a limit is met in the first one, and what is named behind it in the fallback.
std::string FaultOfScan(eFabric::IStreamTransport& in) {
    std::string const fault = FaultOf(in);
    return IsLimit(fault) && IsFallback(in) ? fault.substr(sizeof kLimit - 1) : fault;
}

class FaultyObject final : public IScanObject {
public:
    FaultyObject(IScanObject* real, std::string const& fault) : m_real(real), m_verdict(fault), m_fault(fault) {}
    void Release() override {
        m_real->Release();
        delete this;
    }
    IScanResultHandler const* Scan(eFabric::IStreamTransport* out, ScanTime* time) override {
        if (m_fault == "slow") WaitForRelease();
        if (m_fault.empty() || m_fault == "slow" || m_fault == "sound") return m_real->Scan(out, time);
        if (m_fault == "no-verdict") return nullptr;
        if (m_fault == "exception") throw std::runtime_error("broken engine");
        if (m_fault == "memory") throw std::bad_alloc();
        if (m_fault == "foreign-exception") throw 5;
        if (m_fault == "death") ::raise(SIGKILL);
        return &m_verdict;
    }
    bool IsSettingOn(char const* setting, ScanTime* time) override { return m_real->IsSettingOn(setting, time); }

private:
    IScanObject* m_real;
    FaultyVerdict m_verdict;
    std::string m_fault;
};

class FaultyThread final : public IScanThread {
public:
    explicit FaultyThread(IScanThread* real) : m_real(real) {}
    void Release() override {
        m_real->Release();
        delete this;
    }
    IScanObject* NewScanObject(eFabric::IStreamTransport& in, InternedString identity) override {
        std::string const fault = FaultOfScan(in);
        IScanObject* const real = fault == "no-object" ? nullptr : m_real->NewScanObject(in, identity);
        return real ? new FaultyObject(real, fault) : nullptr;
    }
    bool SetPolicy(InternedString policy) override { return m_real->SetPolicy(policy); }
    IKORError const& LastError() const override { return m_real->LastError(); }
    bool SelectEngines(bool enable, char const* name) override { return m_real->SelectEngines(enable, name); }
    void SetTimeSource(std::time_t (*source)()) override { m_real->SetTimeSource(source); }

private:
    IScanThread* m_real;
};

class FaultyLoader final : public eFabric::IPolicyLoader {
public:
    explicit FaultyLoader(eFabric::IPolicyLoader& real) : m_real(real) {}
    bool initialise(eFabric::eConfig& config, int flags, KORPropertyBag* bag) override {
        return m_real.initialise(config, flags, bag);
    }
    IScanThread* createScanThread(InternedString policy) override {
        IScanThread* const real = EnginesAreAway() ? nullptr : m_real.createScanThread(policy);
        return real ? new FaultyThread(real) : nullptr;
    }
    int countEngines() const override { return m_real.countEngines(); }
    IKORPropertyBag const* engineInformation(int index) const override { return m_real.engineInformation(index); }
    eFabric::IIdentityList const* identities(InternedString const& policy, int* status) const override {
        return m_real.identities(policy, status);
    }
    InternedString internAttribute(char const* text) const override { return m_real.internAttribute(text); }
    InternedString internSettings(char const* text) const override { return m_real.internSettings(text); }
    eFabric::IProductValue const* productValue(InternedString const& policy, InternedString const& identity,
                                               InternedString const& settings, InternedString const& attribute,
                                               std::time_t when, int* status) const override {
        return m_real.productValue(policy, identity, settings, attribute, when, status);
    }
    int compareActions(InternedString const& policy, char const* first, char const* second) const override {
        return m_real.compareActions(policy, first, second);
    }
    IKORError const& lastError() const override { return m_real.lastError(); }

private:
    eFabric::IPolicyLoader& m_real;
};

void* RealLibrary() {
    static void* const library = ::dlopen(std::getenv("VELT_ENGINES"), RTLD_NOW | RTLD_LOCAL);
    return library;
}

}  // namespace

eFabric::IPolicyLoader* CreatePolicyLoader(int api, int flavour) {
    using Create = eFabric::IPolicyLoader* (*)(int, int);
    auto const create =
        RealLibrary() ? reinterpret_cast<Create>(::dlsym(RealLibrary(), "CreatePolicyLoader")) : nullptr;
    eFabric::IPolicyLoader* const real = create ? create(api, flavour) : nullptr;
    if (!real) return nullptr;
    static auto& loader = *new FaultyLoader(*real);
    return &loader;
}

void ShutdownPolicyLoader() {
    auto const stop = reinterpret_cast<void (*)()>(::dlsym(RealLibrary(), "ShutdownPolicyLoader"));
    if (stop) stop();
}
