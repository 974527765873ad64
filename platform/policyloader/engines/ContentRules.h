// ContentRules: the phrases and expressions of one policy, compiled for each context.
// Owner: shared, immutable; any thread.  Failure: an error(), as every RuleSet.
#pragma once

#include <array>
#include <string>
#include <utility>
#include <vector>

#include <policyloader/engines/RulePatterns.h>
#include <policyloader/engines/RuleSet.h>
#include <policyloader/engines/RuleText.h>
#include <policyloader/engines/RulesCache.h>

namespace policyloader {

enum class Where : unsigned { Subject, Header, Body, Attachment };
inline constexpr std::size_t kWheres = 4;

struct ContentRule : RuleHead {
    double weight = 1;
};

class ContentRules : public RuleSet<ContentRule> {
public:
    explicit ContentRules(std::vector<Rule const*> const& rules);

    PatternDatabase const* patterns(Where where) const { return at(where).database(); }  // null: no such rule
    using Missing = std::pair<std::string, std::size_t>;  // the header field that has to be missing, and the rule
    std::vector<Missing> const& missing() const { return m_missing; }
    std::size_t ruleOf(Where where, unsigned pattern) const { return at(where).ruleOf(pattern); }

private:
    RulePatterns const& at(Where where) const { return m_contexts[static_cast<std::size_t>(where)]; }
    void add(Rule const& rule);
    void addPatterns(Rule const& rule);

    std::array<RulePatterns, kWheres> m_contexts;
    std::vector<Missing> m_missing;
};

class ContentCache final : public RulesCache<ContentRules> {};

}  // namespace policyloader
