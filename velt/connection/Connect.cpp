// Connecting the server end of a session: by name, over a list, over a list that a caller may resume, and to where the
// client meant to go.
#include <KORtk/Exception.h>
#include <velt/config_details/settings/connection.h>
#include <velt/connection/Connection.h>
#include <velt/errors/Failures.h>
#include <velt/logging/Events.h>
#include <velt/lookup/Resolver.h>
#include <velt/runtime/Clock.h>
#include <velt/streams/TCPStream.h>

#include <algorithm>

namespace VELT {

// One walk over a list of addresses: makes the attempts, reports each, and decides what the last failure becomes.
class Connection::Walk {
public:
    Walk(Connection& session, std::size_t addresses) : m_session(session), m_notLoops(addresses) {}

    // True: connected. False: go on with the next address. Throws what the caller of the walk is to see.
    bool Try(KORnet::IPAddr const& address, unsigned short port, unsigned timeoutMs, bool checkLoopback, bool isLast) {
        return Try(
            [&] {
                return std::make_unique<TCPStream>(address, port, m_session.m_server, static_cast<int>(timeoutMs),
                                                   checkLoopback);
            },
            isLast);
    }

    // `make` connects a stream, or throws.
    template <class Make>
    bool Try(Make make, bool isLast) {
        try {
            m_session.m_server.m_stream = make().release();
        } catch (ConnectionFailure const& failure) {
            m_session.LogAttributes(failure.event, failure.text());
            if (isLast) throw;
            return false;
        } catch (LoopbackConnection const& loop) {
            --m_notLoops;
            m_session.LogAttributes(loop.event, loop.text());
            if (!isLast) return false;
            if (m_notLoops == 0) throw;
            throw ConnectionFailure({__FILE__, __LINE__, __func__}, {}, events::CONNECT_LOOPBACK, 0);
        }
        m_session.LogAttributes(events::UPSTREAM_CONNECTED);
        return true;
    }

private:
    Connection& m_session;
    std::size_t m_notLoops;  // addresses that did not lead back to this proxy; those not tried count as such
};

int Connection::Resolve(char const* name, RESOLVE_LOOKUP_T type, std::vector<KORnet::IPAddr>& out, unsigned first,
                        unsigned maxAddresses) {
    Resolver resolver;
    switch (type) {
        case RESOLVE_ADDRESS:
            return resolver.a_resolve(name, out, first);
        case RESOLVE_MX:
            return resolver.mx_resolve(name, out, first, maxAddresses);
    }
    return -1;
}

bool Connection::Connect(char const* host, unsigned short port, unsigned timeoutMs, bool checkLoopback) {
    m_server.m_host = host;
    auto const maxHosts = ReadSetting<VELTCFG::connection::MaxHosts>(m_config);
    std::vector<KORnet::IPAddr> addresses;
    if (Resolve(host, RESOLVE_ADDRESS, addresses, maxHosts, 0) != 0) {
        m_server.m_addressText.clear();
        return false;
    }
    if (Connect(addresses, port, timeoutMs, checkLoopback)) return true;
    m_server.m_host.clear();
    m_server.m_addressText.clear();
    return false;
}

bool Connection::Connect(std::vector<KORnet::IPAddr>& addresses, unsigned short port, unsigned timeoutMs,
                         bool checkLoopback) {
    m_server.m_port = port;
    Walk walk(*this, addresses.size());
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        m_server.m_addressText = addresses[i].str();
        LogAttributes(events::UPSTREAM_TRYING);
        if (walk.Try(addresses[i], port, timeoutMs, checkLoopback, i + 1 == addresses.size())) return true;
    }
    return false;
}

bool Connection::Connect(std::vector<KORnet::TCPAddr> const& addresses, unsigned& next, unsigned timeoutMs,
                         bool checkLoopback, unsigned budgetMs) {
    Walk walk(*this, addresses.size());
    auto const start = Clock::getTime();
    while (next < addresses.size()) {
        KORnet::TCPAddr const& address = addresses[next];
        m_server.m_addressText = address.str();
        m_server.m_port = address.port();
        ++next;  // before the attempt: it names the address behind this one, whatever comes of it
        m_config.allchange();
        LogAttributes(events::UPSTREAM_TRYING);

        unsigned attemptMs = timeoutMs;
        if (budgetMs != 0) {
            long long const left = static_cast<long long>(budgetMs) - (Clock::getTime() - start) * 1000LL;
            if (left <= 0) return false;
            attemptMs = static_cast<unsigned>(std::min<long long>(left, timeoutMs));
        }
        if (walk.Try(address, address.port(), attemptMs, checkLoopback, next == addresses.size())) return true;
    }
    return false;
}

bool Connection::ConnectAsClient(unsigned timeoutMs) {
    LogAttributes(events::UPSTREAM_TRYING);
    sockaddr_in server = m_server.m_address;
    sockaddr_in client = m_source.m_address;
    auto const make = [&] {
        return std::make_unique<TCPStream>(&server, &client, nullptr, static_cast<int>(timeoutMs), true);
    };
    return Walk(*this, 1).Try(make, true);
}

}  // namespace VELT
