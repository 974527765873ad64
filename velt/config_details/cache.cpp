#include <velt/config_details/cache.h>

namespace VELT::config_helper::detail {

void CfgNameCacheEntry::init(eFabric::IPolicyLoader const* loader) const {
    m_settings = loader->internSettings(m_section);
    m_name = loader->internAttribute(m_attribute);
}

void CfgNameCacheEntry::InitialiseOnce(eFabric::IPolicyLoader const* loader) const {
    if (!loader) return;  // null names must not be kept for the life of the process
    KORtk::call_once(m_onceState, m_onceKey, [this, loader] { init(loader); });
}

}  // namespace VELT::config_helper::detail
