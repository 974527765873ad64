// Crowd: clients in threads of their own that share a number of items, and the time that each good item took.
// Owner: the program of one sub-command. Failure: an item that failed is counted.
#pragma once

#include <functional>
#include <string>

namespace velt_load {

// One client: it does one item after the other.
using Work = std::function<bool()>;

// Prints the one JSON object of a run, whose items have this name.
void RunCrowd(char const* items, unsigned clients, unsigned count, std::function<Work()> const& newClient);

std::string FileText(std::string const& path);  // exit code 2 without it

}  // namespace velt_load
