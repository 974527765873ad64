// The settings of section "scanning". Types only; see velt/config_details/commdef.h.
#pragma once

#include <velt/config_details/commdef.h>

namespace VELTCFG::scanning {

using VELT::config_attribute::SettingText;
namespace cfg = VELT::config_attribute;

struct attrname_InitialScanMemPool {
    static constexpr SettingText text{"scanning", "InitialScanMemPool", "buffers",
                                      "Scan buffers made in advance. Read at start-up."};
};
using InitialScanMemPool =
    cfg::bounded<attrname_InitialScanMemPool, unsigned, cfg::integral_bounds<unsigned, 0, 0, 65535>>;

struct attrname_MaxScanMem {
    static constexpr SettingText text{"scanning", "MaxScanMem", "KiB",
                                      "Size of one scan buffer; content that does not fit goes to disk. Read at "
                                      "start-up."};
};
using MaxScanMem = cfg::bounded<attrname_MaxScanMem, unsigned, cfg::integral_bounds<unsigned, 1, 1, 65535>>;

using Settings = cfg::setting_list<InitialScanMemPool, MaxScanMem>;

}  // namespace VELTCFG::scanning
