// The settings of section "logretryer", of the retryer for log records that wait to be passed on. Types only; see
// velt/config_details/commdef.h.
#pragma once

#include <velt/config_details/commdef.h>

namespace VELTCFG::logretryer {

using VELT::CharBuf;
using VELT::config_attribute::SettingText;
namespace cfg = VELT::config_attribute;

struct attrname_LoggingEnabled {
    static constexpr SettingText text{"logretryer", "LoggingEnabled", "", "Events of the retryer are reported."};
};
using LoggingEnabled = cfg::bounded<attrname_LoggingEnabled, bool, cfg::bool_bounds<false>>;

// The doubled letter is the key's.
struct attrname_MaxConncurrent {
    static constexpr SettingText text{"logretryer", "MaxConncurrent", "threads", "Files that are worked on at once."};
};
using MaxConncurrent = cfg::bounded<attrname_MaxConncurrent, unsigned, cfg::integral_bounds<unsigned, 1, 1, 65535>>;

struct attrname_MemoryLimit {
    static constexpr SettingText text{"logretryer", "MemoryLimit", "kB",
                                      "A retryer whose data is larger finishes its work and is replaced; 0 is never."};
};
using MemoryLimit = cfg::bounded<attrname_MemoryLimit, unsigned, cfg::integral_bounds<unsigned, 0, 0, 4294967295>>;

struct attrname_NewFileDelta {
    static constexpr SettingText text{"logretryer", "NewFileDelta", "seconds",
                                      "A file whose status time is less than this after its modification time "
                                      "was never tried and is due at once."};
};
using NewFileDelta = cfg::bounded<attrname_NewFileDelta, int, cfg::integral_bounds<int, 5, 1, 65535>>;

struct attrname_RetryInterval {
    static constexpr SettingText text{"logretryer", "RetryInterval", "seconds",
                                      "How long a file rests after its last attempt."};
};
using RetryInterval = cfg::bounded<attrname_RetryInterval, unsigned, cfg::integral_bounds<unsigned, 300, 1, 65535>>;

struct attrname_ScanDir {
    static constexpr SettingText text{"logretryer", "ScanDir", "",
                                      "The directory of log records that wait to be passed on."};
};
struct defaults_ScanDir {
    static constexpr char const* value = "/deferred/logging/";
};
using ScanDir = cfg::unbounded<attrname_ScanDir, CharBuf, defaults_ScanDir>;

struct attrname_ScanInterval {
    static constexpr SettingText text{"logretryer", "ScanInterval", "seconds",
                                      "Between the starts of two walks through the directory."};
};
using ScanInterval = cfg::bounded<attrname_ScanInterval, unsigned, cfg::integral_bounds<unsigned, 10, 1, 65535>>;

using Settings =
    cfg::setting_list<LoggingEnabled, MaxConncurrent, MemoryLimit, NewFileDelta, RetryInterval, ScanDir, ScanInterval>;

}  // namespace VELTCFG::logretryer
