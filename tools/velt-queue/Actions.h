// What velt-queue does to a mail. Each works on a file that it has locked, so that no retryer and no other velt-queue
// is at it, and each step is such that a mail is somewhere whole whenever the process ends. Thread: the main one.
// Failure: a text that says what is wrong; the mail is then still in its queue.
#pragma once

#include <functional>
#include <string>

#include "tools/velt-queue/Mail.h"

namespace velt_queue {

// Empty: it is done.
using Problem = std::string;

// From now on it waits to be delivered: what is held by the quarantine goes into the deferred directory. A release that
// was cut off is finished.
Problem Release(Mail const& mail, Places const& places);

// Those that were cut off when they stood already; of each that is brought to its end, or cannot be, `tell` hears.
void FinishReleases(Places const& places, std::function<void(Mail const&, Problem const&)> const& tell);

// A retryer tries it at its next walk, whatever its own time and the pause of its destination.
Problem Retry(Mail const& mail, Places const& places);

// Also a file that cannot be read. With what the quarantine has goes the copy of a release that was cut off.
Problem Delete(Mail const& mail, Places const& places);

// The message, block by block, to the standard output.
Problem WriteBody(Mail const& mail);

// Up to the first empty line, and not more than is good to look at.
std::string HeaderOf(Mail const& mail);

}  // namespace velt_queue
