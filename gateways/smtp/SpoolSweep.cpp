#include "SpoolSweep.h"

#include <chrono>
#include <filesystem>

#include <velt/logging/Log.h>

#include "RetryFile.h"
#include "SmtpEvents.h"

namespace smtp {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::hours kOldEnough{1};  // longer than any message takes from its first byte to its answer

// A stream without an id has nothing before the suffix.
bool IsSpoolFile(std::string const& name) { return name.ends_with(".in") || name.ends_with(".out"); }

bool IsStale(fs::directory_entry const& entry) {
    std::error_code error;
    if (!IsSpoolFile(entry.path().filename())) return false;
    if (!entry.is_regular_file(error) || entry.is_symlink(error)) return false;
    auto const written = entry.last_write_time(error);
    return !error && fs::file_time_type::clock::now() - written > kOldEnough;
}

}  // namespace

void SweepSpool(std::string const& directory) {
    std::error_code error;
    unsigned long removed = 0;
    for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
        std::error_code ignored;
        if (IsStale(*it) && fs::remove(it->path(), ignored)) ++removed;
    }
    if (removed) VELT::LogEvent(events::SPOOL_SWEPT, [&] { return KORlog::InfoBag(names::COUNT(removed)); });
}

void SweepDeferred(std::string const& directory) {
    unsigned long const removed = SweepUnfinished(directory);
    if (removed) VELT::LogEvent(events::DEFERRED_SWEPT, [&] { return KORlog::InfoBag(names::COUNT(removed)); });
}

}  // namespace smtp
