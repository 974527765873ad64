#include "tools/velt-queue/Places.h"

#include <gateways/smtp/SmtpSettings.h>
#include <velt/Config.h>

namespace velt_queue {

char const* NameOf(Queue queue) { return queue == Queue::Deferred ? "deferred" : "quarantine"; }

Places ReadPlaces(velt_tools::Configuration const& configuration) {
    velt_tools::Store store(configuration, "velt-queue");
    smtp::KeepSettings const keep = smtp::ReadKeepSettings(store.config());
    std::string const relay = VELT::ReadSetting<VELTCFG::smtp::RelayHost>(store.config()).str();
    unsigned const port = VELT::ReadSetting<VELTCFG::smtp::RelayPort>(store.config());
    return {keep.directory, keep.quarantine, relay.empty() ? "" : relay + ':' + std::to_string(port),
            keep.longestGap()};
}

}  // namespace velt_queue
