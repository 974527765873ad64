#include "VerdictReport.h"

#include <QXlog/Names.h>

#include <algorithm>
#include <iterator>

#include "SmtpCounters.h"
#include "SmtpEvents.h"

namespace smtp {
namespace {

// In the order of Verdict::Outcome.
struct ScanOutcome {
    char const* name;
    QXStats::QXCounter Counters::*counter;
    QXlog::Event const* event;  // null: the message's own event tells
};

ScanOutcome const kOutcomes[] = {
    {"clean", &Counters::scansClean, nullptr},
    {"acted", &Counters::scansActed, nullptr},
    {"failed", &Counters::scansFailed, &events::SCAN_FAILED},
    {"null", &Counters::scansNull, &events::NOT_SCANNED},
};

}  // namespace

void VerdictReport::Add(ReportingSession const& session, std::vector<Recipient> const& recipients,
                        std::vector<Verdict> const& verdicts) {
    for (Verdict const& verdict : verdicts) {
        auto const which = static_cast<std::size_t>(verdict.outcome);
        ScanOutcome const& outcome = kOutcomes[which];
        ++(Count().*outcome.counter);
        if (verdict.disclaimer && verdict.rewritten) ++Count().disclaimersAdded;
        ++m_outcomes[which];
        if (outcome.event) {
            session.Note(*outcome.event, [&](KORlog::InfoBag& bag) {
                bag |= QXlog::names::QXPROP_SCAN_IDENTITY(verdict.identity.c_str());
                bag |= names::FINDING(verdict.finding);
            });
        }
        if (verdict.fate == Verdict::Fate::Refuse) AddRefused(session, recipients, verdict);
    }
}

void VerdictReport::AddRefused(ReportingSession const& session, std::vector<Recipient> const& recipients,
                               Verdict const& verdict) {
    m_finding = verdict.finding;
    std::vector<Recipient> refused;
    std::copy_if(recipients.begin(), recipients.end(), std::back_inserter(refused),
                 [&](Recipient const& one) { return one.identity == verdict.identity; });
    for (std::size_t i = 0; i < refused.size(); ++i) ++Count().recipientsRefused;
    session.Note(events::RECIPIENTS_REFUSED, [&](KORlog::InfoBag& bag) {
        bag |= names::RECIPIENTS(ListOf(refused));
        bag |= names::FINDING(verdict.finding);
        bag |= QXlog::names::QXPROP_SCAN_IDENTITY(verdict.identity.c_str());
    });
}

KORlog::InfoBag VerdictReport::Outcomes() const {
    KORlog::InfoBag bag;
    for (std::size_t i = 0; i < std::size(kOutcomes); ++i) {
        if (m_outcomes[i] != 0) bag |= KORlog::Key{kOutcomes[i].name}(static_cast<unsigned long>(m_outcomes[i]));
    }
    return bag;
}

bool AnyUnsure(std::vector<Verdict> const& verdicts) {
    return verdicts.empty() || std::any_of(verdicts.begin(), verdicts.end(),
                                           [](Verdict const& one) { return one.fate == Verdict::Fate::Defer; });
}

}  // namespace smtp
