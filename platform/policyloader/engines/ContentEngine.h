// ContentEngine: searches subjects, headers, texts and names of attachments for what the policy's rules say.
// Each rule counts once for an object, with its weight; at the threshold the engine has a result.
// Owner: the scan thread.  Threads: its own.  Failure: EngineFailure, as every engine.
#pragma once

#include <memory>
#include <string>

#include <policyloader/engines/Engine.h>
#include <policyloader/engines/RuleSearch.h>

namespace policyloader {

class ContentEngine final : public Engine {
public:
    explicit ContentEngine(PatternScratch& scratch) : m_search(scratch) {}

    char const* name() const override { return kContentName; }
    EngineType type() const override { return EngineType::Content; }
    bool begin(ScanPlan const& plan) override;
    void head(EntityHead const& head, Component& component) override { m_search.head(head, component); }
    std::unique_ptr<ComponentScan> open(EntityHead const& head, Component& component) override {
        return m_search.open(head, component);
    }
    void report(ResultSet& results) override;

private:
    std::string const& actionOf(std::size_t rule) const;

    ScanPlan const* m_plan = nullptr;
    RuleSearch m_search;
};

}  // namespace policyloader
