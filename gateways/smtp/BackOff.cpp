#include "BackOff.h"

#include <algorithm>

namespace smtp {
namespace {

constexpr std::size_t kMaxFailing = 10000;
constexpr unsigned kMaxDoublings = 30;
constexpr double kShortest = 0.75;
constexpr double kSpread = 0.5;

}  // namespace

std::time_t PauseAfter(unsigned failures, PauseLimits const& limits, double random) {
    double const doubled =
        static_cast<double>(limits.first) * static_cast<double>(1u << std::min(failures, kMaxDoublings)) / 2;
    double const pause = std::min(doubled, static_cast<double>(limits.longest)) * (kShortest + kSpread * random);
    return std::max<std::time_t>(1, static_cast<std::time_t>(pause));
}

BackOff::Answer BackOff::Ask(std::string const& destination, std::time_t now) {
    std::lock_guard const lock(m_mutex);
    auto const found = m_failing.find(destination);
    if (found == m_failing.end()) return Answer::Go;
    Failing& failing = found->second;
    if (failing.tried) return Answer::Busy;
    if (failing.from <= now && now < failing.until) return Answer::Rest;  // a clock that was set back ends a pause
    failing.tried = true;
    return Answer::Go;
}

void BackOff::Tell(std::string const& destination, Outcome outcome, std::time_t now, PauseLimits const& limits) {
    double const random = Random();
    std::lock_guard const lock(m_mutex);
    if (outcome == Outcome::Reached) return void(m_failing.erase(destination));
    auto const found = m_failing.find(destination);
    if (outcome == Outcome::Unknown) {
        if (found != m_failing.end()) found->second.tried = false;
        return;
    }
    if (found == m_failing.end() && m_failing.size() >= kMaxFailing) MakeRoom();
    Failing& failing = m_failing[destination];
    // Those that set out together fail together: that is one failure.
    if (failing.failures == 0 || failing.tried || now >= failing.until) ++failing.failures;
    failing.tried = false;
    failing.from = now;
    failing.until = now + PauseAfter(failing.failures, limits, random);
}

double BackOff::Random() {
    std::lock_guard const lock(m_mutex);
    return std::uniform_real_distribution<double>(0, 1)(m_random);
}

void BackOff::MakeRoom() {
    auto const oldest = std::min_element(m_failing.begin(), m_failing.end(), [](auto const& one, auto const& other) {
        return one.second.from < other.second.from;
    });
    if (oldest != m_failing.end()) m_failing.erase(oldest);
}

}  // namespace smtp
