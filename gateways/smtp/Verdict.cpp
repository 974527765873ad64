#include "Verdict.h"

#include <eFabric/Result.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include <velt/connection/Connection.h>
#include <velt/results/ProcessScanResult.h>
#include <velt/scanning/Scanner.h>
#include <velt/streams/ScannerStream.h>

#include "core/Reply.h"

namespace smtp {
namespace {

struct ActionRow {
    std::string_view action;
    Verdict::Fate fate;
    bool rewrites;
};

constexpr ActionRow kActions[] = {
    {"CLEAN", Verdict::Fate::Pass, true},
    {"DENY", Verdict::Fate::Refuse, false},
    {"EFABRIC:ALLOWTHRU", Verdict::Fate::Pass, false},
    {"LOG", Verdict::Fate::Pass, false},
    {"REPLACE", Verdict::Fate::Pass, true},
};

ActionRow const* FindAction(std::string_view action) {
    auto const row = std::find_if(std::begin(kActions), std::end(kActions),
                                  [&](ActionRow const& one) { return one.action == action; });
    return row == std::end(kActions) ? nullptr : row;
}

struct Findings {
    bool scannerFailed = false;
    std::string text;
};

std::string TextOf(VELT::ScannerData const& data) {
    if (data.reason && !data.reason->empty()) return Printable(data.reason->str());
    return data.className ? Printable(*data.className) : "unnamed finding";
}

// Lets the library count and report every result, and takes the name of the one that decided.
Findings ReadResults(VELT::Connection& session, VELT::ScanOutput const& output) {
    Findings findings;
    VELT::ProcessScanResult process;
    IKORScanResult const* const master = output.result->GetMasterScanResult();
    long position = 0;
    for (IKORScanResult const* one = output.result->FindFirstScanResult(position); one;
         one = output.result->FindNextScanResult(position)) {
        VELT::ScannerData data;
        bool const processed = process.ProcessScannerTypes(session, output.identity.c_str(), one, data, true);
        // An error that the library only reports is one all the same: that engine has not looked.
        if (!processed || one->GetScanErrorStatus()) {
            findings.scannerFailed = true;
        } else if (one == master || findings.text.empty()) {
            findings.text = TextOf(data);
        }
    }
    return findings;
}

void Settle(Verdict& verdict, Verdict::Fate fate, std::string finding) {
    verdict.fate = fate;
    verdict.finding = std::move(finding);
}

// The content that goes on. A rewriting action without rewritten content must not let the original through.
void TakeContent(Verdict& verdict, bool mustBeRewritten) {
    VELT::ScanOutput const& output = *verdict.output;
    bool const rewritten = output.result->IsModified() || output.input_modified;
    if (rewritten && output.output && output.output->size()) verdict.rewritten = output.output;
    if (rewritten != (verdict.rewritten != nullptr)) {
        Settle(verdict, Verdict::Fate::Defer, "rewritten message is missing");
    } else if (mustBeRewritten && !rewritten) {
        Settle(verdict, Verdict::Fate::Refuse, verdict.finding);
    }
}

void Judge(VELT::Connection& session, Verdict& verdict) {
    if (!verdict.output || !verdict.output->result) return Settle(verdict, Verdict::Fate::Defer, "no verdict");
    Findings const findings = ReadResults(session, *verdict.output);
    char const* const action = verdict.output->result->GetMasterActionCode();
    verdict.finding = findings.text;
    verdict.fate = action && *action ? FateOfAction(action) : Verdict::Fate::Pass;
    if (verdict.fate == Verdict::Fate::Refuse) return;
    if (findings.scannerFailed) return Settle(verdict, Verdict::Fate::Defer, "scan engine reported an error");
    if (verdict.fate == Verdict::Fate::Defer) {
        return Settle(verdict, Verdict::Fate::Defer, "unknown action " + Printable(action));
    }
    if ((!action || !*action) && verdict.output->result->IsTriggered() && !verdict.output->result->IsModified()) {
        return Settle(verdict, Verdict::Fate::Defer, "finding without an action");
    }
    ActionRow const* const row = action ? FindAction(action) : nullptr;
    TakeContent(verdict, row && row->rewrites);
}

bool ScanOnce(VELT::Scanner& scanner, unsigned index, Verdict& verdict, bool fallback) {
    VELT::ScanOutput* output = verdict.output.release();  // a fallback deletes the output it is given
    int const result = scanner.scan(index, output, fallback);
    verdict.output.reset(output);
    return result == 0 && output;
}

// The engines gave up on a message that is too large or too deep: the signatures look at it as it is. What they find
// decides; if they find nothing, the action that policy has for such a message does.
void Fallback(VELT::Connection& session, VELT::Scanner& scanner, unsigned index, Verdict& verdict) {
    Judge(session, verdict);
    Verdict::Fate const limitFate = verdict.rewritten ? Verdict::Fate::Refuse : verdict.fate;
    std::string const limitFinding = verdict.finding;
    verdict.rewritten = nullptr;
    if (!ScanOnce(scanner, index, verdict, true)) return Settle(verdict, Verdict::Fate::Defer, "fallback scan failed");
    Judge(session, verdict);
    if (verdict.fate == Verdict::Fate::Pass && limitFate != Verdict::Fate::Pass)
        Settle(verdict, limitFate, limitFinding);
}

void ScanIdentity(VELT::Connection& session, VELT::Scanner& scanner, unsigned index, Verdict& verdict) {
    if (!ScanOnce(scanner, index, verdict, false)) return Settle(verdict, Verdict::Fate::Defer, "scan failed");
    if (VELT::ProcessScanResult().DoFallBackScan(verdict.output.get())) {
        return Fallback(session, scanner, index, verdict);
    }
    Judge(session, verdict);
}

}  // namespace

Verdict::Fate FateOfAction(char const* action) {
    ActionRow const* const row = FindAction(action);
    return row ? row->fate : Verdict::Fate::Defer;
}

std::vector<Verdict> ScanMessage(VELT::Connection& session, VELT::ScanContext& context) {
    std::unique_ptr<VELT::Scanner> const scanner(VELT::Scanner::get(&context));
    unsigned count = 0;
    if (!scanner || scanner->setup_scan(count) != 0 || count != context.identities.size()) return {};
    std::vector<Verdict> verdicts(count);
    for (unsigned index = 0; index < count; ++index) {
        verdicts[index].identity = context.identities[index];
        ScanIdentity(session, *scanner, index, verdicts[index]);
    }
    return verdicts;
}

}  // namespace smtp
