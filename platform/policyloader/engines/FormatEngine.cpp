#include <policyloader/engines/FormatEngine.h>

#include <algorithm>

#include <KORtk/Text.h>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/ResultSet.h>
#include <policyloader/engines/RuleText.h>
#include <policyloader/engines/TextDecoder.h>

namespace policyloader {
namespace {

constexpr std::size_t kMostNamed = 10;  // in a description

std::string NameOf(Component const& component) {
    auto const* const name = component.GetComponentName();
    return name ? ToCleanUtf8(KORtk::Utf8Array(name).str()) : std::string();
}

template <class Findings>
std::string Describe(Findings const& findings) {
    std::string out;
    std::size_t told = 0;
    for (auto const& finding : findings) {
        if (++told > kMostNamed) return out + ", and others";
        out.append(out.empty() ? "" : ", ").append(finding.name);
        auto const file = NameOf(*finding.component);
        if (!file.empty()) out.append(": ").append(file);
        if (!finding.text.empty()) out.append(" (").append(finding.text).append(")");
    }
    return out;
}

}  // namespace

// Keeps what the kind is told by.
class FormatEngine::Scan final : public ComponentScan {
public:
    Scan(FormatEngine& engine, EntityHead const& head, Component& component)
        : m_engine(engine), m_component(component), m_names(head.names) {}
    void data(std::string_view piece) override {
        m_size += piece.size();
        if (m_engine.m_rules->needTypes() && m_head.size() < FileTypes::kHeadBytes)
            m_head.append(piece.substr(0, FileTypes::kHeadBytes - m_head.size()));
    }
    void end() override {
        std::vector<std::string> types;
        if (m_engine.m_rules->needTypes()) types = m_engine.m_types.of(m_head);
        m_engine.judge(m_component, {std::move(m_names), std::move(types), m_size}, true);
    }

private:
    FormatEngine& m_engine;
    Component& m_component;
    std::vector<std::string> m_names;
    std::string m_head;
    std::uint64_t m_size = 0;
};

bool FormatEngine::begin(ScanPlan const& plan) {
    m_plan = &plan;
    m_judged.clear();
    m_unreadable.clear();
    if (!plan.format || !plan.unpack) return false;
    if (!plan.formatRules->error().empty()) throw EngineFailure(FailureId::Rules, plan.formatRules->error());
    if (m_rules != plan.formatRules && plan.formatRules->names()) m_scratch.fit(*plan.formatRules->names());
    m_rules = plan.formatRules;
    return true;
}

// By its name at once: the content of some is never seen.
void FormatEngine::head(EntityHead const& head, Component& component) {
    if (m_rules->size() == 0) return;
    std::vector<std::string> types;
    if (head.message) types.emplace_back("message/rfc822");
    judge(component, {head.names, std::move(types), 0}, false);
}

std::unique_ptr<ComponentScan> FormatEngine::open(EntityHead const& head, Component& component) {
    return m_rules->size() > 0 ? std::make_unique<Scan>(*this, head, component) : nullptr;
}

void FormatEngine::judge(Component& component, FileFacts file, bool whole) {
    for (auto& name : file.names) name = ToCleanUtf8(name);
    auto const rule = m_rules->firstFor(file, m_scratch);
    auto const at = m_judged.find(component.GetComponentIndex());
    bool const seen = at != m_judged.end();
    bool const keeps = seen && at->second.whole == whole &&
                       (rule == m_rules->size() || m_plan->isStronger(actionOf(at->second.rule), actionOf(rule)));
    if (keeps) return;
    if (rule < m_rules->size())
        m_judged[component.GetComponentIndex()] = {&component, rule, whole};
    else if (seen)
        m_judged.erase(at);
}

void FormatEngine::unreadable(Component& archive, Unreadable why, std::string const& text) {
    bool const encrypted = why == Unreadable::Encrypted;
    m_unreadable.push_back({&archive, encrypted ? "encrypted archive" : "broken archive",
                            encrypted ? m_plan->onEncrypted : m_plan->onBroken, encrypted ? "" : text});
}

std::string const& FormatEngine::actionOf(std::size_t rule) const {
    auto const& action = m_rules->rule(rule).action;
    return action.empty() ? m_plan->formatAction : action;
}

std::vector<FormatEngine::Finding> FormatEngine::findings() const {
    auto all = m_unreadable;
    for (auto const& [index, judged] : m_judged)
        all.push_back({judged.component, m_rules->rule(judged.rule).name, actionOf(judged.rule), ""});
    // What is allowed is told only where there is nothing else to tell.
    auto const allowed = [](Finding const& finding) { return finding.action == kAllowAction; };
    if (!std::all_of(all.begin(), all.end(), allowed))
        all.erase(std::remove_if(all.begin(), all.end(), allowed), all.end());
    return all;
}

void FormatEngine::report(ResultSet& results) {
    auto const all = findings();
    if (all.empty()) return;
    auto& result = results.add(name(), type());
    std::string const* action = &all.front().action;
    for (auto const& finding : all) {
        finding.action == kAllowAction ? result.addContext(*finding.component)
                                       : result.addComponent(*finding.component);
        result.addName(finding.name);
        if (m_plan->isStronger(finding.action, *action)) action = &finding.action;
    }
    result.setDescription(Describe(all));
    result.setAction(*action);
}

}  // namespace policyloader
