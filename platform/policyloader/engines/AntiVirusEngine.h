// AntiVirusEngine: searches the object and each decoded part for the signatures.
// Owner: the scan thread.  Threads: its own.  Failure: EngineFailure, as every engine.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <policyloader/engines/Engine.h>
#include <policyloader/engines/SignatureDatabase.h>

namespace policyloader {

class AntiVirusEngine final : public Engine {
public:
    // A null database is a failure of every scan: nothing could be searched for.
    AntiVirusEngine(std::shared_ptr<SignatureDatabase const> database, PatternScratch& scratch);

    char const* name() const override { return kAntiVirusName; }
    EngineType type() const override { return EngineType::AntiVirus; }
    bool begin(ScanPlan const& plan) override;
    std::unique_ptr<ComponentScan> object(Component& component) override;
    std::unique_ptr<ComponentScan> open(EntityHead const& head, Component& component) override;
    void report(ResultSet& results) override;

    bool foundAnything() const { return !m_findings.empty(); }

private:
    class Scan;
    struct Finding {
        std::string const* name;  // the database's
        Component* component;
    };

    std::shared_ptr<SignatureDatabase const> const m_database;
    PatternScratch& m_scratch;
    ScanPlan const* m_plan = nullptr;
    std::vector<Finding> m_findings;
};

}  // namespace policyloader
