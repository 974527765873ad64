#include "Tally.h"

#include <algorithm>
#include <bit>
#include <numeric>

namespace velt_load {

namespace {

constexpr Outcome kFailures[] = {Outcome::REFUSED, Outcome::RESET, Outcome::TRUNCATED, Outcome::TIMEOUT,
                                 Outcome::OTHER};

}  // namespace

void Latencies::Add(double seconds) {
    auto const us = static_cast<std::uint64_t>(std::max(0.0, seconds * 1e6));
    unsigned const bits = static_cast<unsigned>(std::bit_width(us));
    unsigned const shift = bits > kFine + 1 ? bits - kFine - 1 : 0;
    ++m_buckets[(std::size_t{shift} << kFine) + (us >> shift)];
    ++m_count;
    m_longest = std::max(m_longest, us);
}

std::uint64_t Latencies::At(double share) const {
    auto const wanted = static_cast<std::uint64_t>(share * static_cast<double>(m_count));
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < m_buckets.size(); ++i) {
        seen += m_buckets[i];
        if (seen <= wanted || m_buckets[i] == 0) continue;
        std::size_t const shift = i < (2u << kFine) ? 0 : (i >> kFine) - 1;
        return std::min<std::uint64_t>(m_longest, (i - (shift << kFine)) << shift);
    }
    return m_longest;
}

std::uint64_t Tally::over() const { return std::accumulate(m_counts.begin(), m_counts.end(), std::uint64_t{0}); }

std::string Tally::Failed() const {
    std::string text = "{";
    for (Outcome const failure : kFailures) {
        if (text.size() > 1) text += ',';
        text +=
            '"' + std::string(NameOf(failure)) + "\":" + std::to_string(m_counts[static_cast<std::size_t>(failure)]);
    }
    return text + "}";
}

}  // namespace velt_load
