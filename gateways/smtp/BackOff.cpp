#include "BackOff.h"

#include <algorithm>

namespace smtp {
namespace {

constexpr std::size_t kMaxKnown = 10000;
constexpr unsigned kMaxDoublings = 30;
constexpr double kShortest = 0.75;
constexpr double kSpread = 0.5;
constexpr int kLessPatience = 5;                 // with a destination that failed: a part of the patience with others
constexpr int kSilence = 6;                      // times the patience
constexpr std::chrono::milliseconds kStep{200};  // how often a wait looks whether it is over

}  // namespace

std::time_t PauseAfter(unsigned failures, PauseLimits const& limits, double random) {
    double const doubled =
        static_cast<double>(limits.first) * static_cast<double>(1u << std::min(failures, kMaxDoublings)) / 2;
    double const pause = std::min(doubled, static_cast<double>(limits.longest)) * (kShortest + kSpread * random);
    return std::max<std::time_t>(1, static_cast<std::time_t>(pause));
}

BackOff::Known& BackOff::Find(std::string const& destination) {
    auto const found = m_known.find(destination);
    if (found != m_known.end()) return found->second;
    if (m_known.size() >= kMaxKnown) MakeRoom();
    return m_known[destination];
}

void BackOff::Tries::Begin() {
    if (underWay++ == 0) heard = Clock::now();
}

void BackOff::Tries::End() {
    if (underWay) --underWay;
    stalled = false;
    heard = Clock::now();
}

bool BackOff::IsCrowded(Known const& known) const { return !known.reached && m_probes.underWay >= m_atOnce; }

BackOff::Tries* BackOff::Full(Known& known) {
    if (known.tries.underWay >= (known.reached ? m_atOnce : 1)) return &known.tries;
    return IsCrowded(known) ? &m_probes : nullptr;
}

BackOff::Answer BackOff::Enter(Known& known, std::time_t now) {
    if (known.failures && now < known.until) return Answer::Rest;
    if (Full(known)) return Answer::Busy;
    known.tries.Begin();
    if (known.reached) return Answer::Go;
    ++known.probes;
    m_probes.Begin();
    return Answer::Go;
}

bool BackOff::IsStalled(Known& known) { return Full(known)->stalled || (IsCrowded(known) && m_probes.stalled); }

void BackOff::Stall(Known& known) {
    Full(known)->stalled = true;
    m_probes.stalled |= IsCrowded(known);
}

std::time_t BackOff::Now() {
    return std::chrono::duration_cast<std::chrono::seconds>(Clock::now().time_since_epoch()).count();
}

BackOff::Answer BackOff::Ask(std::string const& destination, std::time_t now) {
    std::lock_guard const lock(m_mutex);
    return Enter(Find(destination), now);
}

BackOff::Answer BackOff::AskPatiently(std::string const& destination, std::chrono::milliseconds patience,
                                      std::function<bool()> const& stopped) {
    std::unique_lock lock(m_mutex);
    auto const begin = Clock::now();
    while (!stopped()) {
        Known& known = Find(destination);
        Answer const answer = Enter(known, Now());
        if (answer != Answer::Busy) return answer;
        auto const now = Clock::now();
        if (IsStalled(known)) return now - Full(known)->heard < kSilence * patience ? Answer::Busy : Answer::Silent;
        if (now - begin >= (known.failures ? patience / kLessPatience : patience)) {
            Stall(known);
            return answer;
        }
        m_told.wait_for(lock, kStep);
    }
    return Answer::Busy;
}

void BackOff::Insist(std::string const& destination) {
    std::lock_guard const lock(m_mutex);
    Find(destination).tries.Begin();
}

void BackOff::EndPause(std::string const& destination, std::time_t asked) {
    std::lock_guard const lock(m_mutex);
    auto const found = m_known.find(destination);
    if (found != m_known.end() && found->second.from <= asked) found->second.until = found->second.from;
}

// Those that set out together fail together: that is one failure.
void BackOff::Tell(std::string const& destination, Outcome outcome, std::time_t now, PauseLimits const& limits) {
    double const random = Random();
    std::lock_guard const lock(m_mutex);
    Known& known = Find(destination);
    known.tries.End();
    if (known.probes) {
        --known.probes;
        m_probes.End();
    }
    m_told.notify_all();
    if (outcome == Outcome::Unknown) return;
    known.reached = outcome == Outcome::Reached;
    if (known.reached) known.failures = 0;
    bool const further = known.failures == 0 || now >= known.until;
    if (!known.reached && further) ++known.failures;
    known.from = now;
    known.until = now + PauseAfter(known.failures, limits, random);
}

double BackOff::Random() {
    std::lock_guard const lock(m_mutex);
    return std::uniform_real_distribution<double>(0, 1)(m_random);
}

// Tries that are under way are as few as there are threads.
void BackOff::MakeRoom() {
    auto const oldest = std::min_element(m_known.begin(), m_known.end(), [](auto const& one, auto const& other) {
        return std::pair(one.second.tries.underWay != 0, one.second.from) <
               std::pair(other.second.tries.underWay != 0, other.second.from);
    });
    if (oldest->second.tries.underWay == 0) m_known.erase(oldest);
}

}  // namespace smtp
