// The JSON of explain: a query out of a line, an answer as a line. Any thread.
// Failure: a line that is no query gives its reason.
#pragma once

#include <string>

#include "tools/velt-policy/Decision.h"
#include "tools/velt-policy/Query.h"

namespace velt_policy {

// Empty: `query` is what the line says. Else why it is none.
std::string ReadQuery(std::string const& line, Query& query);

std::string WriteAnswer(Decision const& decision);  // one line, without its end
std::string WriteProblem(std::string const& problem);

}  // namespace velt_policy
