// Sessions that come and go: so many a second, or as many as a number of clients make.
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <memory>
#include <vector>

#include "Loop.h"
#include "Options.h"
#include "Tally.h"

namespace velt_load {

namespace {

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

double OwnCpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    auto const seconds = [](timeval time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

class ConnectRun {
public:
    explicit ConnectRun(Options const& options) : m_options(options), m_slots(options.clients) {
        for (unsigned i = options.clients; i > 0; --i) m_free.push_back(i - 1);
        if (!options.failureLog.empty()) m_log.reset(std::fopen(options.failureLog.c_str(), "we"));
    }

    void Run() {
        m_begun = Now();
        m_due = m_begun;
        while (!Finished()) {
            StartDue();
            std::size_t const count = m_loop.Wait(UntilNext());
            for (std::size_t i = 0; i < count; ++i) Serve(m_loop.number(i));
            ExpireOld();
        }
        m_ended = Now();
    }

    void Print() const {
        double const seconds = m_ended - m_begun;
        auto const& latencies = m_tally.latencies;
        double const good = static_cast<double>(m_tally.good());
        std::printf(
            "{\"sessions\":%lu,\"failed\":%s,\"late\":%lu,\"seconds\":%.3f,\"rate\":%.1f,"
            "\"latency_us\":{\"p50\":%lu,\"p99\":%lu,\"p999\":%lu,\"max\":%lu},\"over_900_ms\":%lu,"
            "\"cpu_us_per_session\":%.2f}\n",
            m_tally.good(), m_tally.Failed().c_str(), m_late, seconds, good / seconds, latencies.At(0.5),
            latencies.At(0.99), latencies.At(0.999), latencies.longest(), m_slow,
            OwnCpuSeconds() * 1e6 / std::max(1.0, good));
    }

private:
    static constexpr double kSlowSeconds = 0.9;  // about what a lost SYN costs
    static constexpr double kLateSeconds = 0.01;

    struct Begun {
        double time;
        unsigned slot;
        unsigned long session;
    };
    struct Slot {
        std::unique_ptr<Exchange> exchange;
        unsigned long session = 0;
    };

    bool NoMore() const {
        return m_loop.ended() || (m_options.sessions != 0 && m_started >= m_options.sessions) ||
               (m_options.seconds != 0 && Now() - m_begun >= m_options.seconds);
    }
    bool Finished() const { return m_free.size() == m_slots.size() && NoMore(); }

    double UntilNext() const {
        double next = m_order.empty() ? 0.1 : m_order.front().time + Limit() - Now();
        if (m_options.rate != 0 && !m_free.empty() && !NoMore()) next = std::min(next, m_due - Now());
        return std::min(next, 0.1);
    }
    double Limit() const { return m_options.timeoutMs / 1000.0; }

    void StartDue() {
        while (!m_free.empty() && !NoMore() && (m_options.rate == 0 || m_due <= Now())) {
            if (m_options.rate != 0) {
                if (Now() - m_due > kLateSeconds) ++m_late;
                m_due += 1 / m_options.rate;
            }
            Start();
        }
    }

    void Start() {
        unsigned const number = m_free.back();
        m_free.pop_back();
        Slot& slot = m_slots[number];
        slot.exchange = std::make_unique<Exchange>();
        slot.session = ++m_started;
        slot.exchange->begun = Now();
        m_order.push_back({slot.exchange->begun, number, slot.session});
        Outcome const outcome = slot.exchange->Connect(m_options.target);
        if (outcome != Outcome::PENDING) return End(number, outcome);
        m_loop.Add(slot.exchange->descriptor(), true, number);
    }

    void Serve(std::uint64_t number) {
        Exchange* const exchange = m_slots[number].exchange.get();
        if (!exchange) return;
        bool const wrote = exchange->WantsToWrite();
        Outcome const outcome = exchange->Proceed(m_options.target);
        if (outcome != Outcome::PENDING) return End(static_cast<unsigned>(number), outcome);
        if (wrote && !exchange->WantsToWrite()) m_loop.Change(exchange->descriptor(), false, number);
    }

    void End(unsigned number, Outcome outcome) {
        Slot& slot = m_slots[number];
        double const now = Now();
        m_tally.Count(outcome);
        if (outcome == Outcome::OK) m_tally.latencies.Add(now - slot.exchange->begun);
        if (now - slot.exchange->begun > kSlowSeconds) ++m_slow;
        if (outcome != Outcome::OK && m_log) {
            std::fprintf(m_log.get(), "%.6f %u %s\n", now, slot.exchange->sourcePort(), NameOf(outcome));
        }
        slot.exchange.reset();
        m_free.push_back(number);
    }

    // The oldest stand first; one that has ended is passed over.
    void ExpireOld() {
        while (!m_order.empty()) {
            Begun const oldest = m_order.front();
            Slot const& slot = m_slots[oldest.slot];
            bool const open = slot.exchange && slot.session == oldest.session;
            if (open && Now() - oldest.time < Limit()) return;
            m_order.pop_front();
            if (open) End(oldest.slot, Outcome::TIMEOUT);
        }
    }

    Options const& m_options;
    Loop m_loop;
    Tally m_tally;
    std::vector<Slot> m_slots;
    std::vector<unsigned> m_free;
    std::deque<Begun> m_order;
    std::unique_ptr<std::FILE, CloseFile> m_log;
    unsigned long m_started = 0, m_late = 0, m_slow = 0;
    double m_begun = 0, m_due = 0, m_ended = 0;
};

}  // namespace

int RunConnect(Options const& options) {
    if (options.target.address.sin_port == 0 || (options.seconds == 0 && options.sessions == 0)) Usage();
    ConnectRun run(options);
    run.Run();
    run.Print();
    return 0;
}

}  // namespace velt_load
