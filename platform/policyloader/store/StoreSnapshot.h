// StoreSnapshot: one state of the policy store: what its files say, and the tables for look-up, in which inheritance of
// identities and base policies is worked out, so that a look-up is a few hash probes.
// Owner: the policy loader has the newest; a tool or a test its own. What it has given lives as long as its pool, which
// the loader keeps for ever. Immutable; any thread, no lock. Failure: a look-up gives null when nothing is configured.
#pragma once

#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include <eFabric/Policy.h>
#include <policyloader/store/SettingsView.h>
#include <policyloader/store/StoreSources.h>

namespace policyloader {

class StoreModel;
struct StoreTables;

class StoreSnapshot final : public SettingsSource {
public:
    explicit StoreSnapshot(std::unique_ptr<StoreModel> model);  // throws eFabric::XmlError
    StoreSnapshot(StoreSnapshot const&) = delete;
    StoreSnapshot& operator=(StoreSnapshot const&) = delete;

    eFabric::IProductValue const* productValue(InternedString policy, InternedString identity, InternedString section,
                                               InternedString name, std::time_t when) const;
    eFabric::IIdentityList const& identities(InternedString policy) const;  // empty for an unknown policy
    int compareActions(InternedString policy, char const* a, char const* b) const;
    SettingsView view(InternedString policy, InternedString identity, std::time_t when) const override;
    StoreSources sources() const { return StoreSources(m_model); }
    StoreTables const& tables() const { return *m_tables; }  // the pool's

private:
    std::shared_ptr<StoreModel> const m_model;
    StoreTables const* const m_tables;
};

// A store out of a text in memory, for tests and fuzzers: no file is opened. `name` stands for the file in messages.
// Throws eFabric::XmlError. Names for look-ups come from InternPool::process().
std::unique_ptr<StoreSnapshot const> ParseStore(std::string const& name, std::string_view bytes);

}  // namespace policyloader
