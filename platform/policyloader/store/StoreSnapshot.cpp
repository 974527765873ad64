#include <policyloader/store/StoreSnapshot.h>

#include <algorithm>
#include <cstring>

#include <eFabric/XmlFile.h>
#include <policyloader/store/StoreModel.h>
#include <policyloader/store/StoreTables.h>

namespace policyloader {
namespace {

int Position(std::vector<InternedString> const& actions, char const* action) {
    auto const found = std::find_if(actions.begin(), actions.end(), [&](InternedString known) {
        return action && std::strcmp(known.c_str(), action) == 0;
    });
    return found == actions.end() ? -1 : static_cast<int>(found - actions.begin());
}

}  // namespace

StoreSnapshot::StoreSnapshot(std::unique_ptr<StoreModel> model)
    : m_model(std::move(model)), m_tables(std::make_unique<StoreTables>(*m_model)) {}

StoreSnapshot::~StoreSnapshot() = default;

eFabric::IProductValue const* StoreSnapshot::productValue(InternedString policy, InternedString identity,
                                                          InternedString section, InternedString name,
                                                          std::time_t when) const {
    auto const* const plan = m_tables->plan(policy, identity);
    return plan ? m_tables->value(*plan, section.c_str(), name.c_str(), when) : nullptr;
}

eFabric::IIdentityList const& StoreSnapshot::identities(InternedString policy) const {
    static IdentityNames const& none = *new IdentityNames;
    auto const* const plan = m_tables->plan(policy, InternedString());
    return plan ? *plan->identities : none;
}

int StoreSnapshot::compareActions(InternedString policy, char const* a, char const* b) const {
    return view(policy, InternedString(), 0).compareActions(a, b);
}

SettingsView StoreSnapshot::view(InternedString policy, InternedString identity, std::time_t when) const {
    return SettingsView(*this, m_tables->plan(policy, identity), when ? when : std::time(nullptr));
}

Value const* SettingsView::find(std::string_view section, std::string_view name) const {
    auto const& tables = *m_snapshot->m_tables;
    auto const* const knownSection = tables.name(section);
    auto const* const knownName = tables.name(name);
    if (!m_plan || !knownSection || !knownName) return nullptr;
    return tables.value(*m_plan, knownSection, knownName, m_when);
}

std::optional<std::string_view> SettingsView::text(std::string_view section, std::string_view name) const {
    auto const* const value = find(section, name);
    if (!value || !value->text()) return std::nullopt;
    return std::string_view(value->text());
}

unsigned SettingsView::number(std::string_view section, std::string_view name, unsigned standard) const {
    auto const* const value = find(section, name);
    if (value) value->getUnsigned(&standard);
    return standard;
}

double SettingsView::real(std::string_view section, std::string_view name, double standard) const {
    auto const* const value = find(section, name);
    return value ? value->real().value_or(standard) : standard;
}

bool SettingsView::flag(std::string_view section, std::string_view name, bool standard) const {
    auto const* const value = find(section, name);
    if (value) value->getBool(&standard);
    return standard;
}

std::vector<std::string_view> SettingsView::list(std::string_view section, std::string_view name) const {
    std::vector<std::string_view> texts;
    auto const* const value = find(section, name);
    for (unsigned i = 0; value && i < value->size(); ++i) {
        char const* text = nullptr;
        if (value->at(i)->getString(&text)) texts.emplace_back(text);
    }
    return texts;
}

std::vector<Rule const*> SettingsView::rules(std::string_view section) const {
    std::vector<Rule const*> found;
    auto const* const known = m_snapshot->m_tables->name(section);
    if (!m_plan || !known) return found;
    for (auto const* const scope : m_plan->scopes) {
        auto const own = scope->rules.find(known);
        if (own == scope->rules.end()) continue;
        for (auto const& [file, rule] : own->second)
            if (rule->appliesAt(m_when)) found.push_back(rule);
    }
    return found;
}

std::uint64_t SettingsView::rulesKey(std::string_view section) const {
    std::uint64_t key = RuleKeySeed;
    for (auto const* const rule : rules(section)) key = MixRuleKey(key, rule->fingerprint());
    return key;
}

int SettingsView::compareActions(char const* a, char const* b) const {
    if (!m_plan || !m_plan->actions) return -1;
    int const first = Position(*m_plan->actions, a);
    int const second = Position(*m_plan->actions, b);
    if (first < 0 || second < 0) return -1;
    return first == second ? 0 : first < second ? 1 : 2;
}

std::unique_ptr<StoreSnapshot const> ParseStore(std::string const& name, std::string_view bytes) {
    auto model = std::make_unique<StoreModel>();
    model->add(eFabric::XmlFile(name, std::string(bytes), "rules"));
    return std::make_unique<StoreSnapshot const>(std::move(model));
}

}  // namespace policyloader
