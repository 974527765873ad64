#include "BackOff.h"

#include <algorithm>

namespace smtp {
namespace {

constexpr std::size_t kMaxKnown = 10000;
constexpr unsigned kMaxDoublings = 30;
constexpr std::chrono::seconds kLongestTry{3600};
constexpr double kShortest = 0.75;
constexpr double kSpread = 0.5;
constexpr int kLessPatience = 5;                 // with a destination that failed: a part of the patience with others
constexpr int kSilence = 12;                     // times the patience
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

BackOff::Tries* BackOff::Crowd(Known const& known) {
    if (known.reached) return nullptr;
    if (m_probes.underWay >= m_atOnce) return &m_probes;
    return known.failures && m_probesAgain.underWay >= m_failedAtOnce ? &m_probesAgain : nullptr;
}

BackOff::Tries* BackOff::Full(Known& known) {
    bool const full = known.tries.underWay >= (known.reached ? m_atOnce : 1);
    return full ? &known.tries : Crowd(known);
}

BackOff::Answer BackOff::Enter(Known& known, std::time_t now) {
    if (known.failures && now < known.until) return Answer::Rest;
    if (Full(known)) return Answer::Busy;
    known.tries.Begin();
    if (known.reached) return Answer::Go;
    ++known.probes;
    m_probes.Begin();
    known.again = known.failures != 0;
    if (known.again) m_probesAgain.Begin();
    return Answer::Go;
}

bool BackOff::IsStalled(Known& known) {
    Tries const* const crowd = Crowd(known);
    return Full(known)->stalled || (crowd && crowd->stalled);
}

void BackOff::Stall(Known& known) {
    Full(known)->stalled = true;
    if (Tries* const crowd = Crowd(known)) crowd->stalled = true;
}

void BackOff::EndProbe(Known& known) {
    if (known.probes == 0) return;
    --known.probes;
    m_probes.End();
    if (known.again) m_probesAgain.End();
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

std::chrono::seconds BackOff::LimitOf(std::string const& destination, std::chrono::seconds first) {
    std::lock_guard const lock(m_mutex);
    Known const& known = Find(destination);
    if (known.reached) return std::chrono::seconds(0);
    return std::min(kLongestTry, first * (1l << std::min(known.failures, kMaxDoublings)));
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
    EndProbe(known);
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
