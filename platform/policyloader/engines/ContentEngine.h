// ContentEngine: searches subjects, headers, texts and names of attachments for what the policy's rules say.
// Each rule counts once for an object, with its weight; at the threshold the engine has a result.
// Owner: the scan thread.  Threads: its own.  Failure: EngineFailure, as every engine.
#pragma once

#include <memory>
#include <vector>

#include <policyloader/engines/Engine.h>

namespace policyloader {

class ContentEngine final : public Engine {
public:
    explicit ContentEngine(PatternScratch& scratch) : m_scratch(scratch) {}

    char const* name() const override { return kContentName; }
    EngineType type() const override { return EngineType::Content; }
    bool begin(ScanPlan const& plan) override;
    void head(EntityHead const& head, Component& component) override;
    std::unique_ptr<ComponentScan> open(EntityHead const& head, Component& component) override;
    void report(ResultSet& results) override;

private:
    class Search;
    class BodyScan;

    struct Match {
        Component* component = nullptr;  // where the rule matched first; null: nowhere
        bool inHead = false;             // also in the header of a message, which no part can be cut out of
    };
    void matched(std::size_t rule, Where where, Component& component);
    void searchText(Where where, std::string_view text, Component& component);
    void searchHeader(EntityHead const& head, Component& component);
    std::string const& actionOf(std::size_t rule) const;

    PatternScratch& m_scratch;
    ScanPlan const* m_plan = nullptr;
    std::shared_ptr<ContentRules const> m_rules;  // the scratch fits these
    std::vector<Match> m_matches;                 // by rule
};

}  // namespace policyloader
