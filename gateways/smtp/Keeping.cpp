#include "Keeping.h"

#include <velt/Config.h>
#include <velt/scanning/EngineVersions.h>
#include <velt/scanning/ScannerServer.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>

#include "BackOff.h"
#include "Disk.h"
#include "RetryFile.h"
#include "SmtpCounters.h"
#include "SmtpEvents.h"
#include "StoredFiles.h"

namespace smtp {
namespace {

// The engines' setting, of which nothing but its presence is read here.
constinit VELT::config_helper::detail::CfgNameCacheEntry const kScanServers{"KORAVScanner", "ClamdSockets"};

bool HasScanServers(VELT::Config& config) {
    auto const* const loader = VELT::Config::getPolicyLoader();
    return config.getProductValue(VELT::Config::POLICY_CONTENT, kScanServers.settings(loader),
                                  kScanServers.attribute(loader));
}

void ReportNotStored(KeptFrom const& from, std::string const& path, std::string const& why) {
    ++Count().storesFailed;
    from.session.Note(events::STORE_FAILED, [&](KORlog::InfoBag& bag) {
        bag |= names::FILE(path);
        bag |= names::FINDING(why);
    });
}

std::vector<std::string> AddressesOf(RetryEnvelope const& envelope) {
    std::vector<std::string> addresses;
    for (RetryRecipient const& one : envelope.recipients) addresses.push_back(one.address);
    return addresses;
}

void ReportKept(KeptFrom const& from, RetryDraft const& draft) {
    from.session.Note(events::MESSAGE_KEPT, [&](KORlog::InfoBag& bag) {
        bag |= names::SENDER(draft.envelope.sender);
        bag |= names::RECIPIENTS(ListOf(AddressesOf(draft.envelope)));
        bag |= names::SIZE(static_cast<unsigned long>(draft.content.size()));
        bag |= names::FILE(from.settings.keep.directory + draft.name + kRetrySuffix);
        bag |= names::REPLY(draft.status.reason);
    });
}

// All of them or none.
bool Store(KeptFrom const& from, std::vector<RetryDraft> const& drafts) {
    errno = 0;
    int left = 0;
    bool const stored = StoreRetryFiles(from.settings.keep.directory, drafts, &left);
    std::string const why = stored ? "" : std::strerror(errno);
    for (RetryDraft const& draft : drafts) {
        std::string const path = from.settings.keep.directory + draft.name + kRetrySuffix;
        stored ? ReportKept(from, draft) : ReportNotStored(from, path, why);
        if (left) ReportNotUndone(from, path, left);
    }
    return stored;
}

// Those of a group whom a second try may reach.
std::vector<std::size_t> WaitingOf(Delivery::Group const& group, std::vector<RecipientFate> const& fates) {
    std::vector<std::size_t> waiting;
    std::copy_if(group.members.begin(), group.members.end(), std::back_inserter(waiting),
                 [&](std::size_t member) { return fates[member].temporary(); });
    return waiting;
}

RetryDraft DraftOf(KeptFrom const& from, Message const& message, Delivery::Group const& group, std::size_t number,
                   std::vector<std::size_t> const& members, std::vector<RecipientFate> const& fates) {
    RetryDraft draft;
    draft.name = number == 1 ? from.auditId : from.auditId + '.' + std::to_string(number);
    draft.envelope = EnvelopeOf(from);
    draft.content = message.contentOf(group.content);
    for (std::size_t const member : members) {
        Recipient const& recipient = message.recipients[member];
        draft.envelope.recipients.push_back(
            {recipient.address, recipient.identity.c_str() ? recipient.identity.c_str() : ""});
        draft.status.unsure |= fates[member].unsure;
        draft.status.reason = OneLine(fates[member].reply);
    }
    draft.envelope.sender = message.senderText();
    draft.envelope.engines = JudgesOf(from.session, AddressesOf(draft.envelope));
    draft.envelope.plain = draft.content.plain;
    draft.envelope.eightBit = draft.content.eightBit;
    draft.envelope.rewritten = group.content != message.spool.get();
    draft.status.tries = 1;
    draft.status.last = draft.envelope.taken;
    draft.status.recipients.assign(draft.envelope.recipients.size(), RetryStatus::Recipient::Waiting);
    return draft;
}

// Groups `begin` to before `end`: all of those of them that wait, or none.
void KeepTogether(KeptFrom const& from, Message const& message, std::vector<Delivery::Group> const& groups,
                  std::size_t begin, std::size_t end, std::vector<RecipientFate>& fates) {
    std::vector<RetryDraft> drafts;
    std::vector<std::size_t> waiting;
    for (std::size_t i = begin; i < end; ++i) {
        std::vector<std::size_t> const members = WaitingOf(groups[i], fates);
        if (members.empty()) continue;
        drafts.push_back(DraftOf(from, message, groups[i], i + 1, members, fates));
        waiting.insert(waiting.end(), members.begin(), members.end());
    }
    if (drafts.empty() || !Store(from, drafts)) return;
    for (std::size_t i = 0; i < drafts.size(); ++i) ++Count().messagesKept;
    for (std::size_t const member : waiting) fates[member].kind = RecipientFate::Kind::Kept;
}

// By a file that is there already. Whoever wrote it may have ended before its name was on disk. One that was taken back
// goes at the next walk, and is not written over: whoever removes it would remove the other one.
bool IsToldBy(KeptFrom const& from, std::string const& path, Found found) {
    if (found == Found::File && FlushDirectory(from.settings.keep.directory)) return true;
    bool const undone = found == Found::Undone;
    ReportNotStored(from, path, undone ? "what was taken back of it is still there" : std::strerror(errno));
    return false;
}

}  // namespace

RetryEnvelope EnvelopeOf(KeptFrom const& from) {
    RetryEnvelope envelope;
    envelope.auditId = from.auditId;
    envelope.conversationId = from.conversationId;
    envelope.helloName = from.helloName;
    envelope.clientAddress = from.session.getSourceConnection().m_addressText;
    if (from.settings.transparent || from.settings.keptServer) {
        envelope.server = from.settings.relayHost + ':' + std::to_string(from.settings.relayPort);
    }
    envelope.taken = std::time(nullptr);
    envelope.inbound = from.inbound;
    return envelope;
}

void ReportNotUndone(KeptFrom const& from, std::string const& path, int error) {
    from.session.Note(events::UNDO_FAILED, [&](KORlog::InfoBag& bag) {
        bag |= names::FILE(path);
        bag |= names::FINDING(std::string(std::strerror(error)));
    });
}

void KeepRest(KeptFrom const& from, Message const& message, std::vector<Delivery::Group> const& groups,
              std::vector<RecipientFate>& fates) {
    bool const someHaveIt = std::any_of(fates.begin(), fates.end(), [](RecipientFate const& one) {
        return one.kind == RecipientFate::Kind::Delivered;
    });
    std::size_t const step = someHaveIt ? 1 : groups.size();
    for (std::size_t i = 0; i < groups.size(); i += step) KeepTogether(from, message, groups, i, i + step, fates);
}

bool KeepNotification(KeptFrom const& from, Message const& message, std::string const& text, std::string const& name,
                      bool unsure) {
    std::string const path = from.settings.keep.directory + name + kRetrySuffix;
    Found const found = LookFor(path);
    if (found != Found::Nothing) return IsToldBy(from, path, found);
    RetryDraft draft;
    draft.name = name;
    draft.envelope = EnvelopeOf(from);
    draft.envelope.recipients = {{message.senderText(), ""}};
    draft.status.recipients = {RetryStatus::Recipient::Waiting};
    draft.status.unsure = unsure;
    draft.content.text = text;
    if (!Store(from, {std::move(draft)})) return false;
    ++Count().notificationsKept;
    return true;
}

std::string EnginesText() { return VELT::s_AVEngine + ' ' + VELT::s_AVDats; }

std::string JudgesOf(ReportingSession& session, std::vector<std::string> const& recipients) {
    bool const servers = VELT::ScannerProcessActive() ||
                         std::any_of(recipients.begin(), recipients.end(), [&](std::string const& address) {
                             session.GetConfig().set_recipient_mail_address(address);
                             return HasScanServers(session.GetConfig());
                         });
    return servers ? kServersJudge : EnginesText();
}

}  // namespace smtp
