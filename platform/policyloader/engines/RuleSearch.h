// RuleSearch: searches subjects, headers, texts and names of attachments of one object for a set of rules.
// Owner: an engine.  Threads: the scan's.  Failure: EngineFailure, as every engine.
#pragma once

#include <memory>
#include <vector>

#include <policyloader/engines/ContentRules.h>
#include <policyloader/engines/Engine.h>

namespace policyloader {

class RuleSearch {
public:
    struct Match {
        Component* component = nullptr;  // where the rule matched first; null: nowhere
        bool inHead = false;             // also in the header of a message, which no part can be cut out of
    };

    explicit RuleSearch(PatternScratch& scratch) : m_scratch(scratch) {}

    void begin(std::shared_ptr<ContentRules const> const& rules);  // of a new object; without an error
    void head(EntityHead const& head, Component& component);
    std::unique_ptr<ComponentScan> open(EntityHead const& head, Component& component);
    Match const& match(std::size_t rule) const { return m_matches[rule]; }

private:
    class Search;
    class BodyScan;

    void matched(std::size_t rule, bool inHead, Component& component);
    void searchText(Where where, std::string_view text, Component& component);
    void searchHeader(EntityHead const& head, Component& component);
    void lookForMissing(EntityHead const& head, Component& component);

    PatternScratch& m_scratch;
    std::shared_ptr<ContentRules const> m_rules;  // the scratch fits these
    std::vector<Match> m_matches;                 // by rule
};

}  // namespace policyloader
