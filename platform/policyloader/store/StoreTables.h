// StoreTables: the store with all inheritance worked out, as hash tables. Private to this folder.
// Owner: the snapshot, after the model whose values it points at. Immutable once built, any thread.
// Failure: building throws eFabric::XmlError for a base or an inherited identity that is unknown or goes in a circle.
#pragma once

#include <ctime>
#include <deque>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <eFabric/Policy.h>
#include <policyloader/store/ProbeTable.h>
#include <policyloader/store/StoreModel.h>

namespace policyloader {

// The values of one name as one policy, or one identity, sees them, in the order in which they count.
struct Chain {
    std::vector<WindowedValue> windowed;
    Value const* plain = nullptr;

    Value const* at(std::time_t when) const;
};

class IdentityNames final : public eFabric::IIdentityList {
public:
    unsigned size() const override { return static_cast<unsigned>(names.size()); }
    InternedString at(unsigned index) const override { return index < names.size() ? names[index] : InternedString(); }
    std::vector<InternedString> names;
};

// What one policy, alone or with one of its identities, looks at.
struct Plan {
    std::uintptr_t identityScope = 0;  // first part of the key in `values`; 0: none
    std::uintptr_t policyScope = 0;
    std::vector<Scope const*> scopes;  // the identity, those it inherits, the policy, its bases
    std::vector<InternedString> const* actions = nullptr;
    IdentityNames const* identities = nullptr;
};

struct StoreTables {
    static constexpr std::size_t MaxValues = 1'000'000;

    explicit StoreTables(StoreModel& model);

    Plan const* plan(InternedString policy, InternedString identity) const;
    Value const* value(Plan const& plan, char const* section, char const* name, std::time_t when) const;
    char const* name(std::string_view text) const;  // the interned form of a section or setting in use; null: none

private:
    using Policies = std::vector<PolicyNode const*>;

    void addPolicy(StoreModel const& model, PolicyNode const& policy);
    void addIdentity(PolicyNode const& policy, IdentityNode const& identity, Plan const& policyPlan);
    std::uintptr_t flatten(std::vector<Scope const*> const& scopes);
    void remember(Scope const& scope);
    void remember(char const* name) { m_names.emplace(name, name); }

    ProbeTable<Plan> m_planTable;    // policy, identity or 0
    ProbeTable<Chain> m_valueTable;  // scope, section, name
    std::unordered_map<std::string_view, char const*> m_names;
    std::uintptr_t m_scopes = 0;
    // Elements stay where they are.
    std::deque<Plan> m_plans;
    std::deque<Chain> m_chains;
    std::deque<IdentityNames> m_identities;
};

}  // namespace policyloader
