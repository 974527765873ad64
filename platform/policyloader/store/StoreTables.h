// StoreTables: one state of the store with all inheritance worked out, as hash tables that point at each other.
// Every part is kept once in the StorePool, so states that differ in one value share all that does not depend on it.
// Private to this folder. Owner: the pool. Immutable, any thread, no lock. Failure: a look-up gives null.
#pragma once

#include <cstddef>
#include <ctime>
#include <map>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <eFabric/Policy.h>
#include <policyloader/store/ProbeTable.h>
#include <policyloader/store/Rule.h>
#include <policyloader/store/SettingsView.h>
#include <policyloader/store/Value.h>
#include <policyloader/store/Window.h>

namespace policyloader {

struct WindowedValue {
    Window const* window;
    Value const* value;
    friend bool operator==(WindowedValue const& x, WindowedValue const& y) {
        return x.window == y.window && x.value == y.value;
    }
};

// The values of one name as one policy, or one identity, sees them, in the order in which they count.
struct Chain {
    std::vector<WindowedValue> windowed;
    Value const* plain = nullptr;

    Value const* at(std::time_t when) const;
    std::size_t hash() const;
    friend bool operator==(Chain const& x, Chain const& y) { return x.plain == y.plain && x.windowed == y.windowed; }
};

// By section and name: what a policy with its bases, or an identity with those that it inherits, has.
struct SettingTable {
    ProbeTable<Chain> chains;

    Value const* at(ProbeKey key, std::time_t when) const;
    std::size_t hash() const { return chains.hash(); }
    friend bool operator==(SettingTable const& x, SettingTable const& y) { return x.chains == y.chains; }
};

// The rules that one policy, or one identity, has of its own; by section, interned.
struct RuleBlock {
    std::map<char const*, std::vector<Rule const*>> rules;

    std::size_t hash() const;
    friend bool operator==(RuleBlock const& x, RuleBlock const& y) { return x.rules == y.rules; }
};

struct Actions {
    std::vector<InternedString> names;  // weak to strong

    int compare(char const* a, char const* b) const;
    std::size_t hash() const;
    friend bool operator==(Actions const& x, Actions const& y) { return x.names == y.names; }
};

class IdentityNames final : public eFabric::IIdentityList {
public:
    unsigned size() const override { return static_cast<unsigned>(names.size()); }
    InternedString at(unsigned index) const override { return index < names.size() ? names[index] : InternedString(); }
    std::vector<InternedString> names;

    std::size_t hash() const;
    friend bool operator==(IdentityNames const& x, IdentityNames const& y) { return x.names == y.names; }
};

// What one policy, alone or with one of its identities, looks at.
struct Plan {
    SettingTable const* identity = nullptr;  // null: none
    SettingTable const* policy = nullptr;
    std::vector<RuleBlock const*> rules;  // of the identity, those it inherits, the policy, its bases
    Actions const* actions = nullptr;     // null: none
    IdentityNames const* identities = nullptr;

    Value const* at(ProbeKey key, std::time_t when) const;
    std::size_t hash() const;
    friend bool operator==(Plan const& x, Plan const& y);
};

// The sections and settings in use, for those who ask by text: each to its interned form.
struct KnownNames {
    std::unordered_map<std::string_view, char const*> byText;

    void add(char const* name) { byText.emplace(name, name); }
    std::size_t hash() const;
    friend bool operator==(KnownNames const& x, KnownNames const& y) { return x.byText == y.byText; }
};

struct StoreTables {
    ProbeTable<Plan> plans;  // by policy and identity, or 0
    KnownNames const* names = nullptr;

    Plan const* plan(InternedString policy, InternedString identity) const;
    Value const* value(InternedString policy, InternedString identity, InternedString section, InternedString name,
                       std::time_t when) const;
    eFabric::IIdentityList const& identities(InternedString policy) const;  // empty for an unknown policy
    int compareActions(InternedString policy, char const* a, char const* b) const;
    SettingsView view(InternedString policy, InternedString identity, std::time_t when) const;

    std::size_t hash() const { return plans.hash(); }
    friend bool operator==(StoreTables const& x, StoreTables const& y) {
        return x.names == y.names && x.plans == y.plans;
    }
};

inline ProbeKey KeyOf(char const* a, char const* b) {
    return ProbeKey{reinterpret_cast<std::uintptr_t>(a), reinterpret_cast<std::uintptr_t>(b)};
}

}  // namespace policyloader
