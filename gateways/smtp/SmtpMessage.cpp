// The part of SmtpSession that begins with DATA: receive, scan, deliver, answer.
#include <KORnet/Addr.h>

#include <algorithm>
#include <ctime>

#include <velt/streams/TCPStream.h>

#include "Notification.h"
#include "Quarantine.h"
#include "Receiver.h"
#include "SmtpCounters.h"
#include "SmtpEvents.h"
#include "SmtpSession.h"
#include "Verdict.h"
#include "VerdictReport.h"
#include "core/Headers.h"

namespace smtp {
namespace {

using Fault = DataDecoder::Fault;

struct FaultRow {
    Fault fault;
    Reply reply;
};

Reply ReplyTo(Fault fault) {
    static FaultRow const rows[] = {
        {Fault::BareLineEnd, {554, "5.6.11", "a line ends in CRLF, and in nothing else"}},
        {Fault::LineTooLong, {554, "5.6.0", "line too long"}},
        {Fault::HeaderTooLarge, {552, "5.3.4", "header too large"}},
        {Fault::MessageTooLarge, {552, "5.3.4", "message too large"}},
    };
    for (FaultRow const& row : rows) {
        if (row.fault == fault) return row.reply;
    }
    return {};
}

}  // namespace

std::string SmtpSession::ReceivedFor() const {
    ReceivedFacts facts;
    facts.helloName = m_hello;
    facts.clientAddress = m_source.m_addressText;
    facts.byName = m_settings->greetingName;
    facts.protocol = m_extended ? "ESMTP" : "SMTP";
    facts.id = m_id;
    if (m_message.recipients.size() == 1) facts.recipient = m_message.recipients.front().address;
    facts.date = KORnet::rfc2822Date(std::time(nullptr));
    return ReceivedLine(facts);
}

ReceiveResult SmtpSession::ReceiveMessage() {
    m_message.spool = std::make_unique<VELT::ScannerStream>(m_id, false);
    DataDecoder::Limits limits;
    limits.line = m_settings->maxTextLine;
    limits.header = m_settings->maxHeaderBytes;
    limits.size = m_settings->maxMessageBytes;
    m_source.m_stream->set_timeout(m_settings->dataTimeoutMs);
    ReceiveResult const result = Receive(*m_source.m_stream, limits, ReceivedFor(), m_settings->minDataRate, m_message);
    m_source.m_stream->set_timeout(m_settings->commandTimeoutMs);
    return result;
}

// Why a message that was received goes no further; a code of 0: it does.
Reply SmtpSession::Disturbance(ReceiveResult const& received) {
    if (received.fault != Fault::None) {
        Reply const reply = ReplyTo(received.fault);
        if (received.fault == Fault::BareLineEnd) {
            ++Count().protocolAbuses;
            Note(events::PROTOCOL_ABUSE, [&](KORlog::InfoBag& bag) { bag |= names::REPLY(OneLine(reply)); });
        }
        return reply;
    }
    if (received.spoolFailed) {
        ++Count().spoolsFailed;
        Note(events::SPOOL_FAILED, [&](KORlog::InfoBag& bag) { bag |= names::SIZE(m_message.size); });
        return {452, "4.3.1", "no room for the message, try again later"};
    }
    if (received.receivedHeaders >= m_settings->maxHops) {
        Note(events::MAIL_LOOP,
             [&](KORlog::InfoBag& bag) { bag |= names::COUNT(static_cast<unsigned long>(received.receivedHeaders)); });
        return {554, "5.4.6", "too many hops: mail goes in circles"};
    }
    return {};
}

void SmtpSession::TakeMessage() {
    ReceiveResult const received = ReceiveMessage();
    if (received.end != ReceiveResult::End::Complete) {
        CloseOn(received.end == ReceiveResult::End::TimedOut ? Channel::Input::TimedOut : Channel::Input::Closed);
        m_ended = true;
        return Abandon();
    }
    Reply reply = Disturbance(received);
    if (reply.code == 0) reply = ScanAndDeliver();
    ReportMessage(reply);
    m_lastReply = reply;
    m_channel->Say(reply);
    Abandon();
}

void SmtpSession::getConnectionAttributes(IKORPropertyBag* bag) {
    AddFacts(bag, m_message, m_source.m_addressText, m_hello);
}

Reply SmtpSession::ScanAndDeliver() {
    m_scan.connection = this;
    m_scan.connection_attributes = new VELT::ScanConnectionAttributes(this);
    m_scan.data = m_message.spool.get();
    std::vector<Verdict> const verdicts = ScanMessage(*this, m_scan);
    m_report.Add(*this, m_message.recipients, verdicts);
    if (AnyUnsure(verdicts)) return {451, "4.7.1", m_settings->uncheckedText};
    return Deliver(verdicts);
}

// A client that has left heard no 250 and sends the message again. It is asked for again before anything is kept: the
// delivery may have taken long, and what is kept would arrive a second time.
bool SmtpSession::IsClientGone(std::vector<RecipientFate> const& fates) {
    if (m_delivery->clientGone()) return true;
    bool const keeps =
        m_settings->keep.enabled &&
        std::any_of(fates.begin(), fates.end(), [](RecipientFate const& one) { return one.temporary(); });
    return keeps && !m_delivery->ClientIsThere();
}

Reply SmtpSession::Deliver(std::vector<Verdict> const& verdicts) {
    // Before anybody has the message: a failure leaves all of it with the client.
    Quarantine quarantine(KeptNow(), m_id);
    if (!quarantine.Keep(m_message, verdicts)) return {451, "4.3.0", "message could not be kept, try again later"};
    std::vector<RecipientFate> fates = m_delivery->Deliver(m_message, verdicts);
    if (IsClientGone(fates)) {
        quarantine.Undo();
        ++Count().clientsGone;
        Note(events::CLIENT_GONE, [&](KORlog::InfoBag& bag) { bag |= names::REPLY("no answer is wanted any more"); });
        return {451, "4.4.2", "client left before the message was taken"};
    }
    if (m_settings->keep.enabled) KeepRest(KeptNow(), m_message, m_delivery->groups(), fates);
    Decision const decision = Decide(fates, m_id);
    if (decision.reply.group() == 4) quarantine.Undo();
    if (decision.reply.status == "5.4.6") {
        Note(events::MAIL_LOOP, [&](KORlog::InfoBag& bag) { bag |= names::SERVER(m_settings->relayHost); });
    }
    return decision.notify ? TellSender(fates, decision.reply) : decision.reply;
}

KeptFrom SmtpSession::KeptNow() { return {*this, *m_settings, m_id, m_conversationId, m_hello, IsInBound()}; }

Reply SmtpSession::TellSender(std::vector<RecipientFate> const& fates, Reply const& accepted) {
    std::vector<std::string> missed;
    for (std::size_t i = 0; i < fates.size(); ++i) {
        if (!fates[i].taken()) missed.push_back(m_message.recipients[i].address);
    }
    if (m_message.sender.null) {
        Note(events::NOTIFICATION_OMITTED, [&](KORlog::InfoBag& bag) { bag |= names::RECIPIENTS(ListOf(missed)); });
        return accepted;
    }
    std::string const text = NotificationOf(
        {m_settings->greetingName, m_id, m_hello, std::time(nullptr), m_id + ".report"}, m_message, fates);
    bool unsure = false;
    Reply const told = m_delivery->Notify(m_message, text, unsure);
    bool const waits = told.group() != 2 && m_settings->keep.enabled;
    if (waits && KeepNotification(KeptNow(), m_message, text, m_id + ".report0", unsure)) return accepted;
    bool const sent = told.group() == 2;
    ++(sent ? Count().notificationsSent : Count().notificationsLost);
    QXlog::Event const& event = sent ? static_cast<QXlog::Event const&>(events::NOTIFICATION_SENT)
                                     : static_cast<QXlog::Event const&>(events::NOTIFICATION_LOST);
    Note(event, [&](KORlog::InfoBag& bag) {
        bag |= names::SENDER(m_message.senderText());
        bag |= names::RECIPIENTS(ListOf(missed));
        bag |= names::REPLY(OneLine(told));
    });
    return sent ? accepted : WithoutNotification(fates);
}

void SmtpSession::ReportMessage(Reply const& reply) {
    ++*s_pNoMessages;
    ++*s_pPolicyMessages[IsInBound()];
    QXlog::Event const* event = &events::MESSAGE_ACCEPTED;
    if (reply.group() == 2) {
        ++Count().messagesAccepted;
        ++m_accepted;
    } else if (reply.group() == 4) {
        ++Count().messagesDeferred;
        event = &events::MESSAGE_DEFERRED;
    } else {
        ++Count().messagesRefused;
        event = &events::MESSAGE_REFUSED;
    }
    Note(*event, [&](KORlog::InfoBag& bag) {
        bag |= names::SENDER(m_message.senderText());
        bag |= names::RECIPIENTS(ListOf(m_message.recipients));
        bag |= names::SIZE(m_message.size);
        bag |= names::SCANS(m_report.Outcomes());
        if (!m_report.finding().empty()) bag |= names::FINDING(m_report.finding());
        if (reply.group() != 2) bag |= names::REPLY(OneLine(reply));
    });
}

}  // namespace smtp
