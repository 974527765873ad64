#include <velt/streams/NameMatch.h>

#include <algorithm>
#include <cstring>

namespace VELT {

namespace {

using Byte = unsigned char;

constexpr bool IsUpper(Byte c) { return c >= 'A' && c <= 'Z'; }
constexpr bool IsLower(Byte c) { return c >= 'a' && c <= 'z'; }
constexpr Byte Lower(Byte c) { return IsUpper(c) ? static_cast<Byte>(c + ('a' - 'A')) : c; }
constexpr Byte OtherCase(Byte c) { return IsUpper(c) || IsLower(c) ? static_cast<Byte>(c ^ ('a' - 'A')) : c; }

// Whether the bytes from `first` up to, but not including, `last` hold `c`. Equal ends run through all bytes.
constexpr bool RangeHolds(Byte first, Byte last, Byte c) { return first == last || (c >= first && c < last); }

// The byte that a set is asked for, in the cases that count.
class Wanted {
public:
    Wanted(int c, bool fold) : m_byte(static_cast<Byte>(c)), m_other(fold ? OtherCase(m_byte) : m_byte) {}
    bool Is(Byte c) const { return c == m_byte || c == m_other; }
    bool IsWithin(Byte first, Byte last) const {
        return RangeHolds(first, last, m_byte) || RangeHolds(first, last, m_other);
    }

private:
    Byte m_byte;
    Byte m_other;
};

// One byte of the pattern against one of the name: the pattern behind it, or null where they differ.
char const* MatchByte(char const* pattern, char const* name, bool fold) {
    if (!*name || !*pattern) return nullptr;
    if (*pattern == '[') {
        char const* const end = set_match(pattern + 1, static_cast<Byte>(*name), true);
        if (!end) return nullptr;
        return *end ? end + 1 : end;  // an empty set at the end of the pattern has nothing to skip
    }
    Byte const p = static_cast<Byte>(*pattern);
    Byte const n = static_cast<Byte>(*name);
    bool const same = fold ? Lower(p) == Lower(n) : p == n;
    return same ? pattern + 1 : nullptr;
}

int CountDots(char const* from, char const* to) { return static_cast<int>(std::count(from, to, '.')); }

// How long a rest of a pattern is that stands for itself, byte by byte; -1 when there is more to it.
long PlainLength(char const* pattern) {
    char const* end = pattern;
    for (; *end; ++end)
        if (*end == '*' || *end == '[') return -1;
    return end - pattern;
}

bool SameText(char const* a, char const* b, std::size_t length, bool fold) {
    if (!fold) return std::memcmp(a, b, length) == 0;
    return std::equal(a, a + length, b, [](char x, char y) { return Lower(Byte(x)) == Lower(Byte(y)); });
}

// A `*` and plain text behind it, which can only stand at the end of the name: the dots that the `*` takes, -1 where
// that text is not there.
int MatchEnding(char const* text, long length, char const* name, bool fold) {
    long const taken = static_cast<long>(std::strlen(name)) - length;
    if (taken < 0 || !SameText(name + taken, text, static_cast<std::size_t>(length), fold)) return -1;
    return CountDots(name, name + taken);
}

}  // namespace

char const* set_match(char const* set, int c, bool fold) {
    Wanted const wanted(c, fold);
    char const* at = set;
    bool const inverted = *at == '^';
    if (inverted) ++at;
    bool held = false;
    if (*at == ']') held = wanted.Is(static_cast<Byte>(*at++));
    while (*at && *at != ']') {
        Byte const first = static_cast<Byte>(*at);
        if (at[1] != '-') {
            held |= wanted.Is(first);
            ++at;
            continue;
        }
        Byte const last = static_cast<Byte>(at[2]);
        at += 2;
        if (last == ']') break;
        if (last < first) return set;
        held |= wanted.IsWithin(first, last);
        ++at;
    }
    if (*at != ']') return set;
    return held != inverted ? at : nullptr;
}

// Only the last `*` ever has to take more: if what follows an earlier one fits at its first place, a later place can
// only leave less for the rest. So each `*` stands where it first fits, and the walk takes the product of both lengths
// at most.
int name_match(char const* pattern, char const* name, bool fold) {
    int score = 1;
    int stretch = 0;  // 1 when the pattern since the last `*` held a set
    char const* retryPattern = nullptr;
    char const* retryName = nullptr;
    for (;;) {
        if (*pattern == '*') {
            while (*pattern == '*') ++pattern;
            score += stretch + 1;
            stretch = 0;
            if (long const length = PlainLength(pattern); length >= 0) {
                int const dots = MatchEnding(pattern, length, name, fold);
                return dots < 0 ? 0 : score + dots;
            }
            retryPattern = pattern;
            retryName = name;
            continue;
        }
        if (!*pattern && !*name) return score + stretch;
        if (char const* const next = MatchByte(pattern, name, fold)) {
            if (*pattern == '[') stretch = 1;
            pattern = next;
            ++name;
            continue;
        }
        if (!retryPattern || !*retryName) return 0;
        score += *retryName == '.';
        pattern = retryPattern;
        name = ++retryName;
        stretch = 0;
    }
}

}  // namespace VELT
