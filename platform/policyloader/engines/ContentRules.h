// ContentRules: the phrases and expressions of one policy, compiled for each context; ContentCache keeps them by what
// they say, so that policies, identities and reloads with the same rules share one.
// Owner: shared, immutable; any thread.  The cache locks for itself, and compiles each set once.
// Failure: rules that cannot be used hold an `error`; the engine reports it with each object, for nothing was searched.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <policyloader/engines/PatternDatabase.h>
#include <policyloader/store/Rule.h>

namespace policyloader {

enum class Where : unsigned { Subject, Header, Body, Attachment };
inline constexpr std::size_t kWheres = 4;

struct ContentRule {
    std::string name;
    std::string action;  // empty: the section's
    double weight = 1;
};

class ContentRules {
public:
    explicit ContentRules(std::vector<Rule const*> const& rules);

    std::string const& error() const { return m_error; }
    ContentRule const& rule(std::size_t id) const { return m_rules[id]; }
    std::size_t size() const { return m_rules.size(); }
    PatternDatabase const* patterns(Where where) const { return at(where).database.get(); }  // null: no such rule
    std::size_t ruleOf(Where where, unsigned pattern) const { return at(where).rules[pattern]; }

private:
    struct Context {
        std::vector<Pattern> patterns;
        std::vector<std::size_t> rules;  // by pattern
        std::unique_ptr<PatternDatabase const> database;
    };
    Context const& at(Where where) const { return m_contexts[static_cast<std::size_t>(where)]; }
    void add(Rule const& rule);
    void compile(std::vector<Rule const*> const& rules);

    std::vector<ContentRule> m_rules;
    std::array<Context, kWheres> m_contexts;
    std::string m_error;
};

class ContentCache {
public:
    using Maker = std::function<std::vector<Rule const*>()>;
    // `make` is asked for the rules only when the key is new. Never null.
    std::shared_ptr<ContentRules const> get(std::uint64_t key, Maker const& make);
    std::size_t compiled() const;  // sets compiled so far

private:
    struct Slot {
        std::once_flag once;
        std::shared_ptr<ContentRules const> rules;
    };
    std::shared_ptr<Slot> slot(std::uint64_t key);

    mutable std::mutex m_mutex;
    // Guarded by m_mutex.
    std::unordered_map<std::uint64_t, std::shared_ptr<Slot>> m_slots;
    std::size_t m_compiled = 0;
};

// A phrase as an expression: its letters as they are, a blank for any run of white space, so that a wrapped line
// counts.
std::string PhraseExpression(std::string_view phrase);

}  // namespace policyloader
