// StorePool: the parts that states of the store are made of, each kept once for as long as the pool. What comes again,
// in the same state or after a reload, is the same object: values, lists, rules and whole tables that did not change
// are shared by all states, and what a look-up has given is never freed under its reader.
// Owner: the store's states together, and who reloads them. Threads: one at a time; who holds a part may read it from
// any. Failure: std::bad_alloc; WindowError for a window that is none.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

#include <policyloader/store/StoreTables.h>

namespace policyloader {

template <class T>
class KeptOnce {
public:
    T const* keep(T made) { return &*m_all.insert(std::move(made)).first; }
    std::size_t size() const { return m_all.size(); }

private:
    struct Hash {
        std::size_t operator()(T const& part) const { return part.hash(); }
    };
    std::unordered_set<T, Hash> m_all;  // elements stay where they are
};

struct StorePool {
    KeptOnce<Value> values;
    KeptOnce<Rule> rules;
    std::map<std::string, Window, std::less<>> windows;  // by text
    KeptOnce<Chain> chains;
    KeptOnce<SettingTable> settings;
    KeptOnce<RuleBlock> ruleBlocks;
    KeptOnce<Actions> actions;
    KeptOnce<IdentityNames> identities;
    KeptOnce<Plan> plans;
    KeptOnce<KnownNames> names;
    KeptOnce<StoreTables> tables;

    Window const* window(std::string_view text) {
        auto const known = windows.find(text);
        return &(known != windows.end() ? known : windows.emplace(text, Window(text)).first)->second;
    }
};

}  // namespace policyloader
