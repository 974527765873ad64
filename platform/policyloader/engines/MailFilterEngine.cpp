#include <policyloader/engines/MailFilterEngine.h>

#include <algorithm>

#include <eFabric/Property.h>
#include <eFabric/SessionNames.h>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/HeaderText.h>
#include <policyloader/engines/ResultSet.h>
#include <policyloader/engines/TextCase.h>
#include <policyloader/engines/TextDecoder.h>

namespace policyloader {
namespace {

constexpr std::size_t kMostNamed = 10;    // in a description
constexpr std::size_t kMostNames = 1000;  // of one attachment
constexpr char kMailType[] = "message/rfc822";

bool IsAddressField(std::string_view name) {
    return SameText(name, "To") || SameText(name, "Cc") || SameText(name, "Bcc");
}

// What stands in archives is a file's affair.
bool IsInArchive(Component const& component) {
    for (auto const* at = &component; at; at = static_cast<Component const*>(at->GetParent()))
        if (at->kind() == Component::Entry) return true;
    return false;
}

bool IsAttachment(EntityHead const& head, Component const& component) {
    if (head.multipart || IsInArchive(component)) return false;
    return head.message || head.attached || !head.fileName.empty() || head.type != "text";
}

}  // namespace

class MailFilterEngine::SizeScan final : public ComponentScan {
public:
    explicit SizeScan(MailFilterEngine& engine) : m_engine(engine) {}
    void data(std::string_view piece) override { m_engine.m_facts.size += piece.size(); }
    void end() override {}

private:
    MailFilterEngine& m_engine;
};

// Keeps what the kind is told by.
class MailFilterEngine::AttachmentScan final : public ComponentScan {
public:
    AttachmentScan(MailFilterEngine& engine, std::size_t attachment) : m_engine(engine), m_attachment(attachment) {}
    void data(std::string_view piece) override {
        m_size += piece.size();
        if (m_engine.m_rules->needTypes() && m_head.size() < FileTypes::kHeadBytes)
            m_head.append(piece.substr(0, FileTypes::kHeadBytes - m_head.size()));
    }
    // A content in several encodings is what any of them makes of it.
    void end() override {
        auto& attachment = m_engine.m_facts.attachments[m_attachment];
        attachment.size = std::max(attachment.size, m_size);
        if (!m_engine.m_rules->needTypes()) return;
        auto const types = m_engine.m_types.of(m_head);
        attachment.types.insert(attachment.types.begin(), types.begin(), types.end());
    }

private:
    MailFilterEngine& m_engine;
    std::size_t m_attachment;
    std::string m_head;
    std::uint64_t m_size = 0;
};

bool MailFilterEngine::begin(ScanPlan const& plan) {
    m_plan = &plan;
    m_facts = {};
    m_message = nullptr;
    m_placed.clear();
    if (!plan.mail.isOn || !plan.unpack) return false;
    if (!plan.mail.rules->error().empty()) throw EngineFailure(FailureId::Rules, plan.mail.rules->error());
    if (m_rules != plan.mail.rules) plan.mail.rules->fit(m_scratch);
    m_rules = plan.mail.rules;
    m_measures = m_rules->needSize();
    return true;
}

// The first look alone: others are of the same object.
std::unique_ptr<ComponentScan> MailFilterEngine::object(Component&) {
    if (!m_measures) return nullptr;
    m_measures = false;
    return std::make_unique<SizeScan>(*this);
}

void MailFilterEngine::readHeader(EntityHead const& head) {
    m_facts.header = m_rules->fitHeader(head.fields, m_scratch);
    m_facts.fields = head.fields.size();
    if (m_rules->needRecipients()) m_facts.recipients = recipients(head);
}

// Those of the envelope, which the header need not name; where nobody tells of one, those of the header.
std::uint64_t MailFilterEngine::recipients(EntityHead const& head) const {
    auto const* const told = m_plan->session ? m_plan->session->GetProperty(eFabric::session::kRecipients) : nullptr;
    if (told) return told->GetCount();
    std::uint64_t count = 0;
    for (auto const& [name, value] : head.fields)
        if (IsAddressField(name)) count += CountAddresses(value);
    return count;
}

void MailFilterEngine::head(EntityHead const& head, Component& component) {
    if (head.ofMessage && !m_message && component.depth() == 1) {
        m_message = &component;
        readHeader(head);
    }
    if (m_rules->needAttachments() && IsAttachment(head, component)) addAttachment(head, component);
}

void MailFilterEngine::addNames(EntityHead const& head, Attachment& attachment) {
    for (auto const& name : head.names) {
        auto text = ToCleanUtf8(name);
        auto& names = attachment.names;
        bool const known = std::find(names.begin(), names.end(), text) != names.end();
        if (!known && names.size() < kMostNames) names.push_back(std::move(text));
    }
}

void MailFilterEngine::addAttachment(EntityHead const& head, Component& component) {
    m_placed[&component] = m_facts.attachments.size();
    auto& attachment = m_facts.attachments.emplace_back(Attachment{&component, {}, {}, 0});
    addNames(head, attachment);
    if (head.message) attachment.types.emplace_back(kMailType);
    attachment.types.push_back(head.type + "/" + head.subtype);
}

// A content in a text that is no attachment, and yet has a name, is one: some readers show uuencoded files so.
std::unique_ptr<ComponentScan> MailFilterEngine::open(EntityHead const& head, Component& component) {
    if (!m_rules->needAttachments()) return nullptr;
    auto const at = m_placed.find(&component);
    bool const placed = at != m_placed.end();
    if (!placed && (head.names.empty() || head.multipart || IsInArchive(component))) return nullptr;
    auto const id = placed ? at->second : m_facts.attachments.size();
    if (!placed) m_facts.attachments.push_back({&component, {}, {}, 0});
    addNames(head, m_facts.attachments[id]);
    return std::make_unique<AttachmentScan>(*this, id);
}

// What could be known only when the message had ended.
void MailFilterEngine::complete() {
    auto const& range = m_message->range();
    if (range.known) m_facts.headerSize = range.bodyBegin - range.headBegin;
    for (auto& attachment : m_facts.attachments) {
        auto const& place = attachment.component->range();
        // The content of a message that is none of its encodings was walked and never shown.
        if (attachment.size == 0 && place.known) attachment.size = place.bodyEnd - place.bodyBegin;
    }
}

std::string const& MailFilterEngine::actionOf(MailFinding const& finding) const {
    auto const& action = m_rules->rule(finding.rule).action;
    return action.empty() ? m_plan->mail.action : action;
}

// What the rule limits, and what it is.
std::string MailFilterEngine::measured(MailFinding const& finding) const {
    auto const& rule = m_rules->rule(finding.rule);
    std::string out;
    auto const tell = [&](bool limited, std::uint64_t number, char const* what) {
        if (limited) out.append(out.empty() ? "" : ", ").append(std::to_string(number)).append(what);
    };
    tell(rule.fields.has_value(), m_facts.fields, " header fields");
    tell(rule.headerSize.has_value(), m_facts.headerSize, " bytes of header");
    tell(rule.size.has_value(), m_facts.size, " bytes");
    tell(rule.recipients.has_value(), m_facts.recipients, " recipients");
    tell(rule.attachments.has_value(), finding.attachments.size(), " attachments");
    return out;
}

std::string MailFilterEngine::describe(std::vector<MailFinding> const& findings) const {
    std::string out;
    std::size_t told = 0;
    for (auto const& finding : findings) {
        if (++told > kMostNamed) return out + ", and others";
        out.append(out.empty() ? "" : ", ").append(m_rules->rule(finding.rule).name);
        auto const& about = finding.attachments;
        bool const named = !about.empty() && !m_facts.attachments[about.front()].names.empty();
        if (named) out.append(": ").append(m_facts.attachments[about.front()].names.front());
        if (named && about.size() > 1) out.append(" and ").append(std::to_string(about.size() - 1)).append(" more");
        if (auto const numbers = measured(finding); !numbers.empty()) out.append(" (").append(numbers).append(")");
    }
    return out;
}

// Where something is replaced, what weaker rules speak of stays.
void MailFilterEngine::fill(EngineResult& result, std::vector<MailFinding> const& findings) const {
    bool const replaces = result.wantsReplacing();
    for (auto const& finding : findings) {
        result.addName(m_rules->rule(finding.rule).name);
        if (replaces && !EngineResult::replaces(actionOf(finding))) continue;
        for (auto const attachment : finding.attachments)
            result.addComponent(*m_facts.attachments[attachment].component);
        if (!finding.attachments.empty()) continue;
        result.addComponent(*m_message);
        if (replaces) result.forbidReplacing();
    }
}

void MailFilterEngine::report(ResultSet& results) {
    if (!m_message) return;
    complete();
    auto const findings = m_rules->judge(m_facts, m_scratch);
    if (findings.empty()) return;
    auto const* strongest = &findings.front();
    for (auto const& finding : findings)
        if (m_plan->isStronger(actionOf(finding), actionOf(*strongest))) strongest = &finding;
    auto& result = results.add(name(), type());
    result.setAction(actionOf(*strongest));
    fill(result, findings);
    result.setDescription(describe(findings));
}

}  // namespace policyloader
