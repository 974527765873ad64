// RulesCache: compiled rules by what they say, so that policies, identities and reloads with the same rules share one
// set; each is compiled once.  Owner: the engine host.  Threads: any, it locks for itself.
// Failure: what compiling throws; rules that cannot be used hold an error themselves.
#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <policyloader/store/Rule.h>

namespace policyloader {

template <class Rules>
class RulesCache {
public:
    using Maker = std::function<std::vector<Rule const*>()>;
    // `make` is asked for the rules only when the key is new. Never null.
    std::shared_ptr<Rules const> get(std::uint64_t key, Maker const& make) {
        auto const found = slot(key);
        std::call_once(found->once, [&] { found->rules = compile(make()); });
        return found->rules;
    }
    std::size_t compiled() const {  // sets so far
        std::lock_guard<std::mutex> const guard(m_mutex);
        return m_compiled;
    }

private:
    static constexpr std::size_t kMaxSets = 256;
    struct Slot {
        std::once_flag once;
        std::shared_ptr<Rules const> rules;
    };

    // Compiling wants a deeper stack than the thread of a session has.
    static std::shared_ptr<Rules const> compile(std::vector<Rule const*> const& rules) {
        if (rules.empty()) return std::make_shared<Rules>(rules);
        return std::async(std::launch::async, [&] { return std::make_shared<Rules>(rules); }).get();
    }

    std::shared_ptr<Slot> slot(std::uint64_t key) {
        std::lock_guard<std::mutex> const guard(m_mutex);
        auto const at = m_slots.find(key);
        if (at != m_slots.end()) return at->second;
        // Reloads with ever new rules must not fill the memory; who still scans with an old set keeps it alive.
        if (m_slots.size() >= kMaxSets) m_slots.clear();
        ++m_compiled;
        return m_slots.emplace(key, std::make_shared<Slot>()).first->second;
    }

    mutable std::mutex m_mutex;
    // Guarded by m_mutex.
    std::unordered_map<std::uint64_t, std::shared_ptr<Slot>> m_slots;
    std::size_t m_compiled = 0;
};

}  // namespace policyloader
