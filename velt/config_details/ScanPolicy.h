// sep_to_string: the fields of a line that blanks separate. Any thread; no failure.
#pragma once

#include <string>

namespace VELT {

// Puts the text up to the first blank, possibly none, into `out`; gives what follows that blank, or null at the end of
// the line. A null text is an empty last field.
char const* sep_to_string(char const* text, std::string& out);

}  // namespace VELT
