// KnownSettings: every setting that something reads: those that a descriptor of the library or of a gateway declares,
// and those of the scan engines. A value is converted by the code that a gateway converts it with. The table is made at
// its first use and never changes. Any thread.
#pragma once

#include <eFabric/Policy.h>

#include <string>
#include <string_view>
#include <vector>

namespace velt_policy {

// How one value, or one item of a list, is read.
struct Reading {
    enum class Kind { asIs, clamped, standard };  // standard: it cannot be converted, and the default counts
    Kind kind = Kind::asIs;
    std::string effective;  // what a gateway reads
    std::vector<Reading> items;
};

struct KnownSetting {
    std::string section;
    std::string key;
    unsigned slot;         // the policy slot that it is read through
    std::string type;      // "unsigned", "text", "list of text"
    std::string range;     // "1 to 65535"; empty where there is none
    std::string standard;  // the default; empty for a list
    Reading (*read)(KnownSetting const& setting, eFabric::IProductValue const& value);

    // "device, netfilter, off": whoever reads it takes any other text for the default. Null: every text counts.
    char const* choices() const;
    bool isChoice(std::string const& text) const;
};

std::vector<KnownSetting> const& KnownSettings();
KnownSetting const* FindSetting(std::string_view section, std::string_view key);  // null: nobody reads it

// "section/key" as it might have been meant, or an empty text.
std::string NearestSetting(std::string_view section, std::string_view key);

// The value as it is written; the items of a list with commas between.
std::string RawText(eFabric::IProductValue const& value);

}  // namespace velt_policy
