#include "SpoolSweep.h"

#include <velt/logging/Log.h>
#include <velt/streams/SpoolSweep.h>

#include "RetryFile.h"
#include "SmtpEvents.h"

namespace smtp {
void SweepSpool(std::string const& directory) {
    unsigned long const removed = VELT::RemoveStaleSpool(directory);
    if (removed) VELT::LogEvent(events::SPOOL_SWEPT, [&] { return KORlog::InfoBag(names::COUNT(removed)); });
}

void SweepDeferred(std::string const& directory) {
    unsigned long const removed = SweepUnfinished(directory);
    if (removed) VELT::LogEvent(events::DEFERRED_SWEPT, [&] { return KORlog::InfoBag(names::COUNT(removed)); });
}

}  // namespace smtp
