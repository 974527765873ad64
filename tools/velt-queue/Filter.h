// Filter: which mails are meant where they are not named. Value; everything that is set has to fit.
#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "tools/velt-queue/Mail.h"

namespace velt_queue {

struct Filter {
    bool all = false;
    std::optional<std::time_t> olderThan{};  // seconds since it was taken from its client
    std::optional<std::string> to{};         // patterns with * and ?, in any case
    std::optional<std::string> from{};       // empty: the null path
    std::optional<std::string> verdict{};    // of the action, or of one of the findings

    bool isSet() const { return all || olderThan || to || from || verdict; }

    // Of a file that cannot be read nothing is known, and nothing fits but `all`.
    bool fits(Mail const& mail, std::time_t now) const;
};

// "90", "90s", "30m", "12h", "30d", "2w"; nothing for what is none.
std::optional<std::time_t> ReadAge(std::string const& text);

}  // namespace velt_queue
