// The wildcard match of names in its plain form: each `*` tries one place after the other, with all that follows, so
// that time grows with a power of the stars. What a faster form answers is compared with it. Owner: none, all is in the
// call. Threads: any. Units: the scores of name_match. Failure: 0 and null, as there.
#pragma once

#include <bitset>

namespace velt_testing {

namespace name_match_model {

inline unsigned char Byte(char c) { return static_cast<unsigned char>(c); }
inline char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

inline void Add(std::bitset<256>& set, unsigned char c) {
    set.set(c);
    if (c >= 'A' && c <= 'Z') set.set(c + 32u);
    if (c >= 'a' && c <= 'z') set.set(c - 32u);
}

}  // namespace name_match_model

// Builds the whole set before it looks.
inline char const* ModelSet(char const* start, unsigned char c) {
    using namespace name_match_model;
    std::bitset<256> set;
    char const* at = start;
    bool const inverted = *at == '^';
    if (inverted) ++at;
    if (*at == ']') Add(set, Byte(*at++));
    for (; *at && *at != ']'; ++at) {
        if (at[1] != '-') {
            Add(set, Byte(*at));
            continue;
        }
        unsigned char first = Byte(*at);
        unsigned char const last = Byte(*(at += 2));
        if (last == ']') break;
        if (last < first) return start;
        do Add(set, first++);
        while (first != last);
    }
    if (*at != ']') return start;
    return set[c] != inverted ? at : nullptr;
}

inline int ModelStar(char const* pattern, char const* name, bool fold, int counter);

inline int ModelMatch(char const* pattern, char const* name, bool fold) {
    using namespace name_match_model;
    int counter = 0;
    for (;; ++name) {
        if (*pattern == 0) return *name == 0 ? counter + 1 : 0;
        if (*pattern == '*') return ModelStar(pattern, name, fold, counter);
        if (*name == 0) return 0;
        if (*pattern != '[') {
            if (fold ? Lower(*pattern) != Lower(*name) : *pattern != *name) return 0;
            ++pattern;
            continue;
        }
        char const* const end = ModelSet(pattern + 1, Byte(*name));
        if (!end) return 0;
        pattern = *end ? end + 1 : end;
        counter = 1;
    }
}

inline int ModelStar(char const* pattern, char const* name, bool fold, int counter) {
    while (*pattern == '*') ++pattern;
    for (; *name; ++name) {
        if (*pattern)
            if (int const rest = ModelMatch(pattern, name, fold)) return rest + 1 + counter;
        if (*name == '.') ++counter;
    }
    return *pattern ? 0 : counter + 2;
}

}  // namespace velt_testing
