// MailFilterEngine: judges a message by its header, its size, its recipients and its attachments, by the policy's
// rules. Owner: the scan thread.  Threads: its own.  Failure: EngineFailure, as every engine.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include <policyloader/engines/Engine.h>
#include <policyloader/engines/FileTypes.h>
#include <policyloader/engines/MailRules.h>

namespace policyloader {

class EngineResult;

class MailFilterEngine final : public Engine {
public:
    MailFilterEngine(PatternScratch& scratch, FileTypes& types) : m_scratch(scratch), m_types(types) {}

    char const* name() const override { return kMailFilterName; }
    EngineType type() const override { return EngineType::MailFilter; }
    bool begin(ScanPlan const& plan) override;
    std::unique_ptr<ComponentScan> object(Component& component) override;
    void head(EntityHead const& head, Component& component) override;
    std::unique_ptr<ComponentScan> open(EntityHead const& head, Component& component) override;
    void report(ResultSet& results) override;

private:
    class SizeScan;
    class AttachmentScan;

    void readHeader(EntityHead const& head);
    std::uint64_t recipients(EntityHead const& head) const;
    static void addNames(EntityHead const& head, Attachment& attachment);
    void addAttachment(EntityHead const& head, Component& component);
    void complete();
    void fill(EngineResult& result, std::vector<MailFinding> const& findings) const;
    std::string const& actionOf(MailFinding const& finding) const;
    std::string describe(std::vector<MailFinding> const& findings) const;
    std::string measured(MailFinding const& finding) const;

    PatternScratch& m_scratch;
    FileTypes& m_types;
    ScanPlan const* m_plan = nullptr;
    std::shared_ptr<MailRules const> m_rules;  // the scratch fits these
    MailFacts m_facts;
    Component* m_message = nullptr;                              // the outermost one; null: none was seen
    std::unordered_map<Component const*, std::size_t> m_placed;  // attachments by their component
    bool m_measures = false;                                     // the object is still to come
};

}  // namespace policyloader
