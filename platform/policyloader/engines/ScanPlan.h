// ScanPlan: every setting that one scan needs, read once before it begins.
// Owner: the scan; a value over immutable things.  Threads: the scan's.  Units: bytes, parts, levels.
// Failure: settings of the wrong form count as absent; rules that cannot be used carry their error.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <policyloader/engines/ContentRules.h>
#include <policyloader/store/SettingsView.h>

namespace policyloader {

// Beyond one of these a scan ends with a format result. They protect the process, so they hold for every object.
struct ScanLimits {
    unsigned depth = 16;
    std::size_t parts = 10000;
    std::uint64_t scanBytes = 0;    // 0: none
    std::uint64_t expansion = 100;  // decoded bytes for each byte of the object, never below kExpansionFloor
    std::string action = "DENY";
};
inline constexpr std::uint64_t kExpansionFloor = 64u << 20;

// Which engines a scan thread uses.
struct EngineSelection {
    bool antiVirus = true;
    bool content = true;
};

struct ScanPlan {
    SettingsView settings;
    ScanLimits limits;
    bool unpack = true;

    bool antiVirus = false;
    std::string antiVirusAction;
    std::string antiVirusAlert;

    bool content = false;
    std::string contentAction;
    std::string contentAlert;
    double threshold = 1;
    std::shared_ptr<ContentRules const> rules;  // null: none

    ScanPlan(SettingsView const& view, EngineSelection const& selection, ContentCache& cache);

    // Whether `a` is to win over `b`: by the policy's order, and by the usual one where the policy does not know them.
    bool isStronger(std::string const& a, std::string const& b) const;
};

}  // namespace policyloader
