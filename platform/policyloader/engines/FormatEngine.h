// FormatEngine: judges files by what they are and what they are called, by the policy's rules; and tells of archives
// that nobody can look into. What is unpacked, and the limits of that, are the inspection's.
// Owner: the scan thread.  Threads: its own.  Failure: EngineFailure, as every engine.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <policyloader/engines/Engine.h>
#include <policyloader/engines/FileTypes.h>
#include <policyloader/engines/FormatRules.h>

namespace policyloader {

class FormatEngine final : public Engine {
public:
    FormatEngine(PatternScratch& scratch, FileTypes& types) : m_scratch(scratch), m_types(types) {}

    char const* name() const override { return kFormatName; }
    EngineType type() const override { return EngineType::Format; }
    bool begin(ScanPlan const& plan) override;
    void head(EntityHead const& head, Component& component) override;
    std::unique_ptr<ComponentScan> open(EntityHead const& head, Component& component) override;
    void unreadable(Component& archive, Unreadable why, std::string const& text) override;
    void report(ResultSet& results) override;

private:
    class Scan;
    struct Finding {
        Component* component;
        std::string name;  // of the rule, or of what is wrong with an archive
        std::string action;
        std::string text;
    };
    struct Judged {
        Component* component;
        std::size_t rule;
        bool whole;  // by its content, too
    };

    void judge(Component& component, FileFacts file, bool whole);
    std::string const& actionOf(std::size_t rule) const;
    std::vector<Finding> findings() const;

    PatternScratch& m_scratch;
    FileTypes& m_types;
    ScanPlan const* m_plan = nullptr;
    std::shared_ptr<FormatRules const> m_rules;  // the scratch fits these
    std::map<long, Judged> m_judged;             // by the component's index; only those that a rule fits
    std::vector<Finding> m_unreadable;
};

}  // namespace policyloader
