#include "tools/velt-scan/Verdict.h"

#include <KORtk/Text.h>
#include <eFabric/Result.h>

#include <velt/connection/Connection.h>
#include <velt/results/ProcessScanResult.h>
#include <velt/scanning/ScanContext.h>

namespace velt_scan {
namespace {

constexpr unsigned long kInformation = 6;
constexpr int kCleaned = 2;
constexpr wchar_t kBetween = L'\x1e';  // stands in no name of a component or of a finding

std::string Narrow(wchar_t const* text) { return text ? KORtk::Utf8Array(text).str() : std::string(); }

std::vector<std::string> Split(std::string const& list) {
    std::vector<std::string> parts;
    for (std::size_t at = 0; at < list.size();) {
        std::size_t const end = std::min(list.find(static_cast<char>(kBetween), at), list.size());
        if (end > at) parts.push_back(list.substr(at, end - at));
        at = end + 1;
    }
    return parts;
}

IKORProperty const* Find(IKORScanResult const& result, char const* name) {
    IKORPropertyBag const* const bag = result.GetPropertyBag();
    return bag ? bag->GetProperty(name) : nullptr;
}

std::string Text(IKORScanResult const& result, char const* name) {
    IKORProperty const* const property = Find(result, name);
    return property ? Narrow(property->GetWide()) : std::string();
}

std::optional<unsigned long> Number(IKORScanResult const& result, char const* name) {
    IKORProperty const* const property = Find(result, name);
    unsigned long value = 0;
    if (!property || !property->GetULong(value)) return std::nullopt;
    return value;
}

std::vector<std::string> Actions(IKORScanResult const& result) {
    IKORProperty const* const property = Find(result, "E_SR_ACTION");
    std::vector<std::string> actions;
    for (unsigned i = 0, count = property ? property->GetCount() : 0; i < count; ++i) {
        char const* const action = property->GetNarrowAt(i);
        if (action && *action) actions.emplace_back(action);
    }
    return actions;
}

// The object itself goes without saying.
Path PathOf(IKORScanPolContextElement const* element) {
    if (!element) return {};
    std::vector<wchar_t> text(65536);
    wchar_t const* const whole =
        element->GetScanContextString(text.data(), static_cast<int>(text.size()), kBetween, L':');
    Path path = Split(Narrow(whole));
    if (path.size() > 1 && path.front() == "Object") path.erase(path.begin());
    return path;
}

void CollectInfected(IKORScanPolContextElement const* element, std::vector<Path>& list) {
    if (!element) return;
    if (element->GetInfectedStatus() != 0) list.push_back(PathOf(element));
    long position = 0;
    for (auto const* child = element->GetFirstChild(position); child; child = element->GetNextChild(position))
        CollectInfected(child, list);
}

Trouble TroubleOf(IKORScanResult const& result) {
    std::string const text = Text(result, "E_SR_DESCRIPTION_P");
    return {result.GetScannerClassName(), text.empty() ? "the engine reported an error" : text,
            Number(result, "E_SR_SCANERROR_ID")};
}

Finding FindingOf(IKORScanResult const& result, VELT::ScannerData const& data) {
    Finding finding;
    finding.engine = data.className.value_or(result.GetScannerClassName());
    finding.kind = data.kind.value_or("");
    finding.actions = Actions(result);
    finding.names = Split(Narrow(result.GetInfectionList(kBetween)));
    finding.text = Text(result, "E_SR_DESCRIPTION_P");
    finding.limit = Text(result, "E_SR_DOS_TYPE");
    finding.where = PathOf(result.GetScanPolContext());
    if (data.spamScore) finding.score = *data.spamScore;
    finding.cleaned = result.IsCleaned() == kCleaned;
    return finding;
}

// The results of one scan; whether one of them is of something that is there, and not of information alone.
bool ReadResults(VELT::Connection const& session, VELT::ScanOutput const& output, Verdict& verdict) {
    IScanResultHandler const& handler = *output.result;
    bool found = false;
    long position = 0;
    for (auto const* one = handler.FindFirstScanResult(position); one; one = handler.FindNextScanResult(position)) {
        VELT::ScannerData data;
        bool const sound =
            VELT::ProcessScanResult().ProcessScannerTypes(session, output.identity.c_str(), one, data, true);
        if (!sound || one->GetScanErrorStatus()) {
            verdict.troubles.push_back(TroubleOf(*one));
            continue;
        }
        verdict.findings.push_back(FindingOf(*one, data));
        verdict.findings.back().decided = one == handler.GetMasterScanResult();
        found |= !verdict.findings.back().actions.empty() && Number(*one, "E_SR_TYPE") != kInformation;
    }
    return found;
}

// An agent that looks at nothing gives a result without a word, and no content. Engines give content at least.
bool SaysNothing(VELT::ScanOutput const& output) {
    long position = 0;
    return !output.output && !output.result->IsTriggered() && !output.result->FindFirstScanResult(position);
}

}  // namespace

void Verdict::fail(std::string const& text) {
    kind = Kind::Error;
    troubles.push_back({"", text, std::nullopt});
}

void Verdict::read(VELT::Connection const& session, VELT::ScanOutput const& output) {
    if (!output.result) return fail("the scan gave no verdict");
    if (output.identity.c_str()) identity = output.identity.c_str();
    if (SaysNothing(output)) return fail("nobody looked at the object");
    bool found = kind == Kind::Found;
    for (auto& finding : findings) finding.decided = false;
    found |= ReadResults(session, output, *this);
    char const* const master = output.result->GetMasterActionCode();
    if (master && *master) action = master;
    if (output.result->IsTriggered() && !found) return fail("something was found, and the verdict does not tell what");
    modified = output.result->IsModified() || output.input_modified;
    CollectInfected(output.result->GetScanContextStart(), components);
    kind = found ? Kind::Found : troubles.empty() ? Kind::Clean : Kind::Error;
}

std::string Printable(std::string const& text) {
    std::string out = text;
    for (std::size_t i = 0; i < out.size(); ++i) {
        auto const c = static_cast<unsigned char>(out[i]);
        // The second form is a control character in UTF-8.
        bool const control =
            c < 0x20 || c == 0x7f || (c >= 0x80 && c < 0xa0 && i > 0 && static_cast<unsigned char>(out[i - 1]) == 0xc2);
        if (control) out[i] = '?';
    }
    return out;
}

}  // namespace velt_scan
