// The six families of scan results.
#include <QXlog/Names.h>
#include <eFabric/Result.h>

#include <cstring>
#include <sstream>

#include <velt/connection/Connection.h>
#include <velt/logging/Events.h>
#include <velt/logging/Log.h>
#include <velt/results/ProcessScanResult.h>
#include <velt/results/PropertyReading.h>
#include <velt/results/ScanReport.h>
#include <velt/results/ScanStats.h>

namespace VELT {

using namespace QXlog::names;
using KORtk::Utf8Array;
using results::AddIfSet;
using results::ConnectionAttributes;
using results::DescriptionOf;
using results::DoubleOf;
using results::EngineFacts;
using results::EngineFactsOf;
using results::FindAny;
using results::ULongOf;

namespace {

QXlog::Event const& EventIf(bool which, QXlog::Event const& yes, QXlog::Event const& no) { return which ? yes : no; }

constexpr int kCleaned = 2;
constexpr char const* kUnnamedComponent = "MIME Message";

KORlog::InfoBag StartBag(Connection const& connection, char const* identity) {
    return ConnectionAttributes(connection) | QXPROP_SCAN_IDENTITY(identity);
}

Utf8Array InfectionText(IKORScanResult const& result) {
    wchar_t const* const names = result.GetInfectionList(L' ');
    return Utf8Array(names ? names : L"unknown");
}

boost::optional<Utf8Array> ComponentName(IKORScanResult const& result) {
    IKORScanPolContextElement const* const component = result.GetScanPolContext();
    wchar_t const* const name = component ? component->GetComponentName() : nullptr;
    if (!name) return boost::none;
    return Utf8Array(name);
}

// The name goes into the host's record; a stand-in goes into the report alone.
boost::optional<Utf8Array> TakeFileName(IKORScanResult const& result, bool standIn, ScannerData& data) {
    boost::optional<Utf8Array> name = ComponentName(result);
    if (name) data.fileName = name;
    if (!name && standIn) name = Utf8Array(kUnnamedComponent);
    return name;
}

// What the content, format and mail filter families report: one text under a key of the family's own.
struct Report {
    QXlog::Event const& event;
    KORlog::Key const& key;
    boost::optional<Utf8Array> text;
    boost::optional<Utf8Array> fileName;
};

void LogReport(Connection const& connection, char const* identity, IKORPropertyBag const* bag, Report const& report) {
    LogEvent(report.event, [&] {
        KORlog::InfoBag out = StartBag(connection, identity);
        AddIfSet(out, report.key, report.text);
        AddIfSet(out, QXPROP_FILE_NAME, report.fileName);
        AddIfSet(out, QXPROP_SCAN_HOST, EngineFactsOf(bag).host);
        return out;
    });
}

bool IsAllowedThrough(IKORPropertyBag const* bag) {
    IKORProperty const* const actions = FindAny(bag, "E_SR_ACTION");
    if (!actions) return false;
    for (unsigned i = 0, count = actions->GetCount(); i < count; ++i) {
        char const* const action = actions->GetNarrowAt(i);
        if (action && std::strcmp(action, "EFABRIC:ALLOWTHRU") == 0) return true;
    }
    return false;
}

// "name=score, name=score"; ends at the first rule without a score, and passes over scores without a name.
// None when the result does not list its rules.
boost::optional<Utf8Array> BrokenRules(IKORPropertyBag const* bag) {
    IKORProperty const* const names = FindAny(bag, "E_SR_INFECTIONNAME");
    IKORProperty const* const scores = FindAny(bag, "E_SR_AS_INFECTION_SCORE");
    if (!names || !scores) return boost::none;
    std::wostringstream text;
    char const* separator = "";
    double score = 0.0;
    for (unsigned i = 0; scores->GetDoubleAt(i, score); ++i) {
        wchar_t const* const name = names->GetWideAt(i);
        if (!name) continue;
        text << separator << name << "=" << score;
        separator = ", ";
    }
    return Utf8Array(text.str());
}

struct SpamScores {
    boost::optional<double> score;
    boost::optional<double> threshold;
    boost::optional<double> actionThreshold;

    // The action threshold wins over the plain one; what is absent counts as 0, so that a result with neither is spam.
    bool below() const { return score.value_or(0.0) < limit(); }
    double limit() const { return actionThreshold ? *actionThreshold : threshold.value_or(0.0); }
};

}  // namespace

bool ProcessScanResult::ProcessAntiVirusResult(Connection const& connection, char const* identity,
                                               IKORPropertyBag const* bag, IKORScanResult const* result,
                                               ScannerData& data) {
    CountFinding(connection.IsInBound(), &SCAN_STATS::virus_detected);

    boost::optional<Utf8Array> names;
    if (result->InfectedItems() >= 1) names = InfectionText(*result);
    if (!names) names = DescriptionOf(result->GetPropertyBag());
    data.reason = names.value_or(Utf8Array(L"unknown"));  // the record says "unknown", the report leaves the key out

    boost::optional<Utf8Array> const fileName = TakeFileName(*result, false, data);
    EngineFacts const facts = EngineFactsOf(bag);
    if (facts.engine) data.avEngine = facts.engine;
    if (facts.definitions) data.avDats = facts.definitions;

    bool const cleaned = result->IsCleaned() == kCleaned;
    LogEvent(EventIf(cleaned, events::VIRUS_CLEANED, events::VIRUS_FOUND), [&] {
        KORlog::InfoBag out = StartBag(connection, identity);
        AddIfSet(out, QXPROP_VIRUS_NAMES, names);
        AddIfSet(out, QXPROP_FILE_NAME, fileName);
        AddIfSet(out, QXPROP_SCAN_HOST, facts.host);
        AddIfSet(out, QXPROP_AV_ENGINE_VERSION, facts.engine);
        AddIfSet(out, QXPROP_AV_DAT_VERSION, facts.definitions);
        return out;
    });
    return true;
}

bool ProcessScanResult::ProcessContentScanResult(Connection const& connection, char const* identity,
                                                 IKORPropertyBag const* bag, IKORScanResult const* result,
                                                 ScannerData& data) {
    if (result->InfectedItems() < 1) return false;
    CountFinding(connection.IsInBound(), &SCAN_STATS::content_filter_detected);
    data.reason = InfectionText(*result);
    bool const hasComponent = result->GetScanPolContext() != nullptr;
    LogReport(connection, identity, bag,
              {events::CONTENT_RULE_HIT, QXPROP_CONTENT_RULES, data.reason, TakeFileName(*result, hasComponent, data)});
    return true;
}

bool ProcessScanResult::ProcessFormatResult(Connection const& connection, char const* identity,
                                            IKORPropertyBag const* bag, IKORScanResult const* result,
                                            ScannerData& data) {
    if (IsAllowedThrough(bag)) return false;
    CountFinding(connection.IsInBound(), &SCAN_STATS::file_filtering_detected);
    boost::optional<Utf8Array> const description = DescriptionOf(result->GetPropertyBag());
    if (description) data.reason = description;
    LogReport(connection, identity, bag,
              {events::FILE_FILTER_HIT, QXPROP_DESCRIPTION, description, TakeFileName(*result, true, data)});
    return true;
}

bool ProcessScanResult::ProcessMailFilterResult(Connection const& connection, char const* identity,
                                                IKORPropertyBag const* bag, IKORScanResult const* result,
                                                ScannerData& data) {
    CountFinding(connection.IsInBound(), &SCAN_STATS::mail_filtering_detected);
    boost::optional<Utf8Array> const description = DescriptionOf(result->GetPropertyBag());
    if (description) data.reason = description;
    LogReport(connection, identity, bag,
              {events::MAIL_FILTER_HIT, QXPROP_DESCRIPTION, description, TakeFileName(*result, true, data)});
    return true;
}

bool ProcessScanResult::ProcessAntiSpamResult(Connection const& connection, char const* identity,
                                              IKORPropertyBag const* bag, ScannerData& data) {
    SpamScores const scores{DoubleOf(bag, "E_SR_AS_SCORE"), DoubleOf(bag, "E_SR_AS_THRESHOLD"),
                            DoubleOf(bag, "E_SR_AS_ACTION_THRESHOLD")};
    if (scores.score) data.spamScore = scores.score;
    EngineFacts const facts = EngineFactsOf(bag);
    if (facts.engine) data.spamEngine = facts.engine;
    boost::optional<Utf8Array> const rules = BrokenRules(bag);
    if (rules) data.reason = rules;

    bool const below = scores.below();
    LogEvent(EventIf(below, events::SPAM_BELOW_THRESHOLD, events::SPAM_FOUND), [&] {
        KORlog::InfoBag out = StartBag(connection, identity);
        AddIfSet(out, QXPROP_SPAM_SCORE, scores.score);
        AddIfSet(out, QXPROP_SPAM_THRESHOLD_SCORE, scores.threshold);
        AddIfSet(out, QXPROP_SPAM_ACTION_THRESHOLD_SCORE, scores.actionThreshold);
        AddIfSet(out, QXPROP_SCAN_HOST, facts.host);
        AddIfSet(out, QXPROP_SPAM_ENGINE_VERSION, facts.engine);
        AddIfSet(out, QXPROP_SPAM_RULES_VERSION, facts.definitions);
        AddIfSet(out, QXPROP_SPAM_RULES_BROKEN, rules);
        return out;
    });
    CountFinding(connection.IsInBound(), below ? &SCAN_STATS::spam_belowthreshold : &SCAN_STATS::spam_detected);
    return scores.score.has_value();
}

bool ProcessScanResult::ProcessInfoResult(Connection const& connection, char const* identity,
                                          IKORPropertyBag const* bag, ScannerData& data) {
    auto const infoType = ULongOf(bag, "E_SR_INFORESULTTYPE");
    if (!infoType) return false;
    data.infoType = static_cast<long>(*infoType);
    auto const log = [&](QXlog::Event const& event) {
        LogEvent(event, [&] {
            KORlog::InfoBag out = ConnectionAttributes(connection);
            FillInfoResultInfoBag(out, identity, bag);
            return out;
        });
        return false;
    };
    switch (*infoType) {
        case 1:
            return log(events::INFO_RESULT_FIRST);
        case 2:
            return log(events::INFO_RESULT_SECOND);
        case 3:
            return log(events::INFO_RESULT_THIRD);
        case 4:
            return true;
        case 5:
            data.reason = Utf8Array("Disclaimer Added");
            return true;
        default:
            return false;
    }
}

void ProcessScanResult::FillInfoResultInfoBag(KORlog::InfoBag& out, char const* identity, IKORPropertyBag const* bag) {
    out |= QXPROP_SCAN_IDENTITY(identity);
    AddIfSet(out, QXPROP_DESCRIPTION, DescriptionOf(bag));
    AddIfSet(out, QXPROP_SCAN_HOST, EngineFactsOf(bag).host);
}

}  // namespace VELT
