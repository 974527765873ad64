#include "Verdict.h"

#include <cxxabi.h>
#include <eFabric/Result.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <new>
#include <string_view>
#include <typeinfo>

#include <velt/connection/Connection.h>
#include <velt/results/ProcessScanResult.h>
#include <velt/scanning/Scanner.h>
#include <velt/streams/ScannerStream.h>

#include "SmtpCounters.h"
#include "core/Reply.h"

namespace smtp {
namespace {

using Outcome = Verdict::Outcome;

struct ActionRow {
    std::string_view action;
    Verdict::Fate fate;
    bool rewrites = false;
    bool quarantines = false;
};

constexpr ActionRow kActions[] = {
    {"CLEAN", Verdict::Fate::Pass, true},
    {"DENY", Verdict::Fate::Refuse},
    {"EFABRIC:ALLOWTHRU", Verdict::Fate::Pass},
    {"LOG", Verdict::Fate::Pass},
    {"QUARANTINE", Verdict::Fate::Hold, false, true},
    {"QUARANTINE:DENY", Verdict::Fate::Refuse, false, true},
    {"REPLACE", Verdict::Fate::Pass, true},
};

ActionRow const* FindAction(std::string_view action) {
    auto const row = std::find_if(std::begin(kActions), std::end(kActions),
                                  [&](ActionRow const& one) { return one.action == action; });
    return row == std::end(kActions) ? nullptr : row;
}

constexpr long kDisclaimerAdded = 5;

struct Findings {
    bool scannerFailed = false;
    bool disclaimer = false;
    std::string text;
    std::string all;

    void Add(VELT::ScannerData const& data, std::string const& found) {
        if (!all.empty()) all += "; ";
        if (data.className) all += Printable(*data.className) + ": ";
        all += found;
    }
};

std::string TextOf(VELT::ScannerData const& data) {
    if (data.reason && !data.reason->empty()) return Printable(data.reason->str());
    return data.className ? Printable(*data.className) : "unnamed finding";
}

// An error is told in two places, so that a wire that lost the one does not make a clean mail of it.
bool HasError(IKORScanResult const& one) {
    IKORPropertyBag const* const properties = one.GetPropertyBag();
    return one.GetScanErrorStatus() || (properties && properties->GetProperty("E_SR_SCANERROR_ID"));
}

// Lets the library count and report a result, and takes its name if it is the one that decided.
void ReadResult(VELT::Connection& session, VELT::ScanOutput const& output, IKORScanResult const* one,
                Findings& findings) {
    VELT::ScannerData data;
    bool const processed =
        VELT::ProcessScanResult().ProcessScannerTypes(session, output.identity.c_str(), one, data, true);
    // An error that the library only reports is one all the same: that engine has not looked.
    findings.disclaimer |= data.infoType == kDisclaimerAdded;
    if (!processed || HasError(*one)) {
        findings.scannerFailed = true;
    } else if (one == output.result->GetMasterScanResult() || findings.text.empty()) {
        findings.text = TextOf(data);
    }
    if (processed && data.infoType != kDisclaimerAdded) findings.Add(data, TextOf(data));
}

// A verdict in its text form has the result that decided beside the others, engines have it among them.
Findings ReadResults(VELT::Connection& session, VELT::ScanOutput const& output) {
    Findings findings;
    IKORScanResult const* unread = output.result->GetMasterScanResult();
    long position = 0;
    for (IKORScanResult const* one = output.result->FindFirstScanResult(position); one;
         one = output.result->FindNextScanResult(position)) {
        ReadResult(session, output, one, findings);
        if (one == unread) unread = nullptr;
    }
    if (unread) ReadResult(session, output, unread, findings);
    return findings;
}

void Settle(Verdict& verdict, Verdict::Fate fate, std::string finding) {
    verdict.fate = fate;
    verdict.finding = std::move(finding);
}

bool IsRewritten(VELT::ScanOutput const& output) { return output.result->IsModified() || output.input_modified; }

// The content that goes on. A rewriting action without rewritten content must not let the original through. No mail is
// rewritten in place, where the other identities would get it too: whoever says so may mean the original.
void TakeContent(Verdict& verdict, bool mustBeRewritten) {
    VELT::ScanOutput const& output = *verdict.output;
    bool const rewritten = IsRewritten(output) || verdict.disclaimer;
    bool const isItsOwn = !output.output_in_input && output.output && output.output->size();
    if (rewritten && isItsOwn) verdict.rewritten = output.output;
    if (rewritten != (verdict.rewritten != nullptr)) {
        Settle(verdict, Verdict::Fate::Defer, "rewritten message is missing");
    } else if (mustBeRewritten && !rewritten) {
        Settle(verdict, Verdict::Fate::Refuse, verdict.finding);
    }
}

bool HasFinding(VELT::ScanOutput const& output) {
    char const* const action = output.result->GetMasterActionCode();
    return (action && *action) || output.result->IsTriggered();
}

// An agent that looks at nothing gives a result without a word, and no content. Engines give content at least.
bool SaysNothing(VELT::ScanOutput const& output) {
    long position = 0;
    return !output.output && !HasFinding(output) && !IsRewritten(output) && !output.result->GetMasterScanResult() &&
           !output.result->FindFirstScanResult(position);
}

// What there is to judge: the verdict of somebody who has looked, by the policy of this identity.
bool IsVerdict(Verdict& verdict) {
    VELT::ScanOutput const* const output = verdict.output.get();
    if (!output || !output->result) {
        Settle(verdict, Verdict::Fate::Defer, "no verdict");
    } else if (SaysNothing(*output)) {
        Settle(verdict, Verdict::Fate::Defer, "nobody looked at the message");
        verdict.outcome = Outcome::Null;
    } else if (!(output->identity == verdict.identity)) {
        Settle(verdict, Verdict::Fate::Defer, "verdict for another identity");
    } else {
        return true;
    }
    return false;
}

void Judge(VELT::Connection& session, Verdict& verdict) {
    if (!IsVerdict(verdict)) return;
    Findings const findings = ReadResults(session, *verdict.output);
    char const* const action = verdict.output->result->GetMasterActionCode();
    verdict.finding = findings.text;
    verdict.evidence = findings.all;
    verdict.action = action ? action : "";
    ActionRow const* const row = FindAction(verdict.action);
    verdict.fate = action && *action ? FateOfAction(action) : Verdict::Fate::Pass;
    verdict.quarantine = row && row->quarantines;
    verdict.disclaimer = findings.disclaimer;
    // What every mail is given is no finding.
    bool const changed = IsRewritten(*verdict.output) && !findings.disclaimer;
    if (HasFinding(*verdict.output) || changed) verdict.outcome = Outcome::Acted;
    // What is kept may go on one day: everybody has to have looked at it.
    if (verdict.fate == Verdict::Fate::Refuse && !verdict.quarantine) return;
    if (findings.scannerFailed) return Settle(verdict, Verdict::Fate::Defer, "scan engine reported an error");
    if (verdict.fate == Verdict::Fate::Defer) {
        return Settle(verdict, Verdict::Fate::Defer, "unknown action " + Printable(action));
    }
    if ((!action || !*action) && verdict.output->result->IsTriggered() && !verdict.output->result->IsModified()) {
        return Settle(verdict, Verdict::Fate::Defer, "finding without an action");
    }
    TakeContent(verdict, row && row->rewrites);
}

// An output in the hands of a scanner, which may delete it, replace it or throw.
struct LentOutput {
    using Owner = decltype(Verdict::output);

    explicit LentOutput(Owner& owner) : home(owner), output(owner.release()) {}
    ~LentOutput() { home.reset(output); }
    LentOutput(LentOutput const&) = delete;
    LentOutput& operator=(LentOutput const&) = delete;

    Owner& home;
    VELT::ScanOutput* output;
};

bool ScanOnce(VELT::Scanner& scanner, unsigned index, Verdict& verdict, bool fallback) {
    LentOutput lent(verdict.output);
    return scanner.scan(index, lent.output, fallback) == 0 && lent.output;
}

// The engines gave up on a message that is too large or too deep: the signatures look at it as it is. What they find
// decides; if they find nothing, the action that policy has for such a message does.
bool Fallback(VELT::Connection& session, VELT::Scanner& scanner, unsigned index, Verdict& verdict) {
    Judge(session, verdict);
    Verdict::Fate const limitFate = verdict.rewritten ? Verdict::Fate::Refuse : verdict.fate;
    std::string const limitFinding = verdict.finding, limitAction = verdict.action, limitEvidence = verdict.evidence;
    bool const limitQuarantine = verdict.quarantine && !verdict.rewritten;
    verdict.rewritten = nullptr;
    verdict.output.reset();  // one scanner would delete it, another lose it
    if (!ScanOnce(scanner, index, verdict, true)) {
        Settle(verdict, Verdict::Fate::Defer, "fallback scan failed");
        return false;
    }
    Judge(session, verdict);
    bool const passes = verdict.fate == Verdict::Fate::Pass;
    if (limitFate == Verdict::Fate::Pass || !(passes || (verdict.quarantine && limitFate == Verdict::Fate::Defer)))
        return true;
    verdict.quarantine = limitQuarantine;
    verdict.action = limitAction;
    verdict.evidence = limitEvidence;
    Settle(verdict, limitFate, limitFinding);
    return true;
}

// False: a scan failed, and nobody knows how far the scanner came with it.
bool ScanIdentity(VELT::Connection& session, VELT::Scanner& scanner, unsigned index, Verdict& verdict) {
    if (!ScanOnce(scanner, index, verdict, false)) {
        Settle(verdict, Verdict::Fate::Defer, "scan failed");
        return false;
    }
    if (VELT::ProcessScanResult().DoFallBackScan(verdict.output.get())) {
        return Fallback(session, scanner, index, verdict);
    }
    Judge(session, verdict);
    return true;
}

// Runs a step of a scan. What it throws is a failure of that scan, and of nothing else.
template <class Step>
void Guarded(Verdict& verdict, Step&& step) {
    try {
        step();
    } catch (abi::__forced_unwind&) {  // the thread is being cancelled
        throw;
    } catch (std::bad_alloc const&) {
        Settle(verdict, Verdict::Fate::Defer, "out of memory");
    } catch (std::exception const& failure) {
        Settle(verdict, Verdict::Fate::Defer, "scan failed: " + Printable(failure.what()));
    } catch (...) {
        Settle(verdict, Verdict::Fate::Defer, "scan failed");
    }
}

// A finding whose action has the client try again is a scan that failed.
void SetOutcome(Verdict& verdict) {
    if (verdict.fate == Verdict::Fate::Defer) {
        if (verdict.outcome != Outcome::Null) verdict.outcome = Outcome::Failed;
        verdict.rewritten = nullptr;
        verdict.quarantine = false;
    } else if (verdict.outcome != Outcome::Acted) {
        verdict.outcome = Outcome::Clean;
    }
}

// As many of the context's identities, from the first on, as one scanner takes. None: nobody would scan. Behind a scan
// that failed it takes none: what is left of its answer would be taken for the next one's.
unsigned ScanSome(VELT::Connection& session, VELT::ScanContext& context, Verdict* verdicts) {
    std::unique_ptr<VELT::Scanner> const scanner(VELT::Scanner::get(&context));
    unsigned count = 0;
    if (!scanner || scanner->setup_scan(count) != 0 || count > context.identities.size()) return 0;
    for (unsigned index = 0; index < count; ++index) {
        verdicts[index].outcome = Outcome::Failed;  // until something can be said
        bool whole = false;
        Guarded(verdicts[index], [&] { whole = ScanIdentity(session, *scanner, index, verdicts[index]); });
        SetOutcome(verdicts[index]);
        if (!whole) return index + 1;
    }
    return count;
}

}  // namespace

void Verdict::Drop::operator()(VELT::ScanOutput* output) const {
    if (output && typeid(*output) == typeid(VELT::ScanOutput)) {
        delete output->result;
        delete output->output;
    }
    delete output;
}

Verdict::Fate FateOfAction(char const* action) {
    ActionRow const* const row = FindAction(action);
    return row ? row->fate : Verdict::Fate::Defer;
}

// A scanner may take one identity only: the next ones have a scanner of their own.
std::vector<Verdict> ScanMessage(VELT::Connection& session, VELT::ScanContext& context) {
    std::vector<InternedString> const identities = context.identities;
    std::vector<Verdict> verdicts(identities.size());
    for (std::size_t i = 0; i < verdicts.size(); ++i) {
        verdicts[i].identity = identities[i];
        ++Count().scansAsked;
    }
    std::size_t done = 0;
    Verdict rest;
    rest.finding = "no scanner took the message";
    Guarded(rest, [&] {
        for (unsigned count = 1; count != 0 && done < verdicts.size(); done += count) {
            context.identities.assign(identities.begin() + static_cast<std::ptrdiff_t>(done), identities.end());
            count = ScanSome(session, context, &verdicts[done]);
        }
    });
    context.identities = identities;
    for (; done < verdicts.size(); ++done) Settle(verdicts[done], rest.fate, rest.finding);
    return verdicts;
}

}  // namespace smtp
