#include <velt/Config.h>

#include <velt/config_details/RuleOperators.h>
#include <velt/scanning/EFabricScanAgent.h>

namespace VELT {

Config::Config() {
    for (unsigned slot = 0; slot < s_policyCount; ++slot) policies[slot].set(slot);
}

Config::~Config() = default;

Config::Config(Config const& other)
    : connection(other.connection),
      inbound(other.inbound),
      restored(other.restored),
      policies(other.policies),
      source(other.source),
      recipient(other.recipient) {
    AdoptSlots();
}

Config& Config::operator=(Config const& other) {
    if (this == &other) return *this;
    connection = other.connection;
    inbound = other.inbound;
    restored = other.restored;
    policies = other.policies;
    source = other.source;
    recipient = other.recipient;
    AdoptSlots();
    return *this;
}

// The rules reach the session through the slot's owner, which must be this object and not the one copied from.
void Config::AdoptSlots() {
    for (PolicyInfo& slot : policies) {
        if (slot.config) slot.config = this;
    }
}

eFabric::IProductValue const* Config::getProductValue(unsigned int policy, eFabric::InternedString const& settings,
                                                      eFabric::InternedString const& attribute) {
    if (!s_Loader || policy >= s_policyCount) return nullptr;
    PolicyInfo& slot = policies[policy];
    if (slot.m_changed) slot.resolve(this);
    int status = 0;
    return s_Loader->productValue(s_PolicyIds[inbound][policy], slot.identity, settings, attribute,
                                  EFabricScanAgent::get_time(), &status);
}

// Slot 0 is never marked: "base" has no identities.
void Config::allchange() {
    for (unsigned slot = 1; slot < s_policyCount; ++slot) policies[slot].changed();
}

void Config::set(bool isInbound, Connection* owner, Config* parent) {
    connection = owner;
    inbound = isInbound;
    for (unsigned slot = 1; slot < s_policyCount; ++slot) policies[slot].set(&parent->policies[slot]);
    allchange();
}

void Config::set(std::string const&, std::string const&) { allchange(); }

void Config::set(char const* key, std::string const& value) {
    set(std::string(key), value);
    allchange();
}

void Config::remove(std::string const&) { allchange(); }

void Config::remove(char const* key) { remove(std::string(key)); }

void Config::set_source_mail_address(std::string address) {
    source.Setup(address);
    allchange();
}

void Config::set_recipient_mail_address(std::string address) {
    recipient.Setup(address);
    allchange();
}

}  // namespace VELT
