#include "Keeping.h"

#include <unistd.h>
#include <velt/scanning/EngineVersions.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "BackOff.h"
#include "RetryFile.h"
#include "SmtpCounters.h"
#include "SmtpEvents.h"

namespace smtp {
namespace {

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

bool Store(KeptFrom const& from, std::string const& name, RetryEnvelope const& envelope, RetryStatus const& status,
           Content const& content) {
    errno = 0;
    if (StoreRetryFile(from.settings.keep.directory, name, envelope, status, content)) return true;
    std::string const why = std::strerror(errno);
    ++Count().storesFailed;
    from.session.Note(events::STORE_FAILED, [&](KORlog::InfoBag& bag) {
        bag |= names::FILE(from.settings.keep.directory + name + kRetrySuffix);
        bag |= names::FINDING(why);
    });
    return false;
}

void ReportKept(KeptFrom const& from, std::string const& name, RetryEnvelope const& envelope, RetryStatus const& status,
                Content const& content) {
    std::vector<std::string> addresses;
    for (RetryRecipient const& one : envelope.recipients) addresses.push_back(one.address);
    from.session.Note(events::MESSAGE_KEPT, [&](KORlog::InfoBag& bag) {
        bag |= names::SENDER(envelope.sender);
        bag |= names::RECIPIENTS(ListOf(addresses));
        bag |= names::SIZE(static_cast<unsigned long>(content.size()));
        bag |= names::FILE(from.settings.keep.directory + name + kRetrySuffix);
        bag |= names::REPLY(status.reason);
    });
}

}  // namespace

void KeepGroup(KeptFrom const& from, Message const& message, Delivery::Group const& group, unsigned number,
               std::vector<RecipientFate>& fates) {
    RetryEnvelope envelope = EnvelopeOf(from);
    RetryStatus status;
    std::vector<std::size_t> kept;
    for (std::size_t const member : group.members) {
        if (!fates[member].temporary()) continue;
        Recipient const& recipient = message.recipients[member];
        envelope.recipients.push_back(
            {recipient.address, recipient.identity.c_str() ? recipient.identity.c_str() : ""});
        status.unsure |= fates[member].unsure;
        status.reason = OneLine(fates[member].reply);
        kept.push_back(member);
    }
    if (kept.empty()) return;
    Content const content = message.contentOf(group.content);
    envelope.sender = message.senderText();
    envelope.engines = EnginesText();
    envelope.plain = content.plain;
    envelope.eightBit = content.eightBit;
    envelope.rewritten = group.content != message.spool.get();
    status.tries = 1;
    status.last = envelope.taken;
    status.recipients.assign(kept.size(), RetryStatus::Recipient::Waiting);
    std::string const name = number == 1 ? from.auditId : from.auditId + '.' + std::to_string(number);
    if (!Store(from, name, envelope, status, content)) return;
    for (std::size_t const member : kept) fates[member].kind = RecipientFate::Kind::Kept;
    ++Count().messagesKept;
    ReportKept(from, name, envelope, status, content);
}

bool KeepNotification(KeptFrom const& from, Message const& message, std::string const& text, std::string const& name) {
    std::string const path = from.settings.keep.directory + name + kRetrySuffix;
    if (::access(path.c_str(), F_OK) == 0) return true;
    RetryEnvelope envelope = EnvelopeOf(from);
    envelope.recipients = {{message.senderText(), ""}};
    RetryStatus status;
    status.recipients = {RetryStatus::Recipient::Waiting};
    Content content;
    content.text = text;
    if (!Store(from, name, envelope, status, content)) return false;
    ++Count().notificationsKept;
    ReportKept(from, name, envelope, status, content);
    return true;
}

std::string EnginesText() { return VELT::s_AVEngine + ' ' + VELT::s_AVDats; }

}  // namespace smtp
