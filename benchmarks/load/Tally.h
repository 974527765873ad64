// Tally: what became of the sessions of one run, and how long the good ones took. Its memory does not grow with them.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

#include "Exchange.h"

namespace velt_load {

// Durations in microseconds, in buckets that are at most 3 % wide.
class Latencies {
public:
    void Add(double seconds);
    std::uint64_t At(double share) const;  // so many us or less took this share of them
    std::uint64_t longest() const { return m_longest; }

private:
    static constexpr unsigned kFine = 5;  // bits kept of each value

    std::array<std::uint64_t, 64 << kFine> m_buckets{};
    std::uint64_t m_count = 0, m_longest = 0;
};

class Tally {
public:
    void Count(Outcome outcome) { ++m_counts[static_cast<std::size_t>(outcome)]; }
    std::uint64_t good() const { return m_counts[static_cast<std::size_t>(Outcome::OK)]; }
    std::uint64_t over() const;  // good and failed
    std::string Failed() const;  // {"refused":0,...}

    Latencies latencies;

private:
    std::array<std::uint64_t, kOutcomes> m_counts{};
};

}  // namespace velt_load
