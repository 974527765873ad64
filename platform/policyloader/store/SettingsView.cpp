#include <policyloader/store/SettingsView.h>

#include <policyloader/store/StoreTables.h>

namespace policyloader {

char const* SettingsView::known(std::string_view text) const {
    auto const& names = m_tables->names->byText;
    auto const found = names.find(text);
    return found == names.end() ? nullptr : found->second;
}

Value const* SettingsView::find(std::string_view section, std::string_view name) const {
    auto const* const knownSection = known(section);
    auto const* const knownName = known(name);
    if (!m_plan || !knownSection || !knownName) return nullptr;
    return m_plan->at(KeyOf(knownSection, knownName), m_when);
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
    auto const* const name = known(section);
    if (!m_plan || !name) return found;
    for (auto const* const block : m_plan->rules) {
        auto const own = block->rules.find(name);
        if (own == block->rules.end()) continue;
        for (auto const* const rule : own->second)
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
    return m_plan && m_plan->actions ? m_plan->actions->compare(a, b) : -1;
}

}  // namespace policyloader
