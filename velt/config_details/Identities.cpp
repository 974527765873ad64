#include <QXid/Rules.h>
#include <system/SystemPath.h>

#include <algorithm>
#include <cstring>

#include <velt/Config.h>
#include <velt/config_details/RuleOperators.h>
#include <velt/scanning/EFabricScanAgent.h>

namespace VELT {

eFabric::IPolicyLoader const* Config::s_Loader = nullptr;
std::unique_ptr<QXidRules> Config::s_IdentityResolver;
eFabric::InternedString Config::s_PolicyIds[2][s_policyCount];
std::vector<eFabric::InternedString> Config::s_Identities[2][s_policyCount];
std::vector<Identity const*> Config::s_IdentityExpressions[2][s_policyCount];

namespace {

constexpr char const* kRulesFile = "/config/qxxmlconf/identities.xml";

constexpr char const* kPolicyIds[2][Config::s_policyCount] = {
    {"base", "connection_out", "content_out", "transport_out", "protocol_out", "const_out", "machine_out",
     "network_out", "system_out"},
    {"base", "connection_in", "content_in", "transport_in", "protocol_in", "const_in", "machine_in", "network_in",
     "system_in"},
};

using Names = std::vector<eFabric::InternedString>;
using Expressions = std::vector<Identity const*>;

// A name that the rule engine does not know is dropped; both vectors stay parallel.
void AddIdentities(QXidRules& rules, eFabric::IIdentityList const& list, Names& names, Expressions& expressions) {
    rules.addIdentities(list);
    for (unsigned i = 0; i < list.size(); ++i) {
        eFabric::InternedString const name = list.at(i);
        Identity const* const expression = name ? rules.find(name.c_str()) : nullptr;
        if (!expression) continue;
        expressions.push_back(expression);
        names.push_back(name);
    }
}

// Drops the identities that the rule file has no expression for: they must never be selected.
void PruneUnknown(Names& names, Expressions& expressions) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < expressions.size(); ++i) {
        if (!expressions[i]->hasExpression()) continue;
        names[kept] = names[i];
        expressions[kept++] = expressions[i];
    }
    names.resize(kept);
    expressions.resize(kept);
}

}  // namespace

void Config::initialise() { initialise(EFabricScanAgent::getPolicyLoader()); }

void Config::initialise(eFabric::IPolicyLoader const* loader) {
    s_Loader = loader;
    initialise_policy_ids();
}

void Config::initialise_policy_ids() {
    fill_operator_tables();
    if (!s_Loader) return;
    for (unsigned row = 0; row < 2; ++row) {
        for (unsigned slot = 0; slot < s_policyCount; ++slot) {
            s_PolicyIds[row][slot] = s_Loader->internAttribute(kPolicyIds[row][slot]);
        }
    }
    initialise_identities();
}

// The engine must know every name before it reads the rules. Slot 0 has no identities.
void Config::initialise_identities() {
    s_IdentityResolver = QXidRules::create();
    for (unsigned row = 0; row < 2; ++row) {
        for (unsigned slot = 1; slot < s_policyCount; ++slot) {
            s_Identities[row][slot].clear();
            s_IdentityExpressions[row][slot].clear();
            if (!s_PolicyIds[row][slot]) continue;
            int status = 0;
            eFabric::IIdentityList const* const list = s_Loader->identities(s_PolicyIds[row][slot], &status);
            if (!list || list->size() == 0) continue;
            AddIdentities(*s_IdentityResolver, *list, s_Identities[row][slot], s_IdentityExpressions[row][slot]);
        }
    }
    s_IdentityResolver->load(SystemPath(kRulesFile).c_str(), evaluate_rule);
    for (unsigned row = 0; row < 2; ++row) {
        for (unsigned slot = 1; slot < s_policyCount; ++slot) {
            PruneUnknown(s_Identities[row][slot], s_IdentityExpressions[row][slot]);
        }
    }
}

int Config::find_identity_priority(unsigned row, unsigned index, eFabric::InternedString const& identity) {
    Names const& names = s_Identities[row][index];
    auto const found = std::find(names.begin(), names.end(), identity);
    return found == names.end() ? -1 : static_cast<int>(found - names.begin());
}

eFabric::InternedString Config::find_identity(unsigned row, unsigned index, char const* text) {
    for (eFabric::InternedString const& name : s_Identities[row][index]) {
        if (std::strcmp(name.c_str(), text) == 0) return name;
    }
    return {};
}

}  // namespace VELT
