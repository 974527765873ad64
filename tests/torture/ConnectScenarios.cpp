// A session that looks for its server, and one whose two ends are joined.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <velt/connection/Connection.h>
#include <velt/connection/Plug.h>
#include <velt/streams/TCPStream.h>

#include <atomic>
#include <system_error>
#include <thread>

#include "Peer.h"
#include "Scenario.h"

using KORnet::IPAddr;
using KORnet::TCPAddr;
using VELT::Connection;
using VELT::TCPStream;

namespace torture {

namespace {

constexpr unsigned kTimeoutMs = 5000;
constexpr int kPlugMs = 5000;
constexpr unsigned kPlugged = 200000;  // enough to go through the kernel
char const kGood[] = "127.0.0.1";
char const kNobody[] = "127.0.0.3";  // refuses; not one of the world's own
char const kHello[] = "Is anybody there?";

// A stream that is said to be connected carries bytes there and back.
std::string Speak(TCPStream& stream) {
    std::string answer(sizeof kHello, '\0');
    if (stream.write(kHello, sizeof kHello) != 0) return "not connected";
    if (stream.read(answer.data(), sizeof kHello) != 0) return "nobody answers";
    return Compare("answer", answer, std::string(kHello, sizeof kHello));
}

bool ToTheFirst(Connection& session, unsigned short port) {
    std::vector<IPAddr> addresses{IPAddr(kGood)};
    return session.Connect(addresses, port, kTimeoutMs, false);
}

bool ToTheThird(Connection& session, unsigned short port) {
    std::vector<IPAddr> addresses{IPAddr(kNobody), IPAddr(kNobody), IPAddr(kGood)};
    return session.Connect(addresses, port, kTimeoutMs, false);
}

bool ToANumber(Connection& session, unsigned short port) { return session.Connect(kGood, port, kTimeoutMs, false); }

bool ToAName(Connection& session, unsigned short port) { return session.Connect("localhost", port, kTimeoutMs, false); }

// A walk that goes on after an address that was rejected.
bool ByAWalk(Connection& session, unsigned short port) {
    std::vector<TCPAddr> addresses;
    for (char const* const text : {kNobody, kNobody, kGood}) addresses.emplace_back(IPAddr(text), port);
    unsigned next = 1;
    return session.Connect(addresses, next, kTimeoutMs, false, 60000) && next == 3;
}

template <bool (*connect)(Connection&, unsigned short)>
class Upstream : public Scenario {
public:
    bool Act() override { return connect(m_session, m_server.port()); }
    std::string Judge() override {
        TCPStream* const stream = m_session.getServerConnection().m_stream;
        return stream ? Speak(*stream) : "connected without a stream";
    }

private:
    EchoServer m_server;  // outlives what speaks with it
    Connection m_session;
};

// A process that listens on a path.
class LocalUpstream : public Scenario {
public:
    LocalUpstream() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        m_path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(m_listener, 1) != 0)
            throw std::system_error(errno, std::generic_category(), m_path);
    }
    ~LocalUpstream() override {
        ::close(m_listener);
        ::unlink(m_path.c_str());
    }
    bool Act() override {
        m_stream = std::make_unique<TCPStream>(m_path, static_cast<int>(kTimeoutMs));
        return true;
    }
    std::string Judge() override {
        int const far = ::accept(m_listener, nullptr, nullptr);
        char hello[sizeof kHello] = "";
        if (m_stream->write(kHello, sizeof kHello) != 0) return "not connected";
        [[maybe_unused]] auto const length = ::recv(far, hello, sizeof hello, MSG_WAITALL);
        ::close(far);
        return Compare("greeting", hello, kHello);
    }

private:
    std::string m_path = SpoolPath("upstream");
    int m_listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    std::unique_ptr<TCPStream> m_stream;
};

// A client that comes once it is told where to, says its greeting and waits for the end.
class Caller {
public:
    Caller() : m_thread(&Caller::Call, this) {}
    ~Caller() {
        Tell(kNowhere);
        m_thread.join();
    }
    void Tell(int port) {
        int untold = 0;
        if (m_port.compare_exchange_strong(untold, port)) m_port.notify_one();
    }

private:
    static constexpr int kNowhere = -1;
    void Call() {
        SpareThisThread();
        m_port.wait(0);
        if (m_port == kNowhere) return;
        try {
            TCPStream server(ConnectTo(static_cast<unsigned short>(m_port)));
            server.set_timeout(kTimeoutMs);
            char answer;
            if (server.write(kHello, sizeof kHello) == 0) static_cast<void>(server.read(&answer, 1));
        } catch (std::system_error const&) {  // nobody listens any more
        }
    }
    std::atomic<int> m_port{0};
    std::thread m_thread;
};

// A stream that listens and gives one for a client.
class Accepts : public Scenario {
public:
    bool Act() override {
        sockaddr_in address = velt_testing::Address(kGood, 0);
        unsigned length = sizeof address;
        auto* const name = reinterpret_cast<sockaddr*>(&address);
        m_listener.CreateSocket(AF_INET);
        m_listener.Bind(name, length);
        m_listener.Listen(1);
        m_listener.GetSockName(name, &length);
        m_caller.Tell(ntohs(address.sin_port));
        m_client.reset(m_listener.Accept(name, &length));
        m_client->set_timeout(kTimeoutMs);
        return true;
    }
    std::string Judge() override {
        std::string greeting(sizeof kHello, '\0');
        if (m_client->read(greeting.data(), sizeof kHello) != 0) return "nobody speaks";
        return Compare("greeting", greeting, std::string(kHello, sizeof kHello));
    }

private:
    Caller m_caller;  // waits for the streams' end
    TCPStream m_listener;
    std::unique_ptr<TCPStream> m_client;
};

// A plug says nothing: what arrives is the beginning of what was sent, and no byte is changed, doubled or left out.
class Plugged : public Scenario {
public:
    bool Act() override {
        VELT::Plug(*m_client, *m_server, kPlugMs).Run();
        m_client.reset();
        m_server.reset();
        return true;
    }
    std::string Judge() override {
        std::string const& got = m_collector.Got();
        return Compare("plugged", got, m_text.substr(0, got.size()));
    }

private:
    std::string const m_text = Numbered(kPlugged);
    Line m_up, m_down;
    Feeder m_feeder{m_up.far, m_text};
    Collector m_collector{m_down.far};
    std::unique_ptr<TCPStream> m_client = std::make_unique<TCPStream>(m_up.near);
    std::unique_ptr<TCPStream> m_server = std::make_unique<TCPStream>(m_down.near);
};

}  // namespace

std::vector<NamedScenario> ConnectScenarios() {
    return {
        {"connects_to_the_first", &Make<Upstream<ToTheFirst>>},
        {"connects_to_the_third", &Make<Upstream<ToTheThird>>},
        {"connects_to_a_number", &Make<Upstream<ToANumber>>},
        {"connects_to_a_name", &Make<Upstream<ToAName>>},
        {"connects_by_a_walk", &Make<Upstream<ByAWalk>>},
        {"connects_to_a_path", &Make<LocalUpstream>},
        {"accepts", &Make<Accepts>},
        {"plugs", &Make<Plugged>},
    };
}

}  // namespace torture
