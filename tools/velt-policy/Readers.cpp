#include "tools/velt-policy/Readers.h"

#include <algorithm>

namespace velt_policy {

char const* const kSlotNames[kSlots] = {"base",  "connection", "content", "transport", "protocol",
                                        "const", "machine",    "network", "system"};

Readers::Readers(policyloader::StoreSources const& sources) {
    std::map<std::string, std::string> bases;
    for (auto const& policy : sources.policies()) bases[policy.name.c_str()] = policy.base ? policy.base.c_str() : "";
    for (unsigned slot = 0; slot < kSlots; ++slot) {
        for (auto const* const row : VELT::Config::s_PolicyIds) {
            auto const& id = row[slot];
            for (std::string name = id ? id.c_str() : ""; !name.empty(); name = bases[name]) m_read[slot].insert(name);
        }
    }
}

bool Readers::policyIsRead(std::string const& policy) const {
    return std::any_of(m_read.begin(), m_read.end(), [&](auto const& slot) { return slot.count(policy) != 0; });
}

// Slot 0 has no identities, and a base's are its own.
bool Readers::hasIdentities(unsigned slot, std::string const& policy) const {
    if (slot == VELT::Config::POLICY_BASE) return false;
    for (auto const* const row : VELT::Config::s_PolicyIds)
        if (row[slot] && policy == row[slot].c_str()) return true;
    return false;
}

bool Readers::hasIdentities(std::string const& policy) const {
    for (unsigned slot = 1; slot < kSlots; ++slot)
        if (hasIdentities(slot, policy)) return true;
    return false;
}

std::string Readers::slotText(unsigned slot) {
    std::string const name = kSlotNames[slot];
    if (slot == VELT::Config::POLICY_BASE) return "policy " + name;
    return "policies " + name + "_in and " + name + "_out";
}

}  // namespace velt_policy
