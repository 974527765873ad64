// SpamEngine: how much a message looks like unwanted mail: the score that a server gives it, or the sum of the weights
// of the policy's rules. It has a result for each object, and asks for its action from a threshold on.
// Owner: the scan thread.  Threads: its own.
// Failure: EngineFailure, as every engine; a server that does not judge is never replaced by the rules.
#pragma once

#include <memory>
#include <string>

#include <policyloader/engines/Engine.h>
#include <policyloader/engines/RuleSearch.h>
#include <policyloader/engines/ServerRota.h>
#include <policyloader/engines/SpamAnswer.h>

namespace policyloader {

class SpamEngine final : public Engine {
public:
    SpamEngine(PatternScratch& scratch, std::shared_ptr<ServerRota> servers)
        : m_search(scratch), m_servers(std::move(servers)) {}

    char const* name() const override { return kSpamName; }
    EngineType type() const override { return EngineType::AntiSpam; }
    bool begin(ScanPlan const& plan) override;
    std::unique_ptr<ComponentScan> object(Component& component) override;
    void head(EntityHead const& head, Component& component) override { m_search.head(head, component); }
    std::unique_ptr<ComponentScan> open(EntityHead const& head, Component& component) override {
        return m_search.open(head, component);
    }
    void report(ResultSet& results) override;

private:
    class Collector;
    SpamJudgement judgeByRules() const;
    bool asksServer() const;

    RuleSearch m_search;
    std::shared_ptr<ServerRota> const m_servers;
    ScanPlan const* m_plan = nullptr;
    std::string m_message;    // for the server
    bool m_collects = false;  // the object is still to come
    bool m_tooLarge = false;
};

}  // namespace policyloader
