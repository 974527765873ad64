#include "tools/velt-policy/Findings.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace velt_policy {
namespace {

// The number that stands in front of the colon at `end`, and where the one before it ends; false: none there.
bool NumberBefore(std::string const& text, std::size_t& end, unsigned& number) {
    std::size_t begin = end;
    while (begin > 0 && text[begin - 1] >= '0' && text[begin - 1] <= '9') --begin;
    if (begin == end || begin == 0 || text[begin - 1] != ':' || end - begin > 9) return false;
    number = static_cast<unsigned>(std::stoul(text.substr(begin, end - begin)));
    end = begin - 1;
    return true;
}

}  // namespace

// A file's name may hold colons, and so may the reason: the place is the first ":line:column: " of the text.
PlacedText SplitPlace(std::string const& text) {
    for (std::size_t at = text.find(": "); at != std::string::npos; at = text.find(": ", at + 1)) {
        PlacedText placed;
        std::size_t end = at;
        if (!NumberBefore(text, end, placed.spot.column) || !NumberBefore(text, end, placed.spot.line)) continue;
        placed.spot.file = text.substr(0, end);
        placed.reason = text.substr(at + 2);
        return placed;
    }
    return {{}, text};
}

void Findings::add(Spot spot, Level level, std::string reason) {
    m_all.push_back({std::move(spot), level, std::move(reason)});
}

void Findings::report(Level level, std::string const& line) {
    auto placed = SplitPlace(line);
    std::size_t const colon = line.find(": ");
    if (placed.spot.file.empty() && colon != std::string::npos)
        placed = {{line.substr(0, colon), 0, 0}, line.substr(colon + 2)};
    add(std::move(placed.spot), level, std::move(placed.reason));
}

void Findings::print(std::FILE* out) {
    auto const key = [](Finding const& one) {
        return std::tie(one.spot.file, one.spot.line, one.spot.column, one.reason);
    };
    std::stable_sort(m_all.begin(), m_all.end(), [&](auto const& a, auto const& b) { return key(a) < key(b); });
    auto const same = [&](auto const& a, auto const& b) { return key(a) == key(b); };
    m_all.erase(std::unique(m_all.begin(), m_all.end(), same), m_all.end());
    for (auto const& [spot, level, reason] : m_all) {
        std::string place = spot.file;
        if (spot.line) place += ':' + std::to_string(spot.line) + ':' + std::to_string(spot.column);
        char const* const word = level == Level::error ? "error" : "warning";
        std::fprintf(out, "%s: %s: %s\n", place.c_str(), word, reason.c_str());
    }
}

}  // namespace velt_policy
