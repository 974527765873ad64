// FormatRules: what a policy says about kinds and names of files, compiled. Of several rules that fit a file the first
// one counts, so that an exception stands before what it is excepted from.
// Owner: shared, immutable; any thread.  Units: bytes.
// Failure: an error(), as every RuleSet.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <policyloader/engines/RulePatterns.h>
#include <policyloader/engines/RuleSet.h>
#include <policyloader/engines/RuleText.h>
#include <policyloader/engines/RulesCache.h>

namespace policyloader {

struct FormatRule : RuleHead {
    std::vector<std::string> types;  // MIME types, or their beginnings with a "*"
    bool hasNames = false;
    std::uint64_t above = 0;  // bytes; fits what is larger
};

// What is known of one file.
struct FileFacts {
    std::vector<std::string> names;  // UTF-8; each that some reader may take for it
    std::vector<std::string> types;  // the most certain first; empty: not yet known
    std::uint64_t size = 0;
};

class FormatRules : public RuleSet<FormatRule> {
public:
    explicit FormatRules(std::vector<Rule const*> const& rules);

    bool needTypes() const { return m_needTypes; }
    PatternDatabase const* names() const { return m_names.database(); }  // null: no rule has names
    // The first rule that fits; size(): none. The scratch fits names().
    std::size_t firstFor(FileFacts const& file, PatternScratch const& scratch) const;

private:
    void add(Rule const& rule);

    FileNamePatterns m_names;
    bool m_needTypes = false;
};

class FormatCache final : public RulesCache<FormatRules> {};

}  // namespace policyloader
