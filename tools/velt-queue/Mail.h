// Mail: what velt-queue knows of one file of a queue without changing it.
// Value. Failure: a file that cannot be read has a fault, and is told of all the same.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <gateways/smtp/Release.h>

#include "tools/velt-queue/Places.h"

namespace velt_queue {

struct Mail {
    Queue queue = Queue::Deferred;
    std::string id;  // the name of its file without ".rmd"
    std::string path;
    std::string problem;  // empty: it could be read
    smtp::RetryEnvelope envelope;
    smtp::RetryStatus status;
    std::uint64_t size = 0;  // of the message
    bool locked = false;     // somebody works on it

    bool isReadable() const { return problem.empty(); }
    bool isHeld() const { return status.isHeld(); }
    // Released, and not moved to the end.
    bool isReleasedOnly() const {
        return isReadable() && (isHeld() ? status.released != 0 : queue == Queue::Quarantine);
    }
};

// Nobody; or the file went before it was looked at.
std::optional<Mail> ReadMail(Queue queue, std::string const& directory, std::string const& id);

// Every mail of a directory, the oldest first. A directory that is not there has none; Unusable: it cannot be read.
std::vector<Mail> ReadQueue(Queue queue, std::string const& directory);

// A name that `list` shows: no path, no other directory.
bool IsId(std::string const& text);

// Where the recipients that are not done with go: a server, or the domains of their addresses.
std::string DestinationOf(Mail const& mail, std::string const& relay);

}  // namespace velt_queue
