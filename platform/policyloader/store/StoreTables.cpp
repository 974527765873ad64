#include <policyloader/store/StoreTables.h>

#include <map>

#include <eFabric/XmlFile.h>
#include <policyloader/store/Inheritance.h>

namespace policyloader {
namespace {

std::uintptr_t Word(void const* pointer) { return reinterpret_cast<std::uintptr_t>(pointer); }

ProbeKey ValueKey(std::uintptr_t scope, char const* section, char const* name) {
    return ProbeKey{scope, Word(section), Word(name)};
}

ProbeKey PlanKey(InternedString policy, InternedString identity) {
    return ProbeKey{Word(policy.c_str()), Word(identity.c_str()), 0};
}

// What stands behind a value without a window never counts.
void Append(Chain& chain, Setting const& setting) {
    if (chain.plain) return;
    chain.windowed.insert(chain.windowed.end(), setting.windowed.begin(), setting.windowed.end());
    chain.plain = setting.plain;
}

template <class Nodes>
std::vector<Scope const*> ScopesOf(Nodes const& nodes) {
    std::vector<Scope const*> scopes;
    for (auto const* const node : nodes) scopes.push_back(&node->scope);
    return scopes;
}

std::vector<InternedString> const* ActionsOf(std::vector<PolicyNode const*> const& bases) {
    for (auto const* const policy : bases)
        if (policy->actions) return &*policy->actions;
    return nullptr;
}

}  // namespace

Value const* Chain::at(std::time_t when) const {
    for (auto const& candidate : windowed)
        if (candidate.window->contains(when)) return candidate.value;
    return plain;
}

StoreTables::StoreTables(StoreModel& model) {
    AddStandardPolicies(model);
    for (auto const& policy : model.policies()) addPolicy(model, *policy);
}

void StoreTables::addPolicy(StoreModel const& model, PolicyNode const& policy) {
    auto const bases = BasesOf(model, policy);
    auto& names = m_identities.emplace_back();
    auto& plan = m_plans.emplace_back();
    plan.scopes = ScopesOf(bases);
    plan.policyScope = flatten(plan.scopes);
    plan.actions = ActionsOf(bases);
    plan.identities = &names;
    m_planTable.insert(PlanKey(policy.name, InternedString()), &plan);
    remember(policy.scope);
    for (auto const& identity : policy.identities) {
        names.names.push_back(identity->name);
        addIdentity(policy, *identity, plan);
    }
}

void StoreTables::addIdentity(PolicyNode const& policy, IdentityNode const& identity, Plan const& policyPlan) {
    auto& plan = m_plans.emplace_back(policyPlan);
    auto const own = ScopesOf(AncestorsOf(policy, identity));
    plan.identityScope = flatten(own);
    plan.scopes.insert(plan.scopes.begin(), own.begin(), own.end());
    m_planTable.insert(PlanKey(policy.name, identity.name), &plan);
    remember(identity.scope);
}

std::uintptr_t StoreTables::flatten(std::vector<Scope const*> const& scopes) {
    std::map<SettingKey, Chain> chains;
    for (auto const* const scope : scopes)
        for (auto const& [key, setting] : scope->settings) Append(chains[key], setting);
    if (m_valueTable.size() + chains.size() > MaxValues)
        throw eFabric::XmlError({"policy store", 0, 0}, "more than a million values, inherited ones counted");
    ++m_scopes;
    for (auto& [key, chain] : chains) {
        m_chains.push_back(std::move(chain));
        m_valueTable.insert(ValueKey(m_scopes, key.section, key.name), &m_chains.back());
    }
    return m_scopes;
}

void StoreTables::remember(Scope const& scope) {
    for (auto const& [key, setting] : scope.settings) {
        remember(key.section);
        remember(key.name);
    }
    for (auto const& [section, rules] : scope.rules) remember(section);
}

Plan const* StoreTables::plan(InternedString policy, InternedString identity) const {
    auto const* const plan = identity ? m_planTable.find(PlanKey(policy, identity)) : nullptr;
    return plan ? plan : m_planTable.find(PlanKey(policy, InternedString()));
}

Value const* StoreTables::value(Plan const& plan, char const* section, char const* name, std::time_t when) const {
    for (auto const scope : {plan.identityScope, plan.policyScope}) {
        auto const* const chain = scope ? m_valueTable.find(ValueKey(scope, section, name)) : nullptr;
        auto const* const value = chain ? chain->at(when) : nullptr;
        if (value) return value;
    }
    return nullptr;
}

char const* StoreTables::name(std::string_view text) const {
    auto const found = m_names.find(text);
    return found == m_names.end() ? nullptr : found->second;
}

}  // namespace policyloader
