// DocExample: the text of a worked example in a page of docs/, so that a test reads what the page shows.
#pragma once

#include <string>

namespace velt_testing {

// The first block fenced with ```language in the page, without its fences. Throws std::runtime_error when there is
// none.
std::string DocExample(std::string const& page, std::string const& language);

}  // namespace velt_testing
