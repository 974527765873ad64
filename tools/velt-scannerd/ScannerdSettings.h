// The settings of section "scannerd", and the snapshot of them with which a session works.
// Owner: the session. Thread: the session's. Units: in the names; times are read in seconds and kept in milliseconds.
// Failure: a setting that is absent or unusable is its default, one out of its bounds is brought into them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <velt/Config.h>
#include <velt/config_details/commdef.h>

namespace VELTCFG::scannerd {

using VELT::config_attribute::SettingText;
namespace cfg = VELT::config_attribute;

struct listname_SpoolRoots {
    static constexpr SettingText text{"scannerd", "SpoolRoots", "directories",
                                      "Clients at 127.0.0.1 may name files below these instead of sending their "
                                      "content. Without any: /scandir."};
};
using SpoolRoots = cfg::list<listname_SpoolRoots, VELT::CharBuf>;

struct attrname_Announce {
    static constexpr SettingText text{
        "scannerd", "Announce", "",
        "The resource manager of this machine, where there is one, is told of the daemon. "
        "Read at start-up."};
};
using Announce = cfg::bounded<attrname_Announce, bool, cfg::bool_bounds<true>>;

struct attrname_MaxItemSize {
    static constexpr SettingText text{"scannerd", "MaxItemSize", "KiB",
                                      "Largest item that is scanned; a client with a larger one is refused."};
};
using MaxItemSize = cfg::bounded<attrname_MaxItemSize, unsigned, cfg::integral_bounds<unsigned, 262144, 1, 4194303>>;

struct attrname_IdleTimeout {
    static constexpr SettingText text{"scannerd", "IdleTimeout", "seconds",
                                      "Longest wait for the first request of a new connection."};
};
using IdleTimeout = cfg::bounded<attrname_IdleTimeout, unsigned, cfg::integral_bounds<unsigned, 60, 1, 3600>>;

struct attrname_RequestTimeout {
    static constexpr SettingText text{"scannerd", "RequestTimeout", "seconds",
                                      "How long a request's header, or a section of properties, may take from its "
                                      "first byte to its end."};
};
using RequestTimeout = cfg::bounded<attrname_RequestTimeout, unsigned, cfg::integral_bounds<unsigned, 30, 1, 3600>>;

struct attrname_DataTimeout {
    static constexpr SettingText text{"scannerd", "DataTimeout", "seconds",
                                      "Longest wait for the next bytes of an item, and for a client to take an "
                                      "answer."};
};
using DataTimeout = cfg::bounded<attrname_DataTimeout, unsigned, cfg::integral_bounds<unsigned, 60, 1, 3600>>;

struct attrname_ItemTimeout {
    static constexpr SettingText text{
        "scannerd", "ItemTimeout", "seconds",
        "Longest wait for the next request about an item that is here: between two scans, "
        "the client delivers what the first one gave."};
};
using ItemTimeout = cfg::bounded<attrname_ItemTimeout, unsigned, cfg::integral_bounds<unsigned, 600, 1, 3600>>;

struct attrname_ParkTimeout {
    static constexpr SettingText text{"scannerd", "ParkTimeout", "seconds",
                                      "How long a connection that a client keeps for its next item stays open."};
};
using ParkTimeout = cfg::bounded<attrname_ParkTimeout, unsigned, cfg::integral_bounds<unsigned, 300, 1, 86400>>;

using Settings = cfg::setting_list<Announce, SpoolRoots, MaxItemSize, IdleTimeout, RequestTimeout, DataTimeout,
                                   ItemTimeout, ParkTimeout>;

}  // namespace VELTCFG::scannerd

namespace scannerd {

struct Limits {
    std::uint64_t itemBytes = 262144 * std::uint64_t{1024};
    unsigned idleMs = 60000;
    unsigned requestMs = 30000;
    unsigned dataMs = 60000;
    unsigned itemMs = 600000;
    unsigned parkMs = 300000;
};

struct SessionSettings {
    SessionSettings() = default;  // the defaults, and no spool roots
    explicit SessionSettings(VELT::Config& config);

    std::vector<std::string> spoolRoots;
    Limits limits;
};

}  // namespace scannerd
