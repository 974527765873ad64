// The command line of velt-policy. Value. A command line that makes no sense has a `problem`.
#pragma once

#include <string>
#include <vector>

#include "tools/velt-policy/Query.h"
#include "tools/velt-policy/World.h"

namespace velt_policy {

struct Options {
    bool help = false;
    bool explain = false;  // else check
    bool batch = false;
    bool json = false;
    bool resolve = false;
    Choice choice;
    std::vector<std::string> ownSections;
    Query query;
    std::string problem;  // empty: none
};

Options ParseCommandLine(int argc, char** argv);

}  // namespace velt_policy
