// SpamQuestion: what a spam scan server is asked about.
// A value; any thread.  The message outlives it.
#pragma once

#include <string_view>

#include <policyloader/engines/Envelope.h>

namespace policyloader {

inline constexpr std::size_t kMostRecipientsTold = 100;  // more would be beyond what servers read of a head

struct SpamQuestion {
    std::string_view message;
    Envelope envelope;
};

}  // namespace policyloader
