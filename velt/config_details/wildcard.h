// Wildcard: the match of an expression that consists of nothing but translated wildcards: "^", then for each character
// ".*" (any run), "." (any one) or the character itself, escaped where it needs it, then "$". Its outcome is that of
// the expression library, which takes longer, and a thousand times longer where many stars do not match. The time is
// that of pattern times text at most, and no memory is taken below 128 characters.
// Private to this folder. Owner: the match, on its stack. Threads: its own.
// Failure: parse() is false for any other expression; nothing may be matched then.
#pragma once

#include <boost/container/small_vector.hpp>

#include <cstddef>
#include <string_view>

namespace VELT::config_types::detail {

class Wildcard {
public:
    bool parse(std::string_view expression);

    // The whole text. fold(c) is the one form of a letter that stands for all of its cases.
    template <class Fold>
    bool matches(std::string_view text, Fold fold) const;

private:
    // Besides a character itself, as unsigned char.
    static constexpr short kAnyRun = -1;
    static constexpr short kAnyOne = -2;

    template <class Fold>
    static bool IsOneOf(short unit, char c, Fold fold);
    template <class Fold>
    static std::size_t Find(short const* first, short const* last, std::string_view text, Fold fold);
    template <class Fold>
    static bool MatchRuns(short const* first, short const* last, std::string_view text, Fold fold);

    boost::container::small_vector<short, 128> m_units;
};

template <class Fold>
bool Wildcard::IsOneOf(short unit, char c, Fold fold) {
    if (unit == kAnyOne || unit == static_cast<unsigned char>(c)) return true;
    return unit != kAnyRun && fold(static_cast<char>(unit)) == fold(c);
}

// Where the units, none of them a run, first fit into the text; npos: nowhere.
template <class Fold>
std::size_t Wildcard::Find(short const* first, short const* last, std::string_view text, Fold fold) {
    std::size_t const length = static_cast<std::size_t>(last - first);
    for (std::size_t at = 0; at + length <= text.size(); ++at) {
        std::size_t same = 0;
        while (same < length && IsOneOf(first[same], text[at + same], fold)) ++same;
        if (same == length) return at;
    }
    return std::string_view::npos;
}

// Units that begin and end with a run. What stands between two runs is put where it first fits: a later place could
// only leave less for the rest.
template <class Fold>
bool Wildcard::MatchRuns(short const* first, short const* last, std::string_view text, Fold fold) {
    while (first != last) {
        short const* const begin = first + 1;
        short const* end = begin;
        while (end != last && *end != kAnyRun) ++end;
        std::size_t const at = Find(begin, end, text, fold);
        if (at == std::string_view::npos) return false;
        text.remove_prefix(at + static_cast<std::size_t>(end - begin));
        first = end;
    }
    return true;
}

template <class Fold>
bool Wildcard::matches(std::string_view text, Fold fold) const {
    short const* first = m_units.data();
    short const* last = first + m_units.size();
    for (; first != last && *first != kAnyRun; ++first) {
        if (text.empty() || !IsOneOf(*first, text.front(), fold)) return false;
        text.remove_prefix(1);
    }
    if (first == last) return text.empty();
    for (; last[-1] != kAnyRun; --last) {
        if (text.empty() || !IsOneOf(last[-1], text.back(), fold)) return false;
        text.remove_suffix(1);
    }
    return MatchRuns(first, last, text, fold);
}

}  // namespace VELT::config_types::detail
