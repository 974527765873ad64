// The settings of section "connection". Types only; see velt/config_details/commdef.h.
#pragma once

#include <velt/config_details/commdef.h>

namespace VELTCFG::connection {

using VELT::config_attribute::SettingText;
namespace cfg = VELT::config_attribute;

struct attrname_MaxHosts {
    static constexpr SettingText text{"connection", "MaxHosts", "addresses",
                                      "Limit on the addresses asked for when a host is looked up to connect to it; "
                                      "read at each connect. Look-ups of plain host names take no limit.",
                                      4};
};
using MaxHosts = cfg::bounded<attrname_MaxHosts, unsigned, cfg::integral_bounds<unsigned, 0, 0, 65535>>;

using Settings = cfg::setting_list<MaxHosts>;

}  // namespace VELTCFG::connection
