// The part of SmtpSession that begins with DATA: receive, scan, deliver, answer.
#include <KORnet/Addr.h>
#include <QXlog/Names.h>
#include <eFabric/SessionNames.h>

#include <algorithm>
#include <ctime>
#include <iterator>

#include <velt/streams/TCPStream.h>

#include "Receiver.h"
#include "SmtpCounters.h"
#include "SmtpEvents.h"
#include "SmtpSession.h"
#include "Verdict.h"
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

// What is counted and reported of a scan; in the order of Verdict::Outcome.
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

ScanOutcome const& OutcomeOf(Verdict const& verdict) { return kOutcomes[static_cast<std::size_t>(verdict.outcome)]; }

// "clean=1 acted=1": those that there were.
template <class Numbers>
KORlog::InfoBag OutcomesBag(Numbers const& numbers) {
    KORlog::InfoBag bag;
    for (std::size_t i = 0; i < std::size(kOutcomes); ++i) {
        if (numbers[i] != 0) bag |= KORlog::Key{kOutcomes[i].name}(static_cast<unsigned long>(numbers[i]));
    }
    return bag;
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
    namespace names = eFabric::session;
    bag->NewProperty(names::kSender)->SetNarrow(m_message.senderText().c_str());
    auto* const recipients = bag->NewProperty(names::kRecipients);
    for (Recipient const& one : m_message.recipients) recipients->AddNarrow(one.address.c_str());
    bag->NewProperty(names::kClientAddress)->SetNarrow(m_source.m_addressText.c_str());
    bag->NewProperty(names::kClientName)->SetNarrow(Printable(m_hello).c_str());
}

Reply SmtpSession::ScanAndDeliver() {
    m_scan.connection = this;
    m_scan.connection_attributes = new VELT::ScanConnectionAttributes(this);
    m_scan.data = m_message.spool.get();
    std::vector<Verdict> const verdicts = ScanMessage(*this, m_scan);
    ReportVerdicts(verdicts);
    bool const unsure = std::any_of(verdicts.begin(), verdicts.end(),
                                    [](Verdict const& one) { return one.fate == Verdict::Fate::Defer; });
    if (verdicts.empty() || unsure) return {451, "4.7.1", m_settings->uncheckedText};
    return Deliver(verdicts);
}

// Each scan that was asked for moves one counter; the one that says nothing about the message has one event, too.
void SmtpSession::ReportVerdicts(std::vector<Verdict> const& verdicts) {
    for (Verdict const& verdict : verdicts) {
        ScanOutcome const& outcome = OutcomeOf(verdict);
        ++(Count().*outcome.counter);
        if (verdict.disclaimer && verdict.rewritten) ++Count().disclaimersAdded;
        ++m_outcomes[static_cast<std::size_t>(verdict.outcome)];
        if (outcome.event) ReportUnscanned(*outcome.event, verdict);
        if (verdict.fate == Verdict::Fate::Refuse) ReportRefused(verdict);
    }
}

void SmtpSession::ReportUnscanned(QXlog::Event const& event, Verdict const& verdict) const {
    Note(event, [&](KORlog::InfoBag& bag) {
        bag |= QXlog::names::QXPROP_SCAN_IDENTITY(verdict.identity.c_str());
        bag |= names::FINDING(verdict.finding);
    });
}

void SmtpSession::ReportRefused(Verdict const& verdict) {
    m_finding = verdict.finding;
    std::vector<Recipient> refused;
    std::copy_if(m_message.recipients.begin(), m_message.recipients.end(), std::back_inserter(refused),
                 [&](Recipient const& one) { return one.identity == verdict.identity; });
    for (std::size_t i = 0; i < refused.size(); ++i) ++Count().recipientsRefused;
    Note(events::RECIPIENTS_REFUSED, [&](KORlog::InfoBag& bag) {
        bag |= names::RECIPIENTS(ListOf(refused));
        bag |= names::FINDING(verdict.finding);
        bag |= QXlog::names::QXPROP_SCAN_IDENTITY(verdict.identity.c_str());
    });
}

Reply SmtpSession::Deliver(std::vector<Verdict> const& verdicts) {
    std::vector<RecipientFate> const fates = m_delivery->Deliver(m_message, verdicts);
    if (m_delivery->clientGone()) {
        ++Count().clientsGone;
        Note(events::CLIENT_GONE, [&](KORlog::InfoBag& bag) { bag |= names::REPLY("no answer is wanted any more"); });
    }
    Decision const decision = Decide(fates, m_id);
    if (decision.reply.status == "5.4.6") {
        Note(events::MAIL_LOOP, [&](KORlog::InfoBag& bag) { bag |= names::SERVER(m_settings->relayHost); });
    }
    return decision.notify ? TellSender(fates, decision.reply) : decision.reply;
}

Reply SmtpSession::TellSender(std::vector<RecipientFate> const& fates, Reply const& accepted) {
    std::vector<std::string> missed;
    for (std::size_t i = 0; i < fates.size(); ++i) {
        if (fates[i].kind != RecipientFate::Kind::Delivered) missed.push_back(m_message.recipients[i].address);
    }
    if (m_message.sender.null) {
        Note(events::NOTIFICATION_OMITTED, [&](KORlog::InfoBag& bag) { bag |= names::RECIPIENTS(ListOf(missed)); });
        return accepted;
    }
    Reply const told = m_delivery->Notify(m_message, fates, m_hello);
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
        bag |= names::SCANS(OutcomesBag(m_outcomes));
        if (!m_finding.empty()) bag |= names::FINDING(m_finding);
        if (reply.group() != 2) bag |= names::REPLY(OneLine(reply));
    });
}

}  // namespace smtp
