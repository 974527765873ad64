#include <policyloader/store/Rule.h>

#include <tuple>
#include <utility>

#include <policyloader/store/Window.h>

namespace policyloader {

// Texts are interned, so their addresses tell them apart, and the same ones come again after a reload.
Rule::Rule(Place place, std::vector<Attribute> attributes, Window const* when)
    : m_place(place), m_attributes(std::move(attributes)), m_when(when), m_fingerprint(RuleKeySeed) {
    for (auto const& [name, value] : m_attributes) {
        m_fingerprint = MixRuleKey(m_fingerprint, reinterpret_cast<std::uintptr_t>(name));
        m_fingerprint = MixRuleKey(m_fingerprint, reinterpret_cast<std::uintptr_t>(value));
    }
}

std::optional<std::string_view> Rule::get(std::string_view name) const {
    for (auto const& [known, value] : m_attributes)
        if (known == name) return value;
    return std::nullopt;
}

bool operator==(Rule const& x, Rule const& y) {
    auto const place = [](Rule const& rule) {
        return std::make_tuple(rule.m_place.file, rule.m_place.line, rule.m_place.column);
    };
    return place(x) == place(y) && x.m_when == y.m_when && x.m_attributes == y.m_attributes;
}

bool Rule::appliesAt(std::time_t when) const { return !m_when || m_when->contains(when); }

}  // namespace policyloader
