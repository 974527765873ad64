// Connections that drip: a byte in each interval, and never the end of a line.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

#include "Loop.h"
#include "Options.h"
#include "Tally.h"

namespace velt_load {

namespace {

class SlowRun {
public:
    explicit SlowRun(Options const& options) : m_options(options), m_begun(Now()) {
        m_clients.reserve(options.connections);
        m_loop.WatchStandardInput();
    }

    // A server under pressure need not accept them: whether they got through shows later.
    void BeginAll() {
        while (m_clients.size() < m_options.connections && !m_loop.stopped()) {
            Turn(m_begun + static_cast<double>(m_clients.size()) / m_options.ramp - Now());
            if (Now() - m_begun >= static_cast<double>(m_clients.size()) / m_options.ramp) Begin();
        }
    }

    // Every client sends a byte in each interval; they take their turns all through it.
    void Drip() {
        double const step =
            m_options.intervalMs / 1000.0 / static_cast<double>(std::max<std::size_t>(1, m_clients.size()));
        double due = Now();
        for (std::size_t turn = 0; !Over();) {
            for (; due <= Now() && !m_clients.empty(); due += step) DripOne(turn++);
            Turn(due - Now());
        }
    }

    void CountUnconnected() {
        for (Client const& client : m_clients) {
            if (client.exchange && !client.connected) m_tally.Count(Outcome::TIMEOUT);
        }
    }

    std::size_t begun() const { return m_clients.size(); }
    std::size_t closedByPeer() const { return m_closed; }
    Tally const& tally() const { return m_tally; }

private:
    struct Client {
        std::unique_ptr<Exchange> exchange;  // empty: it is over
        bool connected = false;
    };

    bool Over() const { return m_loop.ended() || (m_options.seconds != 0 && Now() - m_begun >= m_options.seconds); }

    void Begin() {
        std::size_t const number = m_clients.size();
        Client& client = m_clients.emplace_back();
        client.exchange = std::make_unique<Exchange>();
        Outcome const outcome = client.exchange->Connect(m_options.target);
        if (outcome != Outcome::PENDING) return Fail(client, outcome);
        m_loop.Add(client.exchange->descriptor(), true, number);
    }

    // Only connects are waited for; what comes later is seen in a client's turn.
    void Turn(double seconds) {
        std::size_t const count = m_loop.Wait(std::min(seconds, 0.1));
        for (std::size_t i = 0; i < count; ++i) {
            Client& client = m_clients[m_loop.number(i)];
            m_loop.Remove(client.exchange->descriptor());
            Outcome const outcome = client.exchange->Connected();
            if (outcome != Outcome::OK) {
                Fail(client, outcome);
                continue;
            }
            m_tally.Count(outcome);
            client.connected = true;
        }
    }

    void Fail(Client& client, Outcome outcome) {
        m_tally.Count(outcome);
        client.exchange.reset();
    }

    void DripOne(std::size_t turn) {
        Client& client = m_clients[turn % m_clients.size()];
        if (!client.exchange || !client.connected) return;
        if (client.exchange->Trickle(turn) == Outcome::PENDING) return;
        ++m_closed;
        client.exchange.reset();
    }

    Options const& m_options;
    Loop m_loop;
    Tally m_tally;  // of connects
    std::vector<Client> m_clients;
    std::size_t m_closed = 0;
    double m_begun;
};

}  // namespace

int RunSlow(Options const& options) {
    if (options.target.address.sin_port == 0 || options.connections == 0) Usage();
    SlowRun run(options);
    run.BeginAll();
    std::printf("{\"begun\":%zu}\n", run.begun());
    std::fflush(stdout);
    run.Drip();
    run.CountUnconnected();
    std::printf("{\"connected\":%lu,\"closed_by_peer\":%zu,\"failed\":%s}\n", run.tally().good(), run.closedByPeer(),
                run.tally().Failed().c_str());
    return 0;
}

}  // namespace velt_load
