#include <velt/streams/SpoolSweep.h>

#include <chrono>
#include <filesystem>

namespace VELT {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::hours kOldEnough{1};  // longer than any item takes from its first byte to its answer

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

unsigned long RemoveStaleSpool(std::string const& directory) {
    std::error_code error;
    unsigned long removed = 0;
    for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
        std::error_code ignored;
        if (IsStale(*it) && fs::remove(it->path(), ignored)) ++removed;
    }
    return removed;
}

}  // namespace VELT
