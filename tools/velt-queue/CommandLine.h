// The command line of velt-queue. Value. A command line that makes no sense has a `problem`.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/shared/CommandLine.h"
#include "tools/velt-queue/Filter.h"
#include "tools/velt-queue/Places.h"

namespace velt_queue {

enum class Command { List, Show, Release, Retry, Delete };

struct Options : velt_tools::CommonOptions {
    bool body = false;
    bool dryRun = false;
    Command command = Command::List;
    std::optional<Queue> queue;
    Filter filter;
    std::vector<std::string> ids;

    // Whether mails of this queue are meant. What is chosen by a filter and then changed is of one queue.
    bool concerns(Queue which) const;
};

Options ParseCommandLine(int argc, char** argv);

}  // namespace velt_queue
