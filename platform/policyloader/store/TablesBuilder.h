// TablesBuilder: works out the inheritance of a StoreModel. Lives for one build.
// Failure: eFabric::XmlError for a base or an inherited identity that is unknown or goes in a circle, and for more
// values than are allowed.
#pragma once

#include <cstddef>
#include <vector>

#include <policyloader/store/StoreModel.h>
#include <policyloader/store/StorePool.h>

namespace policyloader {

class TablesBuilder {
public:
    static constexpr std::size_t MaxValues = 1'000'000;  // inherited ones counted wherever they are inherited

    TablesBuilder(StoreModel const& model, StorePool& pool) : m_model(model), m_pool(pool) {}
    StoreTables const* build();

private:
    using Scopes = std::vector<Scope const*>;

    void addPolicy(PolicyNode const& policy);
    void addIdentity(PolicyNode const& policy, IdentityNode const& identity, Plan plan);
    SettingTable const* flatten(Scopes const& scopes, Place const& place);
    std::vector<RuleBlock const*> rulesOf(Scopes const& scopes);
    void remember(Scope const& scope);

    StoreModel const& m_model;
    StorePool& m_pool;
    StoreTables m_tables;
    KnownNames m_names;
    std::size_t m_values = 0;
};

}  // namespace policyloader
