// PolicyLoader: the store of settings and the maker of scan threads, behind libpolicyloader.so.
// Owner: the process; there is one, and it is never destroyed. Threads: initialise from one thread before all else;
// then any call from any thread. Reads take no lock. Once per 5 seconds of the time that a read asks for, the reading
// thread looks whether a file has changed and, if so, replaces the tables that all read; others go on reading
// meanwhile, and a thread never sees older tables than it has seen. What does not change from one state to the next is
// shared by both. Failure: false or null, with the reason in lastError(). A file that turns bad later is reported to
// syslog once, and the last good state stays.
#pragma once

#include <atomic>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <eFabric/Policy.h>
#include <policyloader/engines/EngineHost.h>
#include <policyloader/store/ErrorState.h>
#include <policyloader/store/KeepList.h>
#include <policyloader/store/SettingsView.h>
#include <policyloader/store/StoreFiles.h>

namespace eFabric {
class XmlError;
}

namespace policyloader {

struct StoreTables;

class PolicyLoader final : public eFabric::IPolicyLoader, public SettingsSource {
public:
    static constexpr std::time_t LookInterval = 5;  // seconds

    static PolicyLoader& process();
    static void Shutdown();

    PolicyLoader();
    ~PolicyLoader();
    PolicyLoader(PolicyLoader const&) = delete;
    PolicyLoader& operator=(PolicyLoader const&) = delete;

    // "EngineXMLFilePath" of the bag names the per-proxy file.
    bool initialise(eFabric::eConfig& config, int, KORPropertyBag* bag) override;
    IScanThread* createScanThread(InternedString policy) override;
    int countEngines() const override { return m_engines.countEngines(); }
    IKORPropertyBag const* engineInformation(int index) const override { return m_engines.engineInformation(index); }
    eFabric::IIdentityList const* identities(InternedString const& policyId, int* status) const override;
    InternedString internAttribute(char const* text) const override;
    InternedString internSettings(char const* text) const override;
    eFabric::IProductValue const* productValue(InternedString const& policyId, InternedString const& identity,
                                               InternedString const& settings, InternedString const& attribute,
                                               std::time_t when, int* status) const override;
    int compareActions(InternedString const& policyId, char const* first, char const* second) const override;
    IKORError const& lastError() const override { return *m_error.load(std::memory_order_acquire); }

    SettingsView view(InternedString policy, InternedString identity, std::time_t when) const override;
    // Where what is in force now was read from: for tools and reports, not for reading settings.
    StoreSources sources() const;

private:
    class Turn;

    StoreTables const& tables() const { return *m_tables.load(std::memory_order_acquire); }
    std::time_t refreshed(std::time_t when) const;  // the time to read at, after a look at the files when that is due
    void refresh(std::time_t when) const;
    void lookAtFiles() const;
    bool loadStore(std::vector<std::string> paths);
    void publish(StoreSnapshot const& snapshot) const;
    void publish(std::unique_ptr<ErrorState const> error) const;
    void fail(eFabric::XmlError const& error) const;
    void failStopped() const;
    void dropTornFiles() const;

    EngineHost m_engines;
    std::atomic<bool> m_shut{false};

    // Read by any thread; what they point at is never destroyed before the loader.
    mutable std::atomic<StoreTables const*> m_tables{nullptr};
    mutable std::atomic<ErrorState const*> m_error{nullptr};
    mutable std::atomic<std::time_t> m_looked{0};

    // Held by the thread whose turn it is to look at the files: the process id of that thread, 0 for nobody. Of another
    // process, since a fork took place meanwhile, it counts as nobody.
    mutable std::atomic<int> m_looker{0};
    mutable std::unique_ptr<StoreFiles> m_files;  // that thread's

    std::vector<std::string> m_paths;  // set by initialise

    mutable KeepList<ErrorState> m_errors;
};

}  // namespace policyloader
