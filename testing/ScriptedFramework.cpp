#include "testing/ScriptedFramework.h"

namespace velt_testing {

namespace {

std::string Name(InternedString text) { return text ? text.c_str() : "null"; }

class ScriptedError final : public IKORError {
public:
    bool IsSet() const override { return true; }
    unsigned long GetCode() const override { return 7; }
    int GetLevel() const override { return KORError_Error; }
    wchar_t const* GetText() const override { return L"scripted"; }
    wchar_t const* GetDetail() const override { return L"failure"; }
    char const* GetAttribute(char const*) const override { return "here"; }
    char const* FirstAttribute(long& pos) const override { return pos = 0, "file"; }
    char const* NextAttribute(long&) const override { return nullptr; }
};

ScriptedError const kError;

class ScriptedObject final : public IScanObject {
public:
    explicit ScriptedObject(eFabric::IStreamTransport& input) : m_input(input) {}
    void Release() override {
        ScriptedFramework::get().Note("release object");
        delete this;
    }
    IScanResultHandler const* Scan(eFabric::IStreamTransport* out, ScanTime* when) override {
        auto& script = ScriptedFramework::get();
        script.when = when->Get();
        script.Note(out ? "scan" : "scan in place");
        return script.scan ? script.scan(m_input, out) : nullptr;
    }
    bool IsSettingOn(char const* setting, ScanTime* when) override {
        ScriptedFramework::get().when = when->Get();
        ScriptedFramework::get().Note(std::string("setting ") + setting);
        return ScriptedFramework::get().settingOn;
    }

private:
    eFabric::IStreamTransport& m_input;
};

class ScriptedThread final : public IScanThread {
public:
    void Release() override {
        ScriptedFramework::get().Note("release thread");
        delete this;
    }
    IScanObject* NewScanObject(eFabric::IStreamTransport& input, InternedString identity) override {
        ScriptedFramework::get().Note("object " + Name(identity));
        return ScriptedFramework::get().giveObject ? new ScriptedObject(input) : nullptr;
    }
    bool SetPolicy(InternedString policy) override {
        ScriptedFramework::get().Note("policy " + Name(policy));
        if (ScriptedFramework::get().onPolicy) ScriptedFramework::get().onPolicy();
        return ScriptedFramework::get().takesPolicy;
    }
    IKORError const& LastError() const override { return kError; }
    bool SelectEngines(bool enable, char const* name) override {
        ScriptedFramework::get().Note(std::string("select ") + (enable ? "1 " : "0 ") + (name ? name : "all"));
        return true;
    }
    void SetTimeSource(std::time_t (*)()) override { ScriptedFramework::get().Note("time source"); }
};

class ScriptedLoader final : public eFabric::IPolicyLoader {
public:
    bool initialise(eFabric::eConfig& config, int, KORPropertyBag* bag) override {
        auto& script = ScriptedFramework::get();
        script.config = config;
        for (long i = 0; i < bag->Size(); ++i) {
            IKORProperty const* const property = static_cast<KORPropertyBag const*>(bag)->GetProperty(i);
            script.bag.emplace_back(property->GetName(), property->GetNarrow());
        }
        for (auto const& engine : script.engines) {
            auto& made = m_engines.emplace_back();
            made.NewProperty("EngineType")->SetNarrow(engine[0].c_str());
            made.NewProperty("Version")->SetNarrow(engine[1].c_str());
            made.NewProperty("Definitions")->SetNarrow(engine[2].c_str());
        }
        return script.initialises;
    }
    IScanThread* createScanThread(InternedString policy) override {
        auto& script = ScriptedFramework::get();
        script.Note("thread " + Name(policy));
        if (script.makingThread) script.makingThread();
        return script.giveThread ? new ScriptedThread : nullptr;
    }
    int countEngines() const override { return static_cast<int>(m_engines.size()); }
    IKORPropertyBag const* engineInformation(int index) const override { return &m_engines[index]; }
    eFabric::IIdentityList const* identities(InternedString const&, int*) const override { return nullptr; }
    InternedString internAttribute(char const* text) const override {
        std::lock_guard const hold(m_mutex);
        return InternedString(m_texts.insert(text).first->c_str());
    }
    InternedString internSettings(char const* text) const override { return internAttribute(text); }
    eFabric::IProductValue const* productValue(InternedString const&, InternedString const&, InternedString const&,
                                               InternedString const&, std::time_t, int*) const override {
        return nullptr;
    }
    int compareActions(InternedString const&, char const*, char const*) const override { return -1; }
    IKORError const& lastError() const override { return kError; }

private:
    mutable std::mutex m_mutex;
    mutable std::set<std::string> m_texts;
    std::vector<KORPropertyBag> m_engines;
};

}  // namespace

ScriptedFramework& ScriptedFramework::get() {
    static ScriptedFramework& script = *new ScriptedFramework;
    return script;
}

void ScriptedFramework::Note(std::string call) {
    std::lock_guard const hold(m_mutex);
    m_calls.push_back(std::move(call));
}

std::vector<std::string> ScriptedFramework::Calls() const {
    std::lock_guard const hold(m_mutex);
    return m_calls;
}

void ScriptedFramework::Forget() {
    std::lock_guard const hold(m_mutex);
    m_calls.clear();
}

}  // namespace velt_testing

eFabric::IPolicyLoader* CreatePolicyLoader(int api, int flavour) {
    velt_testing::ScriptedFramework::get().Note("create " + std::to_string(api) + " " + std::to_string(flavour));
    static velt_testing::ScriptedLoader& loader = *new velt_testing::ScriptedLoader;
    return velt_testing::ScriptedFramework::get().giveLoader ? &loader : nullptr;
}

void ShutdownPolicyLoader() {
    auto& script = velt_testing::ScriptedFramework::get();
    script.Note("shutdown");
    if (script.shutdown) script.shutdown();
}
