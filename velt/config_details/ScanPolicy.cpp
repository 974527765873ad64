#include <velt/config_details/ScanPolicy.h>

#include <velt/Config.h>
#include <velt/scanning/ScanContext.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace VELT {

void Config::set_scan_policy(ScanContext* context) {
    context->policy = s_PolicyIds[inbound][POLICY_CONTENT];
    context->identities.clear();
    context->identities.push_back(policies[POLICY_CONTENT].policy(this));
}

void Config::set_scan_identity(ScanContext* context, int& priority, eFabric::InternedString& identity) {
    priority = -1;
    identity = policies[POLICY_CONTENT].policy(this);
    context->policy = s_PolicyIds[inbound][POLICY_CONTENT];
    auto& identities = context->identities;
    if (std::find(identities.begin(), identities.end(), identity) == identities.end()) identities.push_back(identity);
    priority = find_identity_priority(inbound, POLICY_CONTENT, identity);
}

void Config::force_scan_identity(ScanContext* context, eFabric::InternedString const& identity) {
    context->identities.assign(1, eFabric::InternedString(identity));
}

// An identity without a priority has -1 and so is the highest of all.
void Config::set_scan_highest_identity(ScanContext* context, int& priority, eFabric::InternedString& identity) {
    if (context->identities.empty()) return;
    identity = context->identities.front();
    priority = find_identity_priority(inbound, POLICY_CONTENT, identity);
    for (eFabric::InternedString const& other : context->identities) {
        int const otherPriority = find_identity_priority(inbound, POLICY_CONTENT, other);
        if (otherPriority >= priority) continue;
        identity = other;
        priority = otherPriority;
    }
    force_scan_identity(context, identity);
}

bool Config::compare_master_actions(ScanContext* context, char const* first, char const* second) {
    constexpr int kFirstIsStronger = 2;
    return s_Loader && s_Loader->compareActions(context->policy, first, second) == kFirstIsStronger;
}

std::string Config::save_state() const {
    std::string line = inbound ? "1" : "0";
    for (PolicyInfo const& slot : policies) {
        line += ' ';
        slot.save_state(line);
    }
    return line;
}

void Config::restore_state(std::string const& text) {
    std::string field;
    char const* rest = sep_to_string(text.c_str(), field);
    inbound = std::strtol(field.c_str(), nullptr, 10) != 0;
    for (PolicyInfo& slot : policies) {
        rest = sep_to_string(rest, field);
        slot.restore_state(this, field);
    }
    restored = true;
}

char const* sep_to_string(char const* text, std::string& out) {
    out.clear();
    if (!text) return nullptr;
    char const* const blank = std::strchr(text, ' ');
    if (!blank) {
        out = text;
        return nullptr;
    }
    out.assign(text, blank);
    return blank + 1;
}

}  // namespace VELT
