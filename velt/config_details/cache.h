// CfgNameCache: the two names of a setting, interned once per process, so that a read hands two pointers to the store.
// Owner: one static object per descriptor, constant-initialised, so that start-up order cannot bite.
// Threads: any; concurrent first readers wait for a single initialisation, later ones pay one load.
// Failure: with no loader the names stay null and nothing is remembered, so that the next reader tries again.
#pragma once

#include <KORtk/Once.h>
#include <eFabric/Policy.h>

#include <atomic>

#include <velt/Export.h>

namespace VELT::config_helper {

namespace detail {

class CfgNameCacheEntry {
public:
    // Both texts must be literals.
    constexpr CfgNameCacheEntry(char const* section, char const* attribute)
        : m_section(section), m_attribute(attribute) {}
    CfgNameCacheEntry(CfgNameCacheEntry const&) = delete;
    CfgNameCacheEntry& operator=(CfgNameCacheEntry const&) = delete;

    // The interned names. The first loader's strings stay for the life of the process, whatever loader comes later.
    eFabric::InternedString const& settings(eFabric::IPolicyLoader const* loader) const {
        check_init(loader);
        return m_settings;
    }
    eFabric::InternedString const& attribute(eFabric::IPolicyLoader const* loader) const {
        check_init(loader);
        return m_name;
    }

    void check_init(eFabric::IPolicyLoader const* loader) const {
        if (m_onceState.load(std::memory_order_acquire) != 1) InitialiseOnce(loader);
    }
    static void updateCache(CfgNameCacheEntry const& entry, eFabric::IPolicyLoader const* loader) {
        entry.check_init(loader);
    }

    VELT_API void init(eFabric::IPolicyLoader const* loader) const;  // interns unconditionally; loader is not null

private:
    VELT_API void InitialiseOnce(eFabric::IPolicyLoader const* loader) const;

    mutable KORtk::OnceInit::state_t m_onceState{0};  // 0 not begun, 1 finished, others in progress
    KORtk::OnceInit::key_t m_onceKey = KORtk::OnceInit::key;
    mutable eFabric::InternedString m_settings;
    mutable eFabric::InternedString m_name;
    char const* m_section;
    char const* m_attribute;
};

}  // namespace detail

template <class Attribute>
struct CfgNameCache {
    static detail::CfgNameCacheEntry value;
};

template <class Attribute>
constinit detail::CfgNameCacheEntry CfgNameCache<Attribute>::value{Attribute::name::text.section,
                                                                   Attribute::name::text.key};

}  // namespace VELT::config_helper
