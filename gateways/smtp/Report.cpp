#include "Report.h"

#include <QXlog/Names.h>

#include "SmtpCounters.h"
#include "SmtpEvents.h"

namespace smtp {

KORlog::InfoBag ReportingSession::Facts() const {
    using namespace QXlog::names;
    KORlog::InfoBag bag;
    bag |= QXPROP_AUDIT_ID(m_id);
    bag |= QXPROP_AUDIT_CONV_ID(m_conversationId);
    bag |= QXPROP_SOURCE_IP(m_source.m_addressText);
    return bag;
}

void ReportResent(ReportingSession const& session, std::string const& recipients, unsigned long tries) {
    ++Count().messagesResent;
    session.Note(events::MESSAGE_RESENT, [&](KORlog::InfoBag& bag) {
        bag |= names::RECIPIENTS(recipients);
        bag |= names::COUNT(tries);
    });
}

std::string OneLine(Reply const& reply) {
    std::string out = std::to_string(reply.code) + ' ';
    if (!reply.status.empty()) out += reply.status + ' ';
    return out + Printable(reply.text, 500);
}

}  // namespace smtp
