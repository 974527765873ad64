#include <policyloader/engines/ScanObject.h>

#include <string>

#include <policyloader/engines/Inspection.h>
#include <policyloader/engines/Marks.h>
#include <policyloader/engines/OutputBuilder.h>

namespace policyloader {
namespace {

constexpr char kRefusal[] = "DENY";
constexpr char kFallbackHost[] = "DefaultFormatPlugin";

}  // namespace

ScanObject::ScanObject(std::shared_ptr<ThreadState> state, eFabric::IStreamTransport& in, InternedString identity)
    : m_state(std::move(state)), m_in(in), m_policy(m_state->policy), m_identity(identity) {}

SettingsView ScanObject::view(ScanTime const* time) const {
    std::time_t when = time ? time->Get() : 0;
    if (when == 0 && m_state->timeSource) when = m_state->timeSource();
    return m_state->settings.view(m_policy, m_identity, when);
}

IScanResultHandler const* ScanObject::Scan(eFabric::IStreamTransport* out, ScanTime* time) {
    try {
        m_results.clear();
        scan(out, time);
    } catch (...) {
        m_results.addFailure(kFormatName, EngineType::Format);
    }
    return &m_results;
}

void ScanObject::scan(eFabric::IStreamTransport* out, ScanTime const* time) {
    ScanPlan plan(view(time), m_state->selection, *m_state->caches);
    plan.unpack = !isFallback();
    plan.session = substitutions();
    plan.disclaimer.enabled &= isMail();
    plan.disclaimer.fill(
        [&](std::string const& name, std::string& text) { return HostsText(plan.session, name, text); });
    auto engines = judges();
    engines.push_back(&m_state->info);
    Inspection(plan, engines, m_results, m_state->buffer).run(m_in);
    escalate(!out && m_in.IsReadOnly());
    m_results.decide(plan);
    produce(plan, out);
}

std::vector<Engine*> ScanObject::judges() const {
    return {&m_state->format, &m_state->antiVirus, &m_state->content, &m_state->mail, &m_state->spam};
}

// What asks for a replacement that cannot be made is refused instead.
void ScanObject::escalate(bool all) {
    for (auto* const result : m_results.triggered())
        if (result->wantsReplacing() && (all || !result->canReplace())) result->setAction(kRefusal);
}

void ScanObject::produce(ScanPlan const& plan, eFabric::IStreamTransport* out) {
    auto const* const master = static_cast<EngineResult const*>(m_results.GetMasterScanResult());
    bool const replaces = master && master->wantsReplacing();
    bool const passes = !m_results.hasError() && !(master && master->action() == kRefusal);
    OutputBuilder builder(plan, substitutions(), m_state->buffer);
    if (replaces) builder.replace(m_results);
    auto const edits = passes ? additions() : std::vector<TextEdit>();
    if (out || !m_in.IsReadOnly()) builder.add(edits);
    if (builder.changes())
        builder.build(m_in, out);
    else if (out && !replaces && isSet("ES_CHANGED_OUTPUT_ONLY"))
        m_in.GetPropertyBag()->NewProperty("ES_OUTPUT_LEFT_OUT")->SetLong(1);
    else if (out)
        CopyObject(m_in, *out, m_state->buffer);
    m_results.setModified(builder.changes());
    if (replaces && !isClean(plan, out ? *out : m_in)) {
        escalate(true);
        m_results.decide(plan);
        return;
    }
    for (auto* const result : m_results.triggered())
        if (replaces && result->wantsReplacing()) result->setCleaned();
    if (passes) m_state->info.conclude(m_results, builder.edited());
}

// Nobody has seen all of an object that is beyond a limit.
std::vector<TextEdit> ScanObject::additions() {
    long position = 0;
    for (auto const* one = m_results.FindFirstScanResult(position); one; one = m_results.FindNextScanResult(position))
        if (one->GetPropertyBag()->GetProperty("E_SR_DOS_TYPE")) return {};
    return m_state->info.edits();
}

// The web's objects are not mail, whatever they look like.
bool ScanObject::isMail() const { return !isSet("ES_CONTEXT_HTTP"); }

bool ScanObject::isSet(char const* name) const {
    auto const* const bag = m_in.GetPropertyBag();
    auto const* const property = bag ? bag->GetProperty(name) : nullptr;
    long value = 0;
    return property && property->GetLong(value) && value != 0;
}

// Looks at the new object as at any other: what asked for a replacement must be gone from it.
bool ScanObject::isClean(ScanPlan const& plan, eFabric::IStreamTransport& made) {
    ResultSet again;
    Inspection(plan, judges(), again, m_state->buffer).run(made);
    for (auto* const result : again.triggered())
        if (result->wantsReplacing()) return false;
    return !again.hasError();
}

bool ScanObject::IsSettingOn(char const* setting, ScanTime* time) {
    std::string_view rest = setting ? setting : "";
    std::size_t const first = rest.find(':');
    if (first == std::string_view::npos) return true;
    rest.remove_prefix(first + 1);
    return view(time).flag(rest.substr(0, rest.find(':')), "Enabled", true);
}

bool ScanObject::isFallback() const {
    auto const* const bag = m_in.GetPropertyBag();
    auto const* const host = bag ? bag->GetProperty("ES_FORCEDHOST") : nullptr;
    char const* const text = host ? host->GetNarrow() : nullptr;
    return text && std::string_view(text) == kFallbackHost;
}

IKORPropertyBag const* ScanObject::substitutions() const {
    auto const* const bag = m_in.GetPropertyBag();
    auto const* const property = bag ? bag->GetProperty("ES_SCANRESSUBSTITUTIONS") : nullptr;
    return property ? property->GetBag() : nullptr;
}

}  // namespace policyloader
