// Places: the two directories that velt-queue works on, as the configuration of a gateway names them.
// Value. Thread: the main one; the library is started for it and ended again.
// Failure: Unusable, for a configuration that a gateway would not start with.
#pragma once

#include <cstdint>
#include <string>

#include "tools/shared/Store.h"

namespace velt_queue {

using velt_tools::Unusable;

enum class Queue { Deferred, Quarantine };

char const* NameOf(Queue queue);

struct Places {
    std::string deferred;         // "/" at its end
    std::string quarantine;       // the same
    std::string relay;            // "host:port" of the server that takes all mail; empty: each domain has its own
    std::int64_t longestGap = 0;  // seconds without a look at a mail that count towards its age

    std::string const& of(Queue queue) const { return queue == Queue::Deferred ? deferred : quarantine; }
};

Places ReadPlaces(velt_tools::Configuration const& configuration);

}  // namespace velt_queue
