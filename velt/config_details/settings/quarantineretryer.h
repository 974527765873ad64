// The settings of section "quarantineretryer", of the retryer for quarantined mail. Types only; see
// velt/config_details/commdef.h.
#pragma once

#include <velt/config_details/commdef.h>

namespace VELTCFG::quarantineretryer {

using VELT::CharBuf;
using VELT::config_attribute::SettingText;
namespace cfg = VELT::config_attribute;

struct attrname_LoggingEnabled {
    static constexpr SettingText text{"quarantineretryer", "LoggingEnabled", "", "Events of the retryer are reported."};
};
using LoggingEnabled = cfg::bounded<attrname_LoggingEnabled, bool, cfg::bool_bounds<false>>;

// The doubled letter is the key's.
struct attrname_MaxConncurrent {
    static constexpr SettingText text{"quarantineretryer", "MaxConncurrent", "threads",
                                      "Files that are worked on at once."};
};
using MaxConncurrent = cfg::bounded<attrname_MaxConncurrent, unsigned, cfg::integral_bounds<unsigned, 1, 1, 65535>>;

struct attrname_MemoryLimit {
    static constexpr SettingText text{"quarantineretryer", "MemoryLimit", "kB",
                                      "A retryer whose data is larger finishes its work and is replaced; 0 is never."};
};
using MemoryLimit = cfg::bounded<attrname_MemoryLimit, unsigned, cfg::integral_bounds<unsigned, 0, 0, 4294967295>>;

struct attrname_NewFileDelta {
    static constexpr SettingText text{"quarantineretryer", "NewFileDelta", "seconds",
                                      "A file whose status time is less than this after its modification time "
                                      "was never tried and is due at once."};
};
using NewFileDelta = cfg::bounded<attrname_NewFileDelta, int, cfg::integral_bounds<int, 5, 1, 65535>>;

struct attrname_RetryInterval {
    static constexpr SettingText text{"quarantineretryer", "RetryInterval", "seconds",
                                      "How long a file rests after its last attempt."};
};
using RetryInterval = cfg::bounded<attrname_RetryInterval, unsigned, cfg::integral_bounds<unsigned, 300, 1, 65535>>;

struct attrname_ScanDir {
    static constexpr SettingText text{"quarantineretryer", "ScanDir", "", "The directory of quarantined mail."};
};
struct defaults_ScanDir {
    static constexpr char const* value = "/quarantine/smtp/";
};
using ScanDir = cfg::unbounded<attrname_ScanDir, CharBuf, defaults_ScanDir>;

struct attrname_ScanInterval {
    static constexpr SettingText text{"quarantineretryer", "ScanInterval", "seconds",
                                      "Between the starts of two walks through the directory."};
};
using ScanInterval = cfg::bounded<attrname_ScanInterval, unsigned, cfg::integral_bounds<unsigned, 10, 1, 65535>>;

using Settings =
    cfg::setting_list<LoggingEnabled, MaxConncurrent, MemoryLimit, NewFileDelta, RetryInterval, ScanDir, ScanInterval>;

}  // namespace VELTCFG::quarantineretryer
