// Readers: which blocks of the store are read at all, and through which slot. A value is looked for under the two
// policies of its slot, their bases, and the identities of those two policies.
// Value over the store's sources. One thread. Nothing fails.
#pragma once

#include <array>
#include <map>
#include <set>
#include <string>

#include <policyloader/store/StoreSources.h>
#include <velt/Config.h>

namespace velt_policy {

constexpr unsigned kSlots = VELT::Config::s_policyCount;
extern char const* const kSlotNames[kSlots];  // "base", "connection", ...

class Readers {
public:
    explicit Readers(policyloader::StoreSources const& sources);

    bool policyIsRead(unsigned slot, std::string const& policy) const { return m_read[slot].count(policy) != 0; }
    bool policyIsRead(std::string const& policy) const;                  // by any slot
    bool hasIdentities(unsigned slot, std::string const& policy) const;  // whether its identities are chosen there
    bool hasIdentities(std::string const& policy) const;
    static std::string slotText(unsigned slot);  // "policy base", "policies content_in and content_out"

private:
    std::array<std::set<std::string>, kSlots> m_read;
};

}  // namespace velt_policy
