// The settings of section "scanning". Types only; see velt/config_details/commdef.h.
#pragma once

#include <velt/config_details/commdef.h>

namespace VELTCFG::scanning {

using VELT::CharBuf;
using VELT::config_attribute::SettingText;
namespace cfg = VELT::config_attribute;

struct attrname_FlatSpinTimeout {
    static constexpr SettingText text{
        "scanning", "FlatSpinTimeout", "seconds",
        "After how long a scan counts as stuck; 0 is never. A minute later the process is "
        "ended. Read at start-up."};
};
using FlatSpinTimeout = cfg::bounded<attrname_FlatSpinTimeout, unsigned, cfg::integral_bounds<unsigned, 0, 0, 86400>>;

struct attrname_InitialScanMemPool {
    static constexpr SettingText text{"scanning", "InitialScanMemPool", "buffers",
                                      "Scan buffers made in advance. Read at start-up."};
};
using InitialScanMemPool =
    cfg::bounded<attrname_InitialScanMemPool, unsigned, cfg::integral_bounds<unsigned, 0, 0, 65535>>;

struct attrname_InitialScannerThreads {
    static constexpr SettingText text{"scanning", "InitialScannerThreads", "threads",
                                      "Scan threads made in advance, MaxScannerThreads at most. Read at start-up."};
};
using InitialScannerThreads =
    cfg::bounded<attrname_InitialScannerThreads, unsigned, cfg::integral_bounds<unsigned, 1, 1, 65535>>;

struct attrname_InlineScannerThreadStackSize {
    static constexpr SettingText text{"scanning", "InlineScannerThreadStackSize", "KiB",
                                      "Stack of the thread that watches scans. Read at start-up."};
};
using InlineScannerThreadStackSize =
    cfg::bounded<attrname_InlineScannerThreadStackSize, unsigned, cfg::integral_bounds<unsigned, 128, 64, 65535>>;

struct attrname_LSDisabled {
    static constexpr SettingText text{"scanning", "LSDisabled", "",
                                      "No scanner process is asked, whatever the resource manager has. Read at "
                                      "start-up."};
};
using LSDisabled = cfg::bounded<attrname_LSDisabled, bool, cfg::bool_bounds<false>>;

struct attrname_LSServerWaitTime {
    static constexpr SettingText text{"scanning", "LSServerWaitTime", "seconds",
                                      "How long an item waits for a scanner process; 0 is one try. Read at start-up."};
};
using LSServerWaitTime =
    cfg::bounded<attrname_LSServerWaitTime, unsigned, cfg::integral_bounds<unsigned, 60, 0, 4294967295>>;

struct attrname_MaxScanMem {
    static constexpr SettingText text{"scanning", "MaxScanMem", "KiB",
                                      "Size of one scan buffer; content that does not fit goes to disk. Read at "
                                      "start-up."};
};
using MaxScanMem = cfg::bounded<attrname_MaxScanMem, unsigned, cfg::integral_bounds<unsigned, 1, 1, 65535>>;

struct attrname_MaxScannerThreads {
    static constexpr SettingText text{"scanning", "MaxScannerThreads", "threads",
                                      "Scan threads made on demand; 0 is none, and none in advance. Read at start-up."};
};
using MaxScannerThreads =
    cfg::bounded<attrname_MaxScannerThreads, unsigned, cfg::integral_bounds<unsigned, 0, 0, 65535>>;

struct attrname_ScannerAgent {
    static constexpr SettingText text{"scanning", "ScannerAgent", "",
                                      "Who scans: \"debug\" takes its verdicts out of the content and is for tests "
                                      "alone, \"null\" looks at nothing, so that the mail gateway takes no message, "
                                      "anything else is the engines. Read at start-up."};
};
struct defaults_ScannerAgent {
    static constexpr char const* value = "";
};
using ScannerAgent = cfg::unbounded<attrname_ScannerAgent, CharBuf, defaults_ScannerAgent>;

using Settings =
    cfg::setting_list<FlatSpinTimeout, InitialScanMemPool, InitialScannerThreads, InlineScannerThreadStackSize,
                      LSDisabled, LSServerWaitTime, MaxScanMem, MaxScannerThreads, ScannerAgent>;

}  // namespace VELTCFG::scanning
