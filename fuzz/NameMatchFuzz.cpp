// The wildcard match against the plain recursive form of it, whose time explodes and which short inputs keep in check.
#include <velt/streams/NameMatch.h>

#include <algorithm>
#include <bitset>
#include <string>

#include "fuzz/Input.h"

using velt_fuzz::Require;

namespace {

unsigned char Byte(char c) { return static_cast<unsigned char>(c); }
char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

void Add(std::bitset<256>& set, unsigned char c) {
    set.set(c);
    if (c >= 'A' && c <= 'Z') set.set(c + 32u);
    if (c >= 'a' && c <= 'z') set.set(c - 32u);
}

// Builds the whole set before it looks.
char const* ModelSet(char const* start, unsigned char c) {
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

int ModelStar(char const* pattern, char const* name, bool fold, int counter);

int Model(char const* pattern, char const* name, bool fold) {
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

int ModelStar(char const* pattern, char const* name, bool fold, int counter) {
    while (*pattern == '*') ++pattern;
    for (; *name; ++name) {
        if (*pattern)
            if (int const rest = Model(pattern, name, fold)) return rest + 1 + counter;
        if (*name == '.') ++counter;
    }
    return *pattern ? 0 : counter + 2;
}

bool Few(std::string const& pattern) { return std::count(pattern.begin(), pattern.end(), '*') <= 4; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    velt_fuzz::Input input(data, size);
    bool const fold = input.Byte() % 2 == 1;
    std::string const pattern(input.Line().c_str());
    std::string const name(input.Line().c_str());
    int const score = VELT::name_match(pattern.c_str(), name.c_str(), fold);
    if (Few(pattern) && name.size() < 64)
        Require(score == Model(pattern.c_str(), name.c_str(), fold), "the same score");
    for (unsigned c = 0; c < 256; ++c)
        Require(VELT::set_match(pattern.c_str(), static_cast<int>(c), true) ==
                    ModelSet(pattern.c_str(), static_cast<unsigned char>(c)),
                "the same set");
    return 0;
}
