// AntiVirusEngine: searches the object and each decoded part for the signatures, and asks the virus scan servers of the
// policy about the object; where the policy wants infected parts replaced, about each part too.
// Owner: the scan thread.  Threads: its own.
// Failure: EngineFailure, as every engine; when a server fails, what was found without it is reported all the same.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <policyloader/engines/ClamdScan.h>
#include <policyloader/engines/Engine.h>
#include <policyloader/engines/SignatureDatabase.h>

namespace policyloader {

class AntiVirusEngine final : public Engine {
public:
    // A null database is a failure of every scan: nothing could be searched for.
    AntiVirusEngine(std::shared_ptr<SignatureDatabase const> database, PatternScratch& scratch,
                    std::shared_ptr<ClamdServers> servers);

    char const* name() const override { return kAntiVirusName; }
    EngineType type() const override { return EngineType::AntiVirus; }
    bool begin(ScanPlan const& plan) override;
    std::unique_ptr<ComponentScan> object(Component& component) override;
    std::unique_ptr<ComponentScan> open(EntityHead const& head, Component& component) override;
    void report(ResultSet& results) override;

    bool foundAnything() const { return !m_findings.empty(); }

private:
    class Scan;
    class ServerScan;
    struct Finding {
        std::string name;
        Component* component;
    };
    template <class Call>
    void asking(Call&& call);
    std::unique_ptr<ClamdScan> ask();
    void conclude(ClamdScan& question, Component& component);
    void reportFindings(ResultSet& results);

    std::shared_ptr<SignatureDatabase const> const m_database;
    PatternScratch& m_scratch;
    std::shared_ptr<ClamdServers> const m_servers;
    ScanPlan const* m_plan = nullptr;
    std::vector<Finding> m_findings;
    Patience m_patience{0};
    bool m_asked = false;                    // about the object
    std::unique_ptr<ClamdScan> m_question;   // about the object, of which the answer is still to come
    std::optional<EngineFailure> m_failure;  // of a server; no other question is asked then
};

}  // namespace policyloader
