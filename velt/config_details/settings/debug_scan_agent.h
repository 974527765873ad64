// The settings of section "debug_scan_agent". Types only; see velt/config_details/commdef.h.
#pragma once

#include <velt/config_details/commdef.h>

namespace VELTCFG::debug_scan_agent {

using VELT::CharBuf;
using VELT::config_attribute::SettingText;
namespace cfg = VELT::config_attribute;

struct listname_ExceptionTypes {
    static constexpr SettingText text{"debug_scan_agent", "ExceptionTypes", "types",
                                      "For the scan agent of tests: read when it is chosen, and used by nothing.", 2};
};
using ExceptionTypes = cfg::list<listname_ExceptionTypes, CharBuf>;

using Settings = cfg::setting_list<ExceptionTypes>;

}  // namespace VELTCFG::debug_scan_agent
