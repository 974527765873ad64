// Sessions that make one exchange, are held open in silence, and make another one at the end.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

#include "Loop.h"
#include "Options.h"
#include "Tally.h"

namespace velt_load {

namespace {

class IdleRun {
public:
    explicit IdleRun(Options const& options) : m_options(options) {
        m_sessions.reserve(options.connections);
        m_loop.WatchStandardInput();
    }

    void Open() {
        double const begun = Now();
        auto const due = [&] { return Now() - begun >= static_cast<double>(m_sessions.size()) / m_options.ramp; };
        while (m_sessions.size() < m_options.connections || m_pending != 0) {
            while (m_sessions.size() < m_options.connections && due()) Start();
            Turn(0.01);
            if (Now() - begun > Patience() || m_loop.stopped()) return GiveUp();
        }
    }

    void Hold() {
        while (!m_loop.ended()) Turn(1);
    }

    void AskAgain() {
        m_again = true;
        for (std::size_t i = 0; i < m_sessions.size(); ++i) {
            if (m_sessions[i].exchange) AskOnce(i);
        }
        double const begun = Now();
        while (m_pending != 0 && Now() - begun <= Patience()) Turn(0.01);
        GiveUp();
    }

    std::size_t alive() const {
        if (m_again) return m_since.good();
        return static_cast<std::size_t>(std::count_if(m_sessions.begin(), m_sessions.end(),
                                                      [](Session const& session) { return !!session.exchange; }));
    }
    Tally const& opening() const { return m_opening; }
    Tally const& since() const { return m_since; }

private:
    struct Session {
        std::unique_ptr<Exchange> exchange;  // empty: it is over
        bool asked = true;                   // an answer is to come
    };

    double Patience() const { return m_options.connections / m_options.ramp + m_options.timeoutMs / 1000.0; }

    void Start() {
        std::size_t const number = m_sessions.size();
        Session& session = m_sessions.emplace_back();
        session.exchange = std::make_unique<Exchange>();
        ++m_pending;
        Outcome const outcome = session.exchange->Connect(m_options.target);
        if (outcome != Outcome::PENDING) return Judge(number, outcome);
        m_loop.Add(session.exchange->descriptor(), true, number);
    }

    void AskOnce(std::size_t number) {
        Session& session = m_sessions[number];
        session.asked = true;
        ++m_pending;
        Outcome const outcome = session.exchange->Again(m_options.target);
        if (session.exchange->WantsToWrite()) m_loop.Change(session.exchange->descriptor(), true, number);
        Judge(number, outcome);
    }

    void Turn(double seconds) {
        std::size_t const count = m_loop.Wait(seconds);
        for (std::size_t i = 0; i < count; ++i) {
            Session& session = m_sessions[m_loop.number(i)];
            if (!session.exchange) continue;
            session.asked ? Proceed(m_loop.number(i)) : Listen(session);
        }
    }

    void Proceed(std::size_t number) {
        Exchange& exchange = *m_sessions[number].exchange;
        bool const wrote = exchange.WantsToWrite();
        Outcome const outcome = exchange.Proceed(m_options.target);
        if (wrote && !exchange.WantsToWrite()) m_loop.Change(exchange.descriptor(), false, number);
        Judge(number, outcome);
    }

    // Nothing is asked: what comes is the end, or a text that nobody waits for.
    void Listen(Session& session) {
        Outcome const outcome = session.exchange->Listen();
        if (outcome == Outcome::PENDING) return;
        m_since.Count(outcome);
        session.exchange.reset();
    }

    void Judge(std::size_t number, Outcome outcome) {
        if (outcome == Outcome::PENDING) return;
        Session& session = m_sessions[number];
        (m_again ? m_since : m_opening).Count(outcome);
        session.asked = false;
        --m_pending;
        if (m_again || outcome != Outcome::OK) session.exchange.reset();
    }

    void GiveUp() {
        for (std::size_t i = 0; i < m_sessions.size(); ++i) {
            if (m_sessions[i].exchange && m_sessions[i].asked) Judge(i, Outcome::TIMEOUT);
        }
    }

    Options const& m_options;
    Loop m_loop;
    Tally m_opening, m_since;  // the first exchanges; what became of the sessions after them
    std::vector<Session> m_sessions;
    std::size_t m_pending = 0;
    bool m_again = false;
};

}  // namespace

int RunIdle(Options const& options) {
    if (options.target.address.sin_port == 0 || options.connections == 0) Usage();
    IdleRun run(options);
    run.Open();
    std::printf("{\"ready\":%lu,\"failed\":%s}\n", run.opening().good(), run.opening().Failed().c_str());
    std::fflush(stdout);
    run.Hold();
    if (!options.abandon) run.AskAgain();
    std::printf("{\"alive\":%zu,\"failed\":%s}\n", run.alive(), run.since().Failed().c_str());
    return 0;
}

}  // namespace velt_load
