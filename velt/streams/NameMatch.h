// The wildcard match of names: `*` is any text, also across dots, `[...]` one byte of a set, all else is itself.
// Any thread. The pattern is the administrator's; time grows with the product of both lengths at most.
//
// A set holds the bytes up to its `]`. A `^` in front inverts it, and a `]` at the very start is a member. `x-y` holds
// the bytes from x up to, but not including, y; with x equal to y that is every byte. A range whose end stands below
// its start ends the reading of the set, and so does the end of the text.
#pragma once

#include <velt/Export.h>

namespace VELT {

// 0: no match. An exact match scores 1; each `*` adds 1, and so does each dot that it swallowed; each
// stretch of the pattern without a `*` that holds a set adds 1, however many. `fold` ignores case; sets always do.
VELT_API int name_match(char const* pattern, char const* name, bool fold);

// `set` is the text behind the `[`. Answers the place of the closing `]` when `c` is in the set, otherwise null. A set
// without a readable end answers `set` whatever `c` is, which counts as a match.
VELT_API char const* set_match(char const* set, int c, bool fold);

}  // namespace VELT
