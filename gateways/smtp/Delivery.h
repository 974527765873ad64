// Delivery: brings a message to the next servers, before its client is answered.
// Recipients whose content and route are the same share one transaction. A connection to a server is kept for the next
// message of the session. Owner: the session. Thread: the session's. Failure: in the fates; nothing throws.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <KORnet/Addr.h>

#include "Message.h"
#include "Report.h"
#include "SmtpSettings.h"
#include "Upstream.h"
#include "Verdict.h"
#include "core/Outcome.h"

namespace smtp {

class Delivery {
public:
    Delivery(ReportingSession& session, SessionSettings const& settings) : m_session(session), m_settings(settings) {}
    ~Delivery() { Close(); }
    Delivery(Delivery const&) = delete;
    Delivery& operator=(Delivery const&) = delete;

    // From now on, of each message: no content begins to go out later than this after the delivery began. Who was not
    // tried by then is a failure for now.
    void LimitTo(std::chrono::seconds limit) { m_limit = limit; }

    // Delivers to every recipient whose verdict lets the message pass. A fate for each recipient.
    std::vector<RecipientFate> Deliver(Message& message, std::vector<Verdict> const& verdicts);

    // Recipients of one content that go by one way.
    struct Group {
        std::string route;
        VELT::ScannerStream* content;
        std::vector<std::size_t> members;
    };
    std::vector<Group> const& groups() const { return m_groups; }  // of the last message; they were all tried

    // Asked before each content goes out, in place of whether the client is still there. False: it does not go.
    void AskBefore(std::function<bool()> ask) { m_askBefore = std::move(ask); }

    // Sends the notification to the sender; a second time over a new connection if the first fails. Where the server
    // may have it by then it is `unsure`: kept where it can be, and otherwise a second copy that is counted. 2xx: the
    // next server has the notification.
    Reply Notify(Message& message, std::string const& text, bool& unsure);

    // Whether the last message was kept back as its client had left: it will come again, and is not to arrive twice.
    bool clientGone() const { return m_clientGone; }
    bool ClientIsThere();  // asks now

    void Close();  // says QUIT and drops the connection, if there is one

private:
    std::string RouteOf(std::string const& domain) const;
    std::vector<Group> GroupsOf(Message const& message, std::vector<Verdict> const& verdicts,
                                std::vector<RecipientFate>& fates) const;
    std::string Refusal(std::string const& finding) const;
    Shipment ShipmentOf(Message const& message, Group const& group, std::vector<RecipientFate> const& fates);
    void DeliverGroup(Message& message, Group const& group, std::vector<RecipientFate>& fates);
    std::vector<Reply> Send(std::string const& route, Shipment const& shipment);
    Reply Reach(std::string const& route);
    Reply Addresses(std::string const& route, std::vector<KORnet::TCPAddr>& out) const;
    bool ConnectNext(std::vector<KORnet::TCPAddr> const& addresses, unsigned& next);
    Reply Walk(std::vector<KORnet::TCPAddr> const& addresses);
    unsigned LeftOf(unsigned timeoutMs) const;
    void Report(Shipment const& shipment, std::vector<Reply> const& replies) const;
    std::string Server() const;

    ReportingSession& m_session;
    SessionSettings const& m_settings;
    std::unique_ptr<Upstream> m_upstream;  // over the stream of the session's server connection
    std::string m_route;                   // where that leads
    std::vector<Group> m_groups;
    std::chrono::seconds m_limit{0};                                                             // 0: none
    std::chrono::steady_clock::time_point m_end = std::chrono::steady_clock::time_point::max();  // of this message
    std::function<bool()> m_askBefore;  // empty: whether the client is there
    bool m_reached = false;             // the server of the last group
    bool m_clientGone = false;
};

}  // namespace smtp
