#include <QXid/Rules.h>
#include <QXlog/Names.h>

#include <velt/Config.h>
#include <velt/config_details/RuleOperators.h>
#include <velt/connection/Connection.h>
#include <velt/logging/Events.h>
#include <velt/logging/Log.h>
#include <velt/scanning/EFabricScanAgent.h>

namespace VELT {

namespace {

char const* TextOf(eFabric::InternedString const& interned) { return interned ? interned.c_str() : ""; }

KORlog::InfoBag SelectionAttributes(Config::PolicyInfo const& slot) {
    if (Connection const* const session = slot.get_connection()) {
        KORlog::InfoBag attributes;
        session->LogConnectionAttributes(attributes);
        return KORlog::Key{"connection"}(attributes);
    }
    using namespace QXlog::names;
    return QXPROP_APPLICATION_CONFIGURATION_ITEMS(TextOf(Config::s_PolicyIds[slot.config->inbound][slot.index])) |
           QXPROP_AUDIT_ID("initialization") | QXPROP_SELECTED_IDENTITY(TextOf(slot.identity));
}

}  // namespace

void Config::PolicyInfo::set(PolicyInfo* other) {
    identity = other->identity;
    m_changed = false;
}

// A restored Config keeps what it was given: nothing is evaluated and nothing is reported. The mark goes before the
// report, since what a session tells about itself may rest on a setting that is read through this very slot.
void Config::PolicyInfo::resolve(Config* owner) {
    if (owner->restored) {
        m_changed = false;
        return;
    }
    config = owner;
    identity = SelectIdentity();
    m_changed = false;
    LogEvent(events::IDENTITY_SELECTED, [this] { return SelectionAttributes(*this); });
}

// The store's order is the order of priority: the first identity whose rule holds is the one.
eFabric::InternedString Config::PolicyInfo::SelectIdentity() {
    for (Identity const* const expression : s_IdentityExpressions[config->inbound][index]) {
        eFabric::InternedString const& selected = expression->evaluate(evaluate_rule, this);
        if (selected) return selected;
    }
    return {};
}

eFabric::InternedString Config::PolicyInfo::policy(Config* owner) {
    if (m_changed) resolve(owner);
    return identity;
}

eFabric::IProductValue const* Config::PolicyInfo::get(Config* owner, unsigned int policy,
                                                      eFabric::InternedString const& settings,
                                                      eFabric::InternedString const& attribute) {
    if (!s_Loader || policy >= s_policyCount) return nullptr;
    if (m_changed) resolve(owner);
    int status = 0;
    return s_Loader->productValue(s_PolicyIds[owner->inbound][policy], identity, settings, attribute,
                                  EFabricScanAgent::get_time(), &status);
}

void Config::PolicyInfo::save_state(std::string& out) const { out += TextOf(identity); }

void Config::PolicyInfo::restore_state(Config* owner, std::string const& field) {
    config = owner;
    if (!field.empty()) identity = find_identity(owner->inbound, index, field.c_str());
}

ConfigEmailAddress* Config::PolicyInfo::get_recipient_mail() const { return config ? &config->recipient : nullptr; }

ConfigEmailAddress* Config::PolicyInfo::get_source_mail() const { return config ? &config->source : nullptr; }

Connection* Config::PolicyInfo::get_connection() const { return config ? config->connection : nullptr; }

char const* Config::PolicyInfo::get_client_host() const {
    Connection* const session = get_connection();
    return session ? session->getSourceConnection().get_host() : "";
}

char const* Config::PolicyInfo::get_server_host() const {
    Connection* const session = get_connection();
    return session ? session->getServerConnection().get_host() : "";
}

sockaddr_in const* Config::PolicyInfo::get_client_address() const {
    Connection* const session = get_connection();
    return session ? session->getSourceConnection().get_address() : nullptr;
}

sockaddr_in const* Config::PolicyInfo::get_server_address() const {
    Connection* const session = get_connection();
    return session ? session->getServerConnection().get_address() : nullptr;
}

}  // namespace VELT
