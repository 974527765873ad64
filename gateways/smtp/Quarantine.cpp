#include "Quarantine.h"

#include <QXlog/Names.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "RetryFile.h"
#include "SmtpCounters.h"
#include "SmtpEvents.h"

namespace smtp {

bool Quarantine::Keep(Message const& message, std::vector<Verdict> const& verdicts) {
    std::vector<Group> const groups = GroupsOf(message, verdicts);
    std::vector<RetryDraft> drafts;
    for (Group const& group : groups) {
        drafts.push_back(DraftOf(message, group));
        drafts.back().name = m_name + ".q" + std::to_string(drafts.size());
    }
    errno = 0;
    if (!drafts.empty() && !m_files.Store(drafts)) {
        ReportFailed(std::strerror(errno));
        if (m_files.left()) ReportNotUndone(m_from, path(), m_files.left());
        return false;
    }
    for (std::size_t i = 0; i < drafts.size(); ++i) {
        ++Count().messagesQuarantined;
        Report(*groups[i].verdict, drafts[i]);
    }
    return true;
}

std::vector<Quarantine::Group> Quarantine::GroupsOf(Message const& message,
                                                    std::vector<Verdict> const& verdicts) const {
    std::vector<Group> groups;
    for (std::size_t i = 0; i < message.recipients.size(); ++i) {
        Recipient const& recipient = message.recipients[i];
        auto const verdict = std::find_if(verdicts.begin(), verdicts.end(),
                                          [&](Verdict const& one) { return one.identity == recipient.identity; });
        if (verdict == verdicts.end() || !verdict->quarantine) continue;
        std::string const route = m_from.settings.relayHost.empty() ? recipient.domain : "";
        auto group = std::find_if(groups.begin(), groups.end(),
                                  [&](Group const& one) { return one.verdict == &*verdict && one.route == route; });
        if (group == groups.end()) group = groups.insert(groups.end(), Group{&*verdict, route, {}});
        group->members.push_back(i);
    }
    return groups;
}

RetryDraft Quarantine::DraftOf(Message const& message, Group const& group) const {
    Verdict const& verdict = *group.verdict;
    RetryDraft draft;
    draft.content = message.contentOf(verdict.rewritten ? verdict.rewritten : message.spool.get());
    draft.envelope = EnvelopeOf(m_from);
    draft.envelope.sender = message.senderText();
    draft.envelope.engines = EnginesText();
    draft.envelope.action = verdict.action;
    draft.envelope.finding = verdict.evidence;
    draft.envelope.plain = draft.content.plain;
    draft.envelope.eightBit = draft.content.eightBit;
    draft.envelope.rewritten = verdict.rewritten != nullptr;
    for (std::size_t const member : group.members) {
        InternedString const& identity = message.recipients[member].identity;
        draft.envelope.recipients.push_back(
            {message.recipients[member].address, identity.c_str() ? identity.c_str() : ""});
    }
    draft.status.recipients.assign(group.members.size(), RetryStatus::Recipient::Held);
    return draft;
}

// What is left is what the client sends a second time.
void Quarantine::Undo() {
    if (m_files.Undo()) return;
    int const error = errno;
    ++Count().storesFailed;
    ReportNotUndone(m_from, path(), error);
}

// As events show it; the files of the message have a number each besides.
std::string Quarantine::path() const { return m_from.settings.keep.quarantine + m_name + kRetrySuffix; }

void Quarantine::Report(Verdict const& verdict, RetryDraft const& draft) const {
    std::vector<std::string> addresses;
    for (RetryRecipient const& one : draft.envelope.recipients) addresses.push_back(one.address);
    m_from.session.Note(events::MESSAGE_QUARANTINED, [&](KORlog::InfoBag& bag) {
        bag |= names::SENDER(draft.envelope.sender);
        bag |= names::RECIPIENTS(ListOf(addresses));
        bag |= names::SIZE(static_cast<unsigned long>(draft.content.size()));
        bag |= names::FILE(m_from.settings.keep.quarantine + draft.name + kRetrySuffix);
        bag |= names::FINDING(verdict.finding);
        bag |= QXlog::names::QXPROP_SCAN_IDENTITY(verdict.identity.c_str());
    });
}

void Quarantine::ReportFailed(std::string const& why) const {
    ++Count().storesFailed;
    m_from.session.Note(events::STORE_FAILED, [&](KORlog::InfoBag& bag) {
        bag |= names::FILE(path());
        bag |= names::FINDING(why);
    });
}

}  // namespace smtp
