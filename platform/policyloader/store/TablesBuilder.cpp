#include <policyloader/store/TablesBuilder.h>

#include <map>
#include <string>
#include <utility>

#include <eFabric/XmlFile.h>
#include <policyloader/store/Inheritance.h>

namespace policyloader {
namespace {

// What stands behind a value without a window never counts.
void Append(Chain& chain, Setting const& setting) {
    if (chain.plain) return;
    for (auto const& said : setting.windowed) chain.windowed.push_back(WindowedValue{said.window, said.value});
    chain.plain = setting.plain.value;
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

IdentityNames NamesOf(PolicyNode const& policy) {
    IdentityNames names;
    for (auto const& identity : policy.identities) names.names.push_back(identity->name);
    return names;
}

// Of a policy that is not written down: of none of the files.
Place PlaceOf(std::vector<Place> const& places) { return places.empty() ? Place{"policy store", 0, 0} : places.back(); }

}  // namespace

StoreTables const* TablesBuilder::build() {
    for (auto const& policy : m_model.policies()) addPolicy(*policy);
    m_tables.names = m_pool.names.keep(std::move(m_names));
    return m_pool.tables.keep(std::move(m_tables));
}

void TablesBuilder::addPolicy(PolicyNode const& policy) {
    auto const bases = BasesOf(m_model, policy);
    auto const scopes = ScopesOf(bases);
    Plan plan;
    plan.policy = flatten(scopes, PlaceOf(policy.places));
    plan.rules = rulesOf(scopes);
    if (auto const* const actions = ActionsOf(bases)) plan.actions = m_pool.actions.keep(Actions{*actions});
    plan.identities = m_pool.identities.keep(NamesOf(policy));
    m_tables.plans.insert(KeyOf(policy.name.c_str(), nullptr), m_pool.plans.keep(plan));
    remember(policy.scope);
    for (auto const& identity : policy.identities) addIdentity(policy, *identity, plan);
}

void TablesBuilder::addIdentity(PolicyNode const& policy, IdentityNode const& identity, Plan plan) {
    auto const scopes = ScopesOf(AncestorsOf(policy, identity));
    plan.identity = flatten(scopes, PlaceOf(identity.places));
    auto const own = rulesOf(scopes);
    plan.rules.insert(plan.rules.begin(), own.begin(), own.end());
    m_tables.plans.insert(KeyOf(policy.name.c_str(), identity.name.c_str()), m_pool.plans.keep(std::move(plan)));
    remember(identity.scope);
}

SettingTable const* TablesBuilder::flatten(Scopes const& scopes, Place const& place) {
    std::map<SettingKey, Chain> chains;
    for (auto const* const scope : scopes)
        for (auto const& [key, setting] : scope->settings) Append(chains[key], setting);
    m_values += chains.size();
    if (m_values > MaxValues)
        throw eFabric::XmlError({place.file, place.line, place.column},
                                "more than a million values, inherited ones counted");
    SettingTable table;
    for (auto& [key, chain] : chains)
        table.chains.insert(KeyOf(key.section, key.name), m_pool.chains.keep(std::move(chain)));
    return m_pool.settings.keep(std::move(table));
}

std::vector<RuleBlock const*> TablesBuilder::rulesOf(Scopes const& scopes) {
    std::vector<RuleBlock const*> blocks;
    for (auto const* const scope : scopes) {
        RuleBlock block;
        for (auto const& [section, rules] : scope->rules)
            for (auto const& said : rules) block.rules[section].push_back(said.rule);
        if (!block.rules.empty()) blocks.push_back(m_pool.ruleBlocks.keep(std::move(block)));
    }
    return blocks;
}

void TablesBuilder::remember(Scope const& scope) {
    for (auto const& [key, setting] : scope.settings) {
        m_names.add(key.section);
        m_names.add(key.name);
    }
    for (auto const& [section, rules] : scope.rules) m_names.add(section);
}

}  // namespace policyloader
