#include <policyloader/engines/InfoEngine.h>

#include <algorithm>
#include <cctype>

#include <policyloader/engines/HeadFields.h>
#include <policyloader/engines/ResultSet.h>
#include <policyloader/engines/TextCase.h>

namespace policyloader {
namespace {

struct SignedType {
    std::string_view prefix;
    char const* text;
};
constexpr SignedType kSignedTypes[] = {
    {"multipart/signed", "signed mail"},
    {"multipart/encrypted", "encrypted mail"},
    {"application/pkcs7-mime", "S/MIME"},
    {"application/x-pkcs7-mime", "S/MIME"},
    {"application/pkcs7-signature", "S/MIME signature"},
    {"application/x-pkcs7-signature", "S/MIME signature"},
    {"application/pgp-encrypted", "PGP/MIME"},
    {"application/pgp-signature", "PGP signature"},
};

std::string Lower(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower;
}

bool IsAttached(EntityHead const& head) {
    if (!head.fileName.empty()) return true;
    return std::any_of(head.fields.begin(), head.fields.end(), [](EntityHead::Field const& field) {
        return SameText(field.first, "Content-Disposition") && Lower(field.second).substr(0, 10) == "attachment";
    });
}

}  // namespace

class InfoEngine::Scan final : public ComponentScan {
public:
    explicit Scan(TextPart& part) : m_part(part) {}
    void data(std::string_view piece) override { m_part.feed(piece); }
    void end() override { m_part.finish(); }

private:
    TextPart& m_part;
};

bool InfoEngine::begin(ScanPlan const& plan) {
    m_disclaimer = nullptr;
    m_message = nullptr;
    m_parts.clear();
    m_frames.clear();
    m_signed.clear();
    m_kind = InfoKind::None;
    m_text.clear();
    if (!plan.unpack || !plan.disclaimer.active()) return false;
    m_disclaimer = &plan.disclaimer;
    return true;
}

// Of the mail itself, and not of a message or an archive within it.
bool InfoEngine::isInner(Component const& component) const {
    if (!m_message || component.kind() == Component::Entry) return true;
    for (auto const* at = &component; at != m_message; at = static_cast<Component const*>(at->GetParent()))
        if (!at->GetParent() || at->kind() == Component::Message || at->kind() == Component::Entry) return true;
    return false;
}

void InfoEngine::head(EntityHead const& head, Component& component) {
    auto const* const parent = static_cast<Component const*>(component.GetParent());
    if (!m_message && component.kind() == Component::Message && parent && parent->kind() == Component::Object)
        m_message = &component;
    if (isInner(component)) return;
    lookForSignature(head);
    if (!head.multipart) return;
    auto& frame = m_frames[component.GetComponentIndex()];
    frame.component = &component;
    frame.alternative = head.subtype == "alternative";
    frame.report = head.subtype == "report";
    frame.boundaries = head.boundaries;
}

void InfoEngine::lookForSignature(EntityHead const& head) {
    if (!m_signed.empty()) return;
    for (auto const& [name, value] : head.fields) {
        if (SameText(name, "DKIM-Signature") && m_disclaimer->leaveDkim && head.ofMessage) m_signed = "DKIM";
        if (!SameText(name, "Content-Type")) continue;
        for (auto const& type : kSignedTypes)
            if (Lower(value).substr(0, type.prefix.size()) == type.prefix) m_signed = type.text;
    }
    if (TextEnds(head.fileName, ".p7m") || TextEnds(head.fileName, ".p7s")) m_signed = "S/MIME";
}

// A content that is undone in several ways is opened several times, and so is what is found encoded in a text: the
// first one is the text itself.
std::unique_ptr<ComponentScan> InfoEngine::open(EntityHead const& head, Component& component) {
    bool const text = head.type == "text" && (head.subtype == "plain" || head.subtype == "html") && !head.multipart;
    if (!text || head.message || isInner(component) || IsAttached(head)) return nullptr;
    if (!m_parts.empty() && &m_parts.back().component() == &component) return nullptr;
    return std::make_unique<Scan>(m_parts.emplace_back(head, component, *m_disclaimer));
}

std::vector<InfoEngine::Frame*> InfoEngine::framesAround(Component const& component) {
    std::vector<Frame*> frames;
    for (auto const* at = component.GetParent(); at; at = at->GetParent()) {
        auto const found = m_frames.find(at->GetComponentIndex());
        if (found != m_frames.end()) frames.push_back(&found->second);
    }
    return frames;
}

// Of the children of a multipart the first one with a text is what a reader takes for the mail; of alternatives each.
bool InfoEngine::isShown(TextPart const& part) {
    IKORScanPolContextElement const* child = &part.component();
    auto const frames = framesAround(part.component());
    std::vector<std::pair<Frame*, IKORScanPolContextElement const*>> taken;
    for (auto* const frame : frames) {
        while (child->GetParent() != frame->component) child = child->GetParent();
        if (frame->report || (!frame->alternative && frame->shown && frame->shown != child)) return false;
        taken.emplace_back(frame, child);
    }
    for (auto const& [frame, of] : taken) frame->shown = of;
    return true;
}

std::vector<TextPart const*> InfoEngine::shownParts() {
    std::vector<TextPart const*> shown;
    for (auto const& part : m_parts)
        if (isShown(part)) shown.push_back(&part);
    auto const unwanted = [&](TextPart const* part) {
        return part->isHtml() ? !m_disclaimer->wantsHtml() : !m_disclaimer->wantsText();
    };
    shown.erase(std::remove_if(shown.begin(), shown.end(), unwanted), shown.end());
    return shown;
}

void InfoEngine::settle(InfoKind kind, char const* text) {
    m_kind = kind;
    m_text = text;
}

std::vector<TextEdit> InfoEngine::edits() {
    std::vector<TextEdit> made;
    if (!m_disclaimer || !m_message) return made;
    auto const any = [&](bool (TextPart::*is)() const) {
        return std::any_of(m_parts.begin(), m_parts.end(), [&](TextPart const& part) { return (part.*is)(); });
    };
    if (m_signed.empty() && any(&TextPart::isPgp)) m_signed = "PGP";
    if (!m_signed.empty()) settle(InfoKind::Signed, ("left alone: " + m_signed).c_str());
    if (m_kind == InfoKind::None && m_disclaimer->once && any(&TextPart::carries))
        settle(InfoKind::Present, "carried already");
    if (m_kind != InfoKind::None) return made;
    auto const shown = shownParts();
    settle(shown.empty() ? InfoKind::NoText : InfoKind::Unchanged,
           shown.empty() ? "left alone: no text" : "left alone: the text cannot be added to");
    for (auto const* const part : shown) {
        std::vector<std::string> boundaries;
        for (auto const* const frame : framesAround(part->component())) {
            boundaries.insert(boundaries.end(), frame->boundaries.begin(), frame->boundaries.end());
            if (frame->boundaries.empty()) boundaries.emplace_back();
        }
        if (auto edit = part->edit(boundaries)) made.push_back(std::move(*edit));
    }
    return made;
}

void InfoEngine::conclude(ResultSet& results, std::size_t written) {
    if (written > 0) settle(InfoKind::Added, "disclaimer added");
    if (m_kind == InfoKind::None) return;
    auto& result = results.add(name(), type());
    result.GetPropertyBag()->NewProperty("E_SR_INFORESULTTYPE")->SetULong(static_cast<unsigned long>(m_kind));
    result.setDescription(m_text);
}

}  // namespace policyloader
