#include <policyloader/store/StoreTables.h>

#include <algorithm>
#include <cstring>
#include <tuple>

namespace policyloader {
namespace {

std::size_t Mix(std::size_t seed, void const* pointer) {
    return MixRuleKey(seed, reinterpret_cast<std::uintptr_t>(pointer));
}

std::size_t HashOf(std::vector<InternedString> const& names) {
    std::size_t hash = names.size();
    for (auto const name : names) hash = Mix(hash, name.c_str());
    return hash;
}

}  // namespace

Value const* Chain::at(std::time_t when) const {
    for (auto const& candidate : windowed)
        if (candidate.window->contains(when)) return candidate.value;
    return plain;
}

std::size_t Chain::hash() const {
    std::size_t hash = Mix(windowed.size(), plain);
    for (auto const& [window, value] : windowed) hash = Mix(Mix(hash, window), value);
    return hash;
}

Value const* SettingTable::at(ProbeKey key, std::time_t when) const {
    auto const* const chain = chains.find(key);
    return chain ? chain->at(when) : nullptr;
}

std::size_t RuleBlock::hash() const {
    std::size_t hash = rules.size();
    for (auto const& [section, own] : rules) {
        hash = Mix(hash, section);
        for (auto const* const rule : own) hash = Mix(hash, rule);
    }
    return hash;
}

int Actions::compare(char const* a, char const* b) const {
    auto const position = [&](char const* action) {
        return std::find_if(names.begin(), names.end(),
                            [&](InternedString known) { return action && std::strcmp(known.c_str(), action) == 0; });
    };
    auto const first = position(a);
    auto const second = position(b);
    if (first == names.end() || second == names.end()) return -1;
    return first == second ? 0 : first < second ? 1 : 2;
}

std::size_t Actions::hash() const { return HashOf(names); }

std::size_t IdentityNames::hash() const { return HashOf(names); }

Value const* Plan::at(ProbeKey key, std::time_t when) const {
    auto const* const own = identity ? identity->at(key, when) : nullptr;
    return own ? own : policy->at(key, when);
}

std::size_t Plan::hash() const {
    std::size_t hash = Mix(Mix(Mix(Mix(rules.size(), identity), policy), actions), identities);
    for (auto const* const block : rules) hash = Mix(hash, block);
    return hash;
}

bool operator==(Plan const& x, Plan const& y) {
    return std::tie(x.identity, x.policy, x.rules, x.actions, x.identities) ==
           std::tie(y.identity, y.policy, y.rules, y.actions, y.identities);
}

std::size_t KnownNames::hash() const {
    std::size_t sum = byText.size();
    for (auto const& [text, name] : byText) sum += Mix(0, name);
    return sum;
}

Plan const* StoreTables::plan(InternedString policy, InternedString identity) const {
    auto const* const own = identity ? plans.find(KeyOf(policy.c_str(), identity.c_str())) : nullptr;
    return own ? own : plans.find(KeyOf(policy.c_str(), nullptr));
}

Value const* StoreTables::value(InternedString policy, InternedString identity, InternedString section,
                                InternedString name, std::time_t when) const {
    auto const* const found = plan(policy, identity);
    return found ? found->at(KeyOf(section.c_str(), name.c_str()), when) : nullptr;
}

eFabric::IIdentityList const& StoreTables::identities(InternedString policy) const {
    static IdentityNames const& none = *new IdentityNames;
    auto const* const found = plan(policy, InternedString());
    return found ? *found->identities : none;
}

int StoreTables::compareActions(InternedString policy, char const* a, char const* b) const {
    return view(policy, InternedString(), 0).compareActions(a, b);
}

SettingsView StoreTables::view(InternedString policy, InternedString identity, std::time_t when) const {
    return SettingsView(*this, plan(policy, identity), when ? when : std::time(nullptr));
}

}  // namespace policyloader
