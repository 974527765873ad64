#include <velt/connection/Connection.h>

#include <KORlog/InfoBag.h>
#include <QXStats/QXCounter.h>
#include <arpa/inet.h>
#include <system/UUID.h>
#include <unistd.h>
#include <velt/logging/Events.h>
#include <velt/logging/Keys.h>
#include <velt/logging/Log.h>
#include <velt/lookup/Resolver.h>
#include <velt/runtime/Clock.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/ProxyHealth.h>
#include <velt/streams/TCPStream.h>

#include <algorithm>
#include <cctype>

namespace VELT {

namespace {

std::string DottedText(sockaddr_in const& address) {
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return text;
}

void RecordAddress(TCPConnection& end, sockaddr_in const& address) {
    end.m_address = address;
    end.m_addressText = DottedText(address);
    end.m_port = ntohs(address.sin_port);
}

}  // namespace

QXStats::QXCounter* Connection::s_pNoMessages = nullptr;
QXStats::QXCounter* Connection::s_pPolicyMessages[2] = {nullptr, nullptr};

Connection::Connection()
    : m_deviceAddress(),
      m_workerId(::getpid()),
      m_transparent(false),
      m_startTime(::time(nullptr)),
      m_parentConfig(nullptr) {}

// What the host hung on the session goes first, while its configuration and its two ends still stand.
Connection::~Connection() {
    m_hostObject.reset();
    m_hostObject2.reset();
}

// A host may make another loop in place of the standard one: the counters are made once.
void Connection::Initialise() {
    if (s_pNoMessages) return;
    s_pNoMessages = new QXStats::QXCounter("messages");
    s_pPolicyMessages[0] = new QXStats::QXCounter("from_inside.messages");
    s_pPolicyMessages[1] = new QXStats::QXCounter("from_outside.messages");
}

void Connection::Start() {}

bool Connection::MailStreamCallback(long) { return true; }

bool Connection::ScannerCallback() { return true; }

char const* Connection::ConnectionType() const { return m_transparent ? "Transparent" : "Proxy"; }

void Connection::getConnectionAttributes(IKORPropertyBag*) {}

void Connection::InitialiseConnectionClass(bool, Config&) {}

Config& Connection::GetConfig() { return m_config; }

void Connection::SetConfig(Config& other) { m_config = other; }

bool Connection::Active(char const*) { return false; }

void Connection::generateId() { m_id = UUID::get(); }

void Connection::initialIds() {
    m_id = UUID::get();
    m_conversationId = UUID::get();
}

bool Connection::IsInBound() const { return m_config.inbound; }

bool Connection::IsHealthCheck() const {
    return m_source.m_address.sin_addr.s_addr == htonl(INADDR_LOOPBACK) && ProxyHealth::is_active();
}

bool Connection::SetupInsideOutside() {
    bool outside = false;
    if (!Proxy::FindConnectionDirection(outside, this)) return false;
    m_config.set(outside, this, m_parentConfig);
    return true;
}

bool Connection::ResolveIPAddress(TCPConnection& end) {
    sockaddr_in address = end.m_address;
    return Resolver().reverse_lookup(end.m_host, &address);
}

// The server of an intercepted session is the accepted socket's own name, not the destination that the device gave. In
// proxy mode the server stays unknown until the host connects.
void Connection::SetConnection(Config* config, TCPStream* stream, bool transparent, sockaddr_in& peer,
                               sockaddr_in& destination, sockaddr_in& local) {
    m_deviceAddress = destination;
    m_transparent = transparent;
    m_parentConfig = config;
    m_source.m_stream = stream;
    RecordAddress(m_source, peer);
    m_source.m_flag = false;
    m_server.m_flag = false;
    if (transparent) RecordAddress(m_server, local);
    LogAttributes(events::SESSION_ACCEPTED);
}

void Connection::Run() {
    if (IsHealthCheck()) {
        ProxyHealth::handle_request(m_source.m_stream);
        delete m_source.m_stream;
        m_source.m_stream = nullptr;
        LogAttributes(events::SESSION_BEGINS);
        return;
    }
    initialIds();
    if (!SetupInsideOutside()) return;
    LogAttributes(events::SESSION_BEGINS);
    Start();
}

void Connection::LogAttributes(QXlog::Event const& event, std::string const& text) const {
    LogEvent(
        event,
        [this] {
            KORlog::InfoBag attributes;
            LogConnectionAttributes(attributes);
            return KORlog::InfoBag(QXPROP_CONNECTION(attributes));
        },
        text);
}

void Connection::LogConnectionAttributes(KORlog::InfoBag& bag) const {
    char const* const policy = m_config.inbound ? "from_outside" : "from_inside";
    bag |= QXPROP_CONNECTION_TYPE(ConnectionType());
    if (m_source.m_stream) {
        bag |= QXPROP_SOURCE_IP(m_source.m_addressText);
        bag |= QXPROP_SOURCE_PORT(m_source.m_port);
        bag |= QXPROP_SOURCE_HOSTNAME(m_source.get_host());
        bag |= QXPROP_CONVERSATION_POLICY(policy);
        bag |= QXPROP_AUDIT_CONV_ID(m_conversationId);
    }
    if (!m_server.m_addressText.empty()) {
        bag |= QXPROP_DESTINATION_IP(m_server.m_addressText);
        bag |= QXPROP_DESTINATION_PORT(m_server.m_port);
        bag |= QXPROP_DESTINATION_HOSTNAME(m_server.get_host());
    }
    bag |= QXPROP_AUDIT_ID(m_id);
    bag |= QXPROP_CONVERSATION_START(static_cast<long>(m_startTime));
    bag |= QXPROP_CONVERSATION_DELTA(std::max(0L, static_cast<long>(Clock::getTime() - m_startTime)));
    // A second time, so that the policy is there even for a session without a source stream.
    bag |= QXPROP_CONVERSATION_POLICY(policy);
}

int Connection::TokenizeUsrCmd(char const* text, std::vector<std::string>& tokens) {
    auto const blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    tokens.clear();
    if (!text) return 0;
    while (true) {
        while (*text && blank(*text)) ++text;
        if (!*text) return 0;
        char const* const begin = text;
        while (*text && !blank(*text)) ++text;
        tokens.emplace_back(begin, text);
    }
}

}  // namespace VELT
