#include "FaultyWire.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "DaemonSide.h"

namespace velt_wire {

using velt_testing::Fd;
using velt_testing::SocketPair;

namespace {

constexpr char kRubbish[] = "bad\nbad\n";
constexpr std::size_t kRubbishBytes = sizeof kRubbish - 1;

void CloseHard(Fd& fd) {
    linger const none{1, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    fd.Close();
}

void SendAll(int fd, char const* data, std::size_t length) {
    for (std::size_t went = 0; went < length;) {
        pollfd one{fd, POLLOUT, 0};
        ::poll(&one, 1, -1);
        ssize_t const count = ::send(fd, data + went, length - went, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0) return;  // the other side has left
        went += static_cast<std::size_t>(count);
    }
}

}  // namespace

// What one side says on one connection.
class FaultyWire::Way {
public:
    Way(FaultyWire& wire, Speaker speaker, Fd& from, Fd& to)
        : m_wire(wire), m_speaker(speaker), m_from(from), m_to(to) {}

    bool isOpen() const { return m_open; }
    int from() const { return m_from.get(); }

    // False: the connection is over.
    bool Carry() {
        char data[4096];
        ssize_t const count = ::recv(m_from.get(), data, sizeof data, MSG_DONTWAIT);
        if (count <= 0) {
            m_open = false;
            ::shutdown(m_to.get(), SHUT_WR);
            return true;
        }
        std::string const text(data, static_cast<std::size_t>(count));
        std::size_t const before = m_said.size();
        m_said += text;
        std::size_t at = 0;
        if (!m_wire.Strikes(m_speaker, m_said, at)) return Pass(text), true;
        Pass(text.substr(0, at - before));
        return Strike(text.substr(at - before));
    }

private:
    bool Strike(std::string const& rest) {
        switch (m_wire.m_fault.how) {
            case Break::Reset:
                CloseHard(m_from);
                CloseHard(m_to);
                return false;
            case Break::HalfClose:
                ::shutdown(m_to.get(), SHUT_WR);
                m_isLost = true;
                return true;
            case Break::Stall:
                m_isLost = true;
                return true;
            case Break::Drip:
                m_drips = true;
                break;
            case Break::Rubbish:
                m_spoilt = kRubbishBytes;
                break;
            case Break::Short:
                m_missing = kRubbishBytes;
                break;
        }
        Pass(rest);
        return true;
    }

    void Pass(std::string text) {
        if (m_isLost) return;
        std::size_t const missing = std::min(m_missing, text.size());
        text.erase(0, missing);
        m_missing -= missing;
        for (std::size_t i = 0; i < text.size() && m_spoilt > 0; ++i) text[i] = kRubbish[kRubbishBytes - m_spoilt--];
        if (!m_drips) return SendAll(m_to.get(), text.data(), text.size());
        for (char const one : text) SendAll(m_to.get(), &one, 1);
    }

    FaultyWire& m_wire;
    Speaker m_speaker;
    Fd& m_from;
    Fd& m_to;
    std::string m_said;
    bool m_open = true, m_isLost = false, m_drips = false;
    std::size_t m_spoilt = 0, m_missing = 0;  // bytes that come yet
};

FaultyWire::FaultyWire(std::string spool, Fault fault)
    : m_spool(std::move(spool)), m_fault(std::move(fault)), m_accepting([this] { Accept(); }) {}

FaultyWire::~FaultyWire() {
    ::shutdown(m_listener.fd(), SHUT_RDWR);
    m_accepting.join();
    for (std::thread& one : m_carriers) one.join();
}

bool FaultyWire::HasBroken() const {
    std::lock_guard const hold(m_lock);
    return m_hasBroken;
}

void FaultyWire::Accept() {
    for (;;) {
        Fd client = m_listener.Accept();
        if (client.get() < 0) return;
        m_carriers.emplace_back([this, fd = client.release()] { Carry(Fd(fd)); });
    }
}

void FaultyWire::Carry(Fd client) {
    int const on = 1;
    ::setsockopt(client.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    auto [daemon, far] = SocketPair();
    DaemonSide side(std::move(far), m_spool);
    std::thread thread([&side] { side.Run(false); });
    Way asks(*this, Speaker::Client, client, daemon), answers(*this, Speaker::Daemon, daemon, client);
    for (bool goesOn = true; goesOn && (asks.isOpen() || answers.isOpen());) {
        pollfd both[2] = {{asks.isOpen() ? asks.from() : -1, POLLIN, 0},
                          {answers.isOpen() ? answers.from() : -1, POLLIN, 0}};
        ::poll(both, 2, -1);
        if (both[0].revents) goesOn = asks.Carry();
        if (goesOn && both[1].revents) goesOn = answers.Carry();
    }
    daemon.Close();
    thread.join();
}

// Whether the wire breaks within what this side has said, and behind how much of it.
bool FaultyWire::Strikes(Speaker speaker, std::string const& said, std::size_t& at) {
    std::lock_guard const hold(m_lock);
    if (m_hasBroken || speaker != m_fault.speaker) return false;
    std::size_t found = 0;
    for (unsigned time = 0; time < m_fault.time; ++time, ++found)
        if ((found = said.find(m_fault.behind, found)) == std::string::npos) return false;
    at = found - 1 + m_fault.behind.size();
    return m_hasBroken = true;
}

}  // namespace velt_wire
