// What is counted and reported of a message's verdicts.
// Owner: the session. Thread: the session's. Failure: none.
#pragma once

#include <KORlog/InfoBag.h>

#include <array>
#include <string>
#include <vector>

#include "Message.h"
#include "Report.h"
#include "Verdict.h"

namespace smtp {

class VerdictReport {
public:
    // Each scan that was asked for moves one counter; the one that says nothing about the message has one event, too.
    void Add(ReportingSession const& session, std::vector<Recipient> const& recipients,
             std::vector<Verdict> const& verdicts);

    KORlog::InfoBag Outcomes() const;                         // "clean=1 acted=1": those that there were
    std::string const& finding() const { return m_finding; }  // of the last verdict that refused

private:
    void AddRefused(ReportingSession const& session, std::vector<Recipient> const& recipients, Verdict const& verdict);

    std::string m_finding;
    std::array<unsigned, 4> m_outcomes = {};  // by Verdict::Outcome
};

// Any of them keeps the message from going on now; none at all does, too.
bool AnyUnsure(std::vector<Verdict> const& verdicts);

}  // namespace smtp
