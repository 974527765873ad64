#include <policyloader/store/PolicyLoader.h>

#include <unistd.h>

#include <utility>

#include <KORtk/Text.h>
#include <eFabric/Report.h>
#include <eFabric/XmlFile.h>
#include <policyloader/store/InternPool.h>
#include <policyloader/store/StoreModel.h>

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

PolicyLoader& PolicyLoader::process() {
    static PolicyLoader& loader = *new PolicyLoader;
    s_process.store(&loader);
    return loader;
}

void PolicyLoader::Shutdown() {
    if (auto* const loader = s_process.load()) loader->m_shut.store(true);
}

PolicyLoader::PolicyLoader() {
    publish(std::make_unique<ErrorState const>());
    publish(std::make_unique<StoreSnapshot const>(std::make_unique<StoreModel>()));
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
    m_paths = std::move(paths);
    m_files = std::make_unique<StoreFiles>(m_paths);
    m_looked.store(std::time(nullptr));
    try {
        publish(m_files->load());
        return true;
    } catch (eFabric::XmlError const& error) {
        fail(error);
        m_files.reset();
        return false;
    }
}

IScanThread* PolicyLoader::createScanThread(InternedString policy) {
    if (m_shut.load()) {
        failStopped();
        return nullptr;
    }
    return m_engines.createScanThread(*this, policy);
}

eFabric::IIdentityList const* PolicyLoader::identities(InternedString const& policyId, int* status) const {
    auto const& list = snapshot().identities(policyId);
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
    auto const* const value = snapshot().productValue(policyId, identity, settings, attribute, at);
    Answer(status, value != nullptr);
    return value;
}

int PolicyLoader::compareActions(InternedString const& policyId, char const* first, char const* second) const {
    return snapshot().compareActions(policyId, first, second);
}

SettingsView PolicyLoader::view(InternedString policy, InternedString identity, std::time_t when) const {
    auto const at = refreshed(when);
    return snapshot().view(policy, identity, at);
}

std::time_t PolicyLoader::refreshed(std::time_t when) const {
    if (when == 0) when = std::time(nullptr);
    // A clock that was set back counts as time gone by.
    auto const looked = m_looked.load(std::memory_order_relaxed);
    if (when < looked || when - looked >= LookInterval) refresh(when);
    return when;
}

void PolicyLoader::refresh(std::time_t when) const {
    int const self = ::getpid();
    int looker = m_looker.load();
    if (looker == self || !m_looker.compare_exchange_strong(looker, self)) return;
    if (looker != 0) dropTornFiles();
    m_looked.store(when, std::memory_order_relaxed);
    if (m_files && m_files->haveChanged()) reload();
    m_looker.store(0);
}

// The parent's thread may have been in the middle of a change: what it left is not touched, not even to free it.
void PolicyLoader::dropTornFiles() const {
    static_cast<void>(m_files.release());
    m_files = std::make_unique<StoreFiles>(m_paths);
}

void PolicyLoader::reload() const {
    try {
        if (auto fresh = m_files->reload()) publish(std::move(fresh));
    } catch (eFabric::XmlError const& error) {
        eFabric::Report(error.text());
        fail(error);
    } catch (std::exception const& error) {
        eFabric::Report(std::string("the policy store cannot be read again: ") + error.what());
    }
}

void PolicyLoader::publish(std::unique_ptr<StoreSnapshot const> snapshot) const {
    m_snapshot.store(m_snapshots.push(std::move(snapshot)), std::memory_order_release);
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
