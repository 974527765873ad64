#include <policyloader/store/PolicyLoader.h>

#include <unistd.h>

#include <thread>
#include <utility>

#include <KORtk/Text.h>
#include <eFabric/Report.h>
#include <eFabric/XmlFile.h>
#include <policyloader/store/InternPool.h>
#include <policyloader/store/StorePool.h>
#include <policyloader/store/StoreTables.h>

namespace policyloader {
namespace {

std::atomic<PolicyLoader*> s_process{nullptr};

std::string Narrow(std::wstring const& text) { return KORtk::Utf8Array(text).str(); }

std::string PerProxyFile(KORPropertyBag const* bag) {
    auto const* const property = bag ? bag->GetProperty("EngineXMLFilePath") : nullptr;
    auto const* const path = property ? property->GetNarrow() : nullptr;
    return path ? path : "";
}

InternedString Intern(char const* text) { return text ? InternPool::process().intern(text) : InternedString(); }

void Answer(int* status, bool found) {
    if (status) *status = found ? 0 : 1;
}

}  // namespace

// One thread's turn at the files, if nobody else of this process has it.
class PolicyLoader::Turn {
public:
    explicit Turn(PolicyLoader const& loader) : m_looker(loader.m_looker) {
        int const self = ::getpid();
        int looker = m_looker.load();
        m_mine = looker != self && m_looker.compare_exchange_strong(looker, self);
        if (m_mine && looker != 0) loader.dropTornFiles();
    }
    ~Turn() {
        if (m_mine) m_looker.store(0);
    }
    Turn(Turn const&) = delete;
    Turn& operator=(Turn const&) = delete;
    explicit operator bool() const { return m_mine; }

private:
    std::atomic<int>& m_looker;
    bool m_mine;
};

PolicyLoader& PolicyLoader::process() {
    static PolicyLoader& loader = *new PolicyLoader;
    s_process.store(&loader);
    return loader;
}

void PolicyLoader::Shutdown() {
    if (auto* const loader = s_process.load()) loader->m_shut.store(true);
}

PolicyLoader::PolicyLoader()
    : m_files(std::make_unique<StoreFiles>(std::vector<std::string>(), std::make_shared<StorePool>())) {
    publish(std::make_unique<ErrorState const>());
    publish(m_files->load());
}

PolicyLoader::~PolicyLoader() = default;

bool PolicyLoader::initialise(eFabric::eConfig& config, int, KORPropertyBag* bag) {
    if (!loadStore({Narrow(config.rules), Narrow(config.product_config), PerProxyFile(bag)})) return false;
    auto error = std::make_unique<ErrorState>();
    bool const started = m_engines.initialise(Narrow(config.av_dat), *error);
    publish(std::unique_ptr<ErrorState const>(std::move(error)));
    m_shut.store(!started);
    return started;
}

bool PolicyLoader::loadStore(std::vector<std::string> paths) {
    auto files = std::make_unique<StoreFiles>(paths, m_files->pool());
    m_looked.store(std::time(nullptr));
    try {
        publish(files->load());
    } catch (eFabric::XmlError const& error) {
        fail(error);
        return false;
    }
    m_files = std::move(files);
    m_paths = std::move(paths);
    return true;
}

IScanThread* PolicyLoader::createScanThread(InternedString policy) {
    if (m_shut.load()) {
        failStopped();
        return nullptr;
    }
    return m_engines.createScanThread(*this, policy);
}

eFabric::IIdentityList const* PolicyLoader::identities(InternedString const& policyId, int* status) const {
    auto const& list = tables().identities(policyId);
    Answer(status, list.size() > 0);
    return &list;
}

InternedString PolicyLoader::internAttribute(char const* text) const { return Intern(text); }
InternedString PolicyLoader::internSettings(char const* text) const { return Intern(text); }

eFabric::IProductValue const* PolicyLoader::productValue(InternedString const& policyId, InternedString const& identity,
                                                         InternedString const& settings,
                                                         InternedString const& attribute, std::time_t when,
                                                         int* status) const {
    auto const at = refreshed(when);
    auto const* const value = tables().value(policyId, identity, settings, attribute, at);
    Answer(status, value != nullptr);
    return value;
}

int PolicyLoader::compareActions(InternedString const& policyId, char const* first, char const* second) const {
    return tables().compareActions(policyId, first, second);
}

SettingsView PolicyLoader::view(InternedString policy, InternedString identity, std::time_t when) const {
    auto const at = refreshed(when);
    return tables().view(policy, identity, at);
}

StoreSources PolicyLoader::sources() const {
    while (true) {
        Turn const turn(*this);
        if (turn) return (m_files->newest() ? *m_files->newest() : m_files->load()).sources();
        std::this_thread::yield();
    }
}

std::time_t PolicyLoader::refreshed(std::time_t when) const {
    if (when == 0) when = std::time(nullptr);
    // A clock that was set back counts as time gone by.
    auto const looked = m_looked.load(std::memory_order_relaxed);
    if (when - looked >= LookInterval || looked - when >= LookInterval) refresh(when);
    return when;
}

void PolicyLoader::refresh(std::time_t when) const {
    Turn const turn(*this);
    if (!turn) return;
    m_looked.store(when, std::memory_order_relaxed);
    lookAtFiles();
}

// The parent's thread may have been in the middle of a change: what it left is not touched, not even to free it.
void PolicyLoader::dropTornFiles() const {
    static_cast<void>(m_files.release());
    m_files = std::make_unique<StoreFiles>(m_paths, std::make_shared<StorePool>());
}

void PolicyLoader::lookAtFiles() const {
    try {
        auto const* const fresh = m_files->haveChanged() ? m_files->reload() : nullptr;
        if (fresh) publish(*fresh);
    } catch (eFabric::XmlError const& error) {
        eFabric::Report(error.text());
        fail(error);
    } catch (std::exception const& error) {
        eFabric::Report(std::string("the policy store cannot be read again: ") + error.what());
    }
}

void PolicyLoader::publish(StoreSnapshot const& snapshot) const {
    m_tables.store(&snapshot.tables(), std::memory_order_release);
}

void PolicyLoader::publish(std::unique_ptr<ErrorState const> error) const {
    m_error.store(m_errors.push(std::move(error)), std::memory_order_release);
}

void PolicyLoader::fail(eFabric::XmlError const& error) const {
    auto state = std::make_unique<ErrorState>();
    auto const& place = error.place();
    state->Set(KORError_Error, place.line, place.file, error.reason());
    state->SetAttribute("file", place.file);
    state->SetAttribute("line", std::to_string(place.line));
    state->SetAttribute("column", std::to_string(place.column));
    publish(std::unique_ptr<ErrorState const>(std::move(state)));
}

// One and the same error for every call, as errors are kept.
void PolicyLoader::failStopped() const {
    static ErrorState const& stopped = *[] {
        auto* const state = new ErrorState;
        state->Set(KORError_Error, 0, "the engines are stopped");
        return state;
    }();
    m_error.store(&stopped, std::memory_order_release);
}

}  // namespace policyloader
