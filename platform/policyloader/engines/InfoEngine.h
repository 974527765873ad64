// InfoEngine: has the policy's disclaimer added to the texts of a mail that a reader is shown: in both forms of one
// that comes in two, once, and never where that would break a signature. It looks at the mail during the scan; what it
// asks for is written with the new object, and then it tells what came of it. Owner: the scan thread.  Threads: its
// own.  Failure: EngineFailure, as every engine.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <policyloader/engines/Engine.h>
#include <policyloader/engines/TextPart.h>

namespace policyloader {

// What a result of this engine tells, as "E_SR_INFORESULTTYPE".
enum class InfoKind : unsigned long {
    None = 0,
    Signed = 1,     // left alone: adding would break a signature, or what is encrypted
    NoText = 2,     // left alone: there is no text that is shown
    Unchanged = 3,  // left alone: the text cannot be added to without harm
    Present = 4,    // an answer that quotes it, or it was added before
    Added = 5,
};

class InfoEngine final : public Engine {
public:
    char const* name() const override { return kInfoName; }
    EngineType type() const override { return EngineType::Info; }
    bool begin(ScanPlan const& plan) override;
    void head(EntityHead const& head, Component& component) override;
    std::unique_ptr<ComponentScan> open(EntityHead const& head, Component& component) override;
    void report(ResultSet&) override {}  // only when the new object stands: conclude()

    // After the scan: what is to be written.
    std::vector<TextEdit> edits();
    // Adds the result: `written` of the edits are in the new object.
    void conclude(ResultSet& results, std::size_t written);

private:
    class Scan;
    struct Frame {  // a multipart
        Component* component;
        bool alternative;
        bool report;
        std::vector<std::string> boundaries;
        IKORScanPolContextElement const* shown = nullptr;  // the child with the text that is shown
    };

    bool isInner(Component const& component) const;
    void lookForSignature(EntityHead const& head);
    std::vector<Frame*> framesAround(Component const& component);
    bool isShown(TextPart const& part);
    std::vector<TextPart const*> shownParts();
    void settle(InfoKind kind, char const* text);

    Disclaimer const* m_disclaimer = nullptr;
    Component* m_message = nullptr;  // null: the object is no message
    std::deque<TextPart> m_parts;    // in the order met
    std::map<long, Frame> m_frames;  // by the component's index
    std::string m_signed;            // in what way it is
    InfoKind m_kind = InfoKind::None;
    std::string m_text;
};

}  // namespace policyloader
