// The command line of velt-scan. Value. A command line that makes no sense has a `problem`.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/shared/CommandLine.h"
#include "tools/velt-scan/Engines.h"

namespace velt_scan {

struct Options : velt_tools::CommonOptions {
    bool quiet = false;  // clean files are not told
    Choice choice;
    std::string output;  // a file or a folder; empty: nothing is written
    std::vector<std::string> files;
};

Options ParseCommandLine(int argc, char** argv);

}  // namespace velt_scan
