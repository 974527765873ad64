// RulePatterns: the expressions of a set of rules for one kind of text, compiled together, and which rule each one is
// of. Owner: the set of rules; immutable once compiled, any thread. Failure: std::invalid_argument that names the rule;
// EngineFailure of the matcher.
#pragma once

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <policyloader/engines/PatternDatabase.h>
#include <policyloader/store/Rule.h>

namespace policyloader {

class RulePatterns {
public:
    // Before it is compiled. `id` is the rule's number in its set.
    void add(Rule const& rule, std::size_t id, std::string expression);
    // The attribute's expression, or its text as a pattern; in globs(): each of its patterns. False: none there.
    void addPattern(Rule const& rule, std::size_t id, char const* attribute);
    bool addGlobs(Rule const& rule, std::size_t id, char const* attribute);
    void compile();

    PatternDatabase const* database() const { return m_database.get(); }  // null: no rule has such a text
    std::size_t ruleOf(unsigned pattern) const { return m_ruleOf[pattern]; }
    // Adds the rules that fit the text, each once or more often. The scratch fits the database.
    void find(std::string_view text, PatternScratch const& scratch, std::vector<std::size_t>& rules) const;

private:
    std::vector<Pattern> m_patterns;  // until they are compiled
    std::vector<Rule const*> m_sources;
    std::vector<std::size_t> m_ruleOf;  // by pattern
    std::unique_ptr<PatternDatabase const> m_database;
};

// The same for names of files: whole and by their last step, the way that file systems take them.
class FileNamePatterns final : public RulePatterns {
public:
    bool addGlobs(Rule const& rule, std::size_t id, char const* attribute);
    // The rules that fit one of the names of a file. An exception has to fit them all, since each may be the one that
    // counts.
    std::vector<std::size_t> find(std::vector<std::string> const& names, PatternScratch const& scratch) const;

private:
    std::set<std::size_t> findOne(std::string const& name, PatternScratch const& scratch) const;

    std::set<std::size_t> m_exceptions;  // rules
};

// A text without ends of lines and other control characters, at which expressions would stop.
std::string OneLine(std::string_view text);

}  // namespace policyloader
