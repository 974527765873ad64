// Release: mail that was held in the quarantine goes into the deferred directory, and a retryer delivers it.
// Within a file system the file is renamed. Into another one it is copied, and both are held, which no retryer
// delivers, until the file in the quarantine has a name that nobody takes, "<name>.rmd.released". Then the copy waits,
// and the other file goes. From the copy on the release stands; one that is cut off behind that is brought to its end
// by whoever looks over both directories, and at each point there is one file that can come to be delivered. Where both
// directories are one, by whatever name or mount, the file stays where it is, and waits.
// Any process that may write to both directories, beside others: what somebody has locked is left to him. Thread: one.
// Failure: false, with errno; EAGAIN: somebody works on one of the files. It can be tried again.
#pragma once

#include <functional>
#include <string>

#include "RetryFile.h"

namespace smtp {

inline constexpr char const* kReleasedSuffix = ".rmd.released";

// A file of the quarantine, locked and read, whose status says that it is released. Directories end in "/".
bool MoveReleased(RetryFile& file, std::string const& deferred);

// A held file of the deferred directory, locked and read, has `status` from now on, by which it waits. What the
// quarantine has of the mail goes.
bool ReleaseThere(RetryFile& file, std::string const& quarantine, RetryStatus const& status);

// Brings to their end the releases that were cut off. `tell`: the name of a mail without its suffix, and 0, or the
// errno because of which it is still half-way.
void FinishReleases(std::string const& quarantine, std::string const& deferred,
                    std::function<void(std::string const& name, int error)> const& tell);

}  // namespace smtp
