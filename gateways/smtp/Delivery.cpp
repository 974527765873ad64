#include "Delivery.h"

#include <KORtk/Exception.h>
#include <QXlog/Names.h>
#include <poll.h>

#include <algorithm>

#include <velt/connection/Connection.h>
#include <velt/errors/Failures.h>
#include <velt/runtime/Proxy.h>
#include <velt/streams/TCPStream.h>

#include "Exchangers.h"
#include "SmtpCounters.h"
#include "SmtpEvents.h"

namespace smtp {
namespace {

constexpr unsigned kLongest = 3'600'000;  // milliseconds; above every limit
constexpr std::size_t kMaxWords = 150;    // of each text in a refusal: a reply line has 512 bytes

// A relay on this machine is a loop only if it is our own port that answers there. A mail exchanger on this machine
// comes from a stranger's name server, and is never connected to.
bool IsOwnPort(unsigned short port) {
    auto const bindings = VELT::Proxy::GetSvcBindings();
    return std::any_of(bindings.begin(), bindings.end(),
                       [&](sockaddr_in const* one) { return ntohs(one->sin_port) == port; });
}

Reply Circle() { return {554, "5.4.6", "mail goes in circles: the next server is this one"}; }

}  // namespace

std::string Delivery::RouteOf(std::string const& domain) const { return m_settings.relayHost.empty() ? domain : ""; }

std::vector<Delivery::Group> Delivery::GroupsOf(Message const& message, std::vector<Verdict> const& verdicts,
                                                std::vector<RecipientFate>& fates) const {
    std::vector<Group> groups;
    for (std::size_t i = 0; i < message.recipients.size(); ++i) {
        Recipient const& recipient = message.recipients[i];
        auto const verdict = std::find_if(verdicts.begin(), verdicts.end(),
                                          [&](Verdict const& one) { return one.identity == recipient.identity; });
        fates[i].reply = {451, "4.7.1", m_settings.uncheckedText};
        if (verdict == verdicts.end() || verdict->fate == Verdict::Fate::Defer) continue;
        if (verdict->fate == Verdict::Fate::Hold) {
            fates[i].kind = RecipientFate::Kind::Held;
            continue;
        }
        if (verdict->fate == Verdict::Fate::Refuse) {
            fates[i].kind = RecipientFate::Kind::Refused;
            fates[i].reply = {554, "5.7.1", Refusal(verdict->finding)};
            continue;
        }
        VELT::ScannerStream* const content = verdict->rewritten ? verdict->rewritten : message.spool.get();
        std::string const route = RouteOf(recipient.domain);
        auto group = std::find_if(groups.begin(), groups.end(),
                                  [&](Group const& one) { return one.route == route && one.content == content; });
        if (group == groups.end()) group = groups.insert(groups.end(), Group{route, content, {}});
        group->members.push_back(i);
    }
    return groups;
}

// The number is what a caller is asked for: it stands there however long the texts before it are.
std::string Delivery::Refusal(std::string const& finding) const {
    return Printable(m_settings.refusedText, kMaxWords) + ": " + Printable(finding, kMaxWords) + " (" +
           m_session.getId() + ")";
}

std::vector<RecipientFate> Delivery::Deliver(Message& message, std::vector<Verdict> const& verdicts) {
    std::vector<RecipientFate> fates(message.recipients.size());
    m_clientGone = false;
    if (m_limit.count()) m_end = std::chrono::steady_clock::now() + m_limit;
    m_groups = GroupsOf(message, verdicts, fates);
    for (Group const& group : m_groups) DeliverGroup(message, group, fates);
    return fates;
}

Shipment Delivery::ShipmentOf(Message const& message, Group const& group, std::vector<RecipientFate> const& fates) {
    Shipment shipment;
    shipment.sender = message.senderText();
    for (std::size_t member : group.members) shipment.recipients.push_back(message.recipients[member].address);
    shipment.content = message.contentOf(group.content);
    bool const first = std::none_of(fates.begin(), fates.end(), [](RecipientFate const& fate) {
        return fate.kind == RecipientFate::Kind::Delivered;
    });
    if (m_askBefore) {
        shipment.wanted = m_askBefore;
    } else if (first) {
        shipment.wanted = [this] { return ClientIsThere(); };
    }
    return shipment;
}

void Delivery::DeliverGroup(Message& message, Group const& group, std::vector<RecipientFate>& fates) {
    Shipment const shipment = ShipmentOf(message, group, fates);
    std::vector<Reply> const replies = Send(group.route, shipment);
    std::string const server = Server();
    for (std::size_t i = 0; i < group.members.size(); ++i) {
        RecipientFate& fate = fates[group.members[i]];
        bool const delivered = replies[i].group() == 2;
        fate = {delivered ? RecipientFate::Kind::Delivered : RecipientFate::Kind::Failed, replies[i], server};
        fate.reached = m_reached;
        fate.unsure = !delivered && m_upstream && m_upstream->unsure();
        ++(delivered ? Count().recipientsDelivered : Count().recipientsFailed);
    }
    Report(shipment, replies);
}

// A connection kept from the last message may have died of old age: then, as nothing of this message was answered on
// it, it is made anew.
std::vector<Reply> Delivery::Send(std::string const& route, Shipment const& shipment) {
    bool const kept = m_upstream && m_route == route && m_upstream->alive();
    m_reached = kept;
    if (kept) {
        ++Count().upstreamReused;
        m_upstream->LimitUntil(m_end);
        std::vector<Reply> replies = m_upstream->Send(shipment);
        if (m_upstream->answered() || m_upstream->usable()) return replies;
    }
    Reply const reached = LeftOf(1) ? Reach(route) : Reply{451, "4.4.7", "no time was left to try the next server"};
    m_reached = reached.group() == 2;
    if (reached.group() != 2) return std::vector<Reply>(shipment.recipients.size(), reached);
    return m_upstream->Send(shipment);
}

// 0: nothing is left of the message's limit.
unsigned Delivery::LeftOf(unsigned timeoutMs) const {
    using std::chrono::milliseconds;
    auto const left = std::chrono::duration_cast<milliseconds>(m_end - std::chrono::steady_clock::now()).count();
    return static_cast<unsigned>(std::clamp<long>(left, 0, timeoutMs));
}

// A client whose connection was reset hears no answer, and sends the message again. One that only said its last word
// still listens.
bool Delivery::ClientIsThere() {
    pollfd client{m_session.getSourceConnection().m_stream->GetSocket(), 0, 0};
    m_clientGone = ::poll(&client, 1, 0) == 1 && (client.revents & (POLLERR | POLLHUP));
    return !m_clientGone;
}

void Delivery::Close() {
    if (m_upstream) m_upstream->Quit();
    m_upstream.reset();
    VELT::TCPConnection& server = m_session.getServerConnection();
    delete server.m_stream;
    server.m_stream = nullptr;
}

Reply Delivery::Reach(std::string const& route) {
    Close();
    std::vector<KORnet::TCPAddr> addresses;
    Reply const found = Addresses(route, addresses);
    if (found.group() != 2) return found;
    m_route = route;
    Reply const reply = Walk(addresses);
    if (reply.group() != 2) Close();
    return reply;
}

Reply Delivery::Addresses(std::string const& route, std::vector<KORnet::TCPAddr>& out) const {
    std::vector<KORnet::IPAddr> found;
    std::string const& host = m_settings.relayHost;
    if (host.empty()) {
        Reply const reply = FindExchangers(route, found);
        if (reply.group() != 2) return reply;
    } else if (IsDottedQuad(host)) {
        found.emplace_back(host);
    } else if (m_session.Resolve(host.c_str(), VELT::Connection::RESOLVE_ADDRESS, found, 0, 0) != 0) {
        return {451, "4.4.3", "next server's name could not be looked up"};
    }
    for (KORnet::IPAddr const& address : found) out.emplace_back(address, m_settings.relayPort);
    if (out.empty()) return {451, "4.4.3", "next server has no address"};
    return {250, "", ""};
}

// A transparent session has one address, and never leads back here.
bool Delivery::ConnectNext(std::vector<KORnet::TCPAddr> const& addresses, unsigned& next) {
    unsigned const timeoutMs = LeftOf(VELT::Proxy::s_pProxyInstance->m_connectTimeoutMs);
    if (timeoutMs == 0) return false;
    if (m_settings.transparent && m_settings.showsClient) {
        return next++ < addresses.size() && m_session.ConnectAsClient(timeoutMs);
    }
    bool const checkLoop = m_settings.transparent || m_settings.relayHost.empty() || IsOwnPort(m_settings.relayPort);
    return m_session.Connect(addresses, next, timeoutMs, checkLoop, m_limit.count() ? LeftOf(kLongest) : 0);
}

// Goes through the addresses until a server greets. A server that is there but refuses mail is passed over too.
Reply Delivery::Walk(std::vector<KORnet::TCPAddr> const& addresses) {
    Reply last{451, "4.4.1", "next server cannot be reached"};
    VELT::TCPConnection& server = m_session.getServerConnection();
    unsigned next = 0;
    try {
        while (ConnectNext(addresses, next)) {
            ++Count().upstreamConnects;
            m_upstream = std::make_unique<Upstream>(*server.m_stream, m_settings.upstream);
            m_upstream->LimitUntil(m_end);
            last = m_upstream->Greet(m_settings.greetingName);
            if (last.group() == 2) return last;
            Close();
        }
    } catch (VELT::LoopbackConnection const&) {
        return Circle();
    } catch (KORtk::Exception const& failure) {
        return {451, "4.4.1", "next server cannot be reached"};
    }
    return last;
}

std::string Delivery::Server() const {
    VELT::TCPConnection const& server = m_session.getServerConnection();
    return server.m_addressText.empty() ? m_settings.relayHost : server.m_addressText;
}

void Delivery::Report(Shipment const& shipment, std::vector<Reply> const& replies) const {
    for (bool delivered : {true, false}) {
        std::vector<std::string> recipients;
        Reply shown;
        for (std::size_t i = 0; i < replies.size(); ++i) {
            if ((replies[i].group() == 2) != delivered) continue;
            recipients.push_back(shipment.recipients[i]);
            shown = replies[i];
        }
        if (recipients.empty()) continue;
        QXlog::Event const& event = delivered ? static_cast<QXlog::Event const&>(events::DELIVERED)
                                              : static_cast<QXlog::Event const&>(events::UPSTREAM_FAILED);
        m_session.Note(event, [&](KORlog::InfoBag& bag) {
            bag |= names::SERVER(Server());
            bag |= names::RECIPIENTS(ListOf(recipients));
            if (delivered) bag |= names::SIZE(static_cast<unsigned long>(shipment.content.size()));
            bag |= names::REPLY(OneLine(shown));
        });
    }
}

Reply Delivery::Notify(Message& message, std::string const& text, bool& unsure) {
    Shipment shipment;
    shipment.recipients = {message.senderText()};
    shipment.content.text = text;
    Reply reply;
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (attempt) Close();
        if (unsure) shipment.wanted = [&] { return ReportResent(m_session, ListOf(shipment.recipients), 1), true; };
        reply = Send(RouteOf(LowerCase(message.sender.domain)), shipment).front();
        if (reply.group() == 2) break;
        unsure |= m_upstream && m_upstream->unsure();
        if (unsure && m_settings.keep.enabled) break;
    }
    return reply;
}

}  // namespace smtp
