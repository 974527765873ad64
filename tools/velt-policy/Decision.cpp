#include "tools/velt-policy/Decision.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <velt/config_details/RuleOperators.h>
#include <velt/connection/Connection.h>
#include <velt/lookup/Resolver.h>
#include <velt/scanning/EFabricScanAgent.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <memory>

#include "tools/velt-policy/Checks.h"
#include "tools/velt-policy/KnownSettings.h"
#include "tools/velt-policy/Readers.h"

namespace velt_policy {
namespace {

using VELT::Config;

double ProcessorMicroseconds() {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

struct BadQuery {
    std::string problem;
};

bool FirstAddress(std::string const& host, in_addr& address) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return false;
    std::unique_ptr<addrinfo, void (*)(addrinfo*)> const owned(found, ::freeaddrinfo);
    address = reinterpret_cast<sockaddr_in const*>(found->ai_addr)->sin_addr;
    return true;
}

sockaddr_in AddressOf(std::string const& text, bool resolve) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (text.empty() || ::inet_pton(AF_INET, text.c_str(), &address.sin_addr) == 1) return address;
    if (!resolve) throw BadQuery{"\"" + text + "\" is no IPv4 address, and names are looked up only with --resolve"};
    if (!FirstAddress(text, address.sin_addr))
        throw BadQuery{"\"" + text + "\" is no IPv4 address and no host that has one"};
    return address;
}

unsigned SlotOf(std::string const& name) {
    auto const* const found = std::find(kSlotNames, kSlotNames + kSlots, name);
    if (found == kSlotNames + kSlots) throw BadQuery{"there is no policy slot \"" + name + "\""};
    return static_cast<unsigned>(found - kSlotNames);
}

struct SettingName {
    std::string section;
    std::string key;
};

SettingName Split(std::string const& setting) {
    std::size_t const slash = setting.find('/');
    if (slash == std::string::npos) throw BadQuery{"\"" + setting + "\" is no SECTION/KEY"};
    return {setting.substr(0, slash), setting.substr(slash + 1)};
}

// That of the setting; content, where most identities are, for one that nobody knows, and without one.
unsigned UsualSlot(std::string const& setting) {
    if (setting.empty()) return Config::POLICY_CONTENT;
    auto const [section, key] = Split(setting);
    auto const* const known = FindSetting(section, key);
    return known ? known->slot : static_cast<unsigned>(Config::POLICY_CONTENT);
}

// A condition with IN asks when the groups are not known yet, and then they are, unless that fails.
DirectoryAnswer AnswerOf(VELT::ConfigEmailAddress const& address, char const* subject,
                         std::vector<TriedIdentity> const& tried) {
    DirectoryAnswer answer;
    for (auto const& one : tried)
        for (auto const& [condition, held, negated, decisive] : one.why.asked)
            answer.asked = answer.asked || (condition.subject == subject && condition.op == "IN");
    answer.failed = answer.asked && !address.groupsKnown;
    if (answer.asked && !answer.failed) answer.groups = address.groups;
    return answer;
}

void GiveGroups(VELT::ConfigEmailAddress& address, Query::Groups const& groups) {
    if (!groups) return;
    address.groups = *groups;
    address.groupsKnown = true;
}

}  // namespace

Decider::Decider(World& world, bool resolve, bool all) : m_world(world), m_resolve(resolve), m_all(all) {
    VELT::Resolver::s_reverse_lookups_banned = !resolve;
}

Decision Decider::decide(Query const& query) try {
    auto const begin = std::chrono::steady_clock::now();
    double const processor = ProcessorMicroseconds();
    Decision decision;
    decision.slot = query.policy.empty() ? UsualSlot(query.setting) : SlotOf(query.policy);
    if (query.from.empty()) throw BadQuery{"\"from\" is missing"};
    VELT::Connection session;
    choose(session, query, decision);
    decision.microseconds = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count();
    decision.processorMicroseconds = ProcessorMicroseconds() - processor;
    return decision;
} catch (BadQuery const& bad) {
    Decision decision;
    decision.problem = bad.problem;
    return decision;
}

// As a gateway: the ends first, which fix the direction; then the envelope; then a read through the slot.
void Decider::choose(VELT::Connection& session, Query const& query, Decision& decision) {
    sockaddr_in from = AddressOf(query.from, m_resolve), to = AddressOf(query.to, m_resolve);
    session.SetConnection(&m_world.config(), nullptr, !query.to.empty(), from, to, to);
    session.getSourceConnection().m_host = query.fromHost;
    session.getServerConnection().m_host = query.toHost;
    if (!session.SetupInsideOutside()) return;
    Config& config = session.GetConfig();
    decision.inbound = config.inbound;
    decision.policy = Config::s_PolicyIds[config.inbound][decision.slot].c_str();
    config.set_source_mail_address(query.sender);
    config.set_recipient_mail_address(query.recipient);
    GiveGroups(config.source, query.senderGroups);
    GiveGroups(config.recipient, query.recipientGroups);
    auto& slot = config.policies[decision.slot];
    if (auto const identity = slot.policy(&config)) decision.identity = identity.c_str();
    if (!query.setting.empty()) readSetting(config, query.setting, decision);
    tell(slot, decision);
    if (!query.senderGroups) decision.ofSender = AnswerOf(config.source, "efrom", decision.tried);
    if (!query.recipientGroups) decision.ofRecipient = AnswerOf(config.recipient, "eto", decision.tried);
}

void Decider::tell(Config::PolicyInfo& slot, Decision& decision) const {
    if (!slot.config) return;  // no identity was looked for
    bool const inbound = slot.config->inbound;
    auto const& names = Config::s_Identities[inbound][slot.index];
    auto const& expressions = Config::s_IdentityExpressions[inbound][slot.index];
    for (std::size_t i = 0; i < expressions.size(); ++i) {
        bool const chosen = slot.identity && names[i] == slot.identity;
        if (chosen || m_all)
            decision.tried.push_back(
                {names[i].c_str(), expressions[i]->place(), expressions[i]->explain(VELT::evaluate_rule, &slot)});
        if (chosen) return;
    }
}

void Decider::readSetting(Config& config, std::string const& setting, Decision& decision) const {
    auto const [section, key] = Split(setting);
    auto const* const loader = Config::getPolicyLoader();
    auto const settings = loader->internSettings(section.c_str()), attribute = loader->internAttribute(key.c_str());
    auto const* const value = config.getProductValue(decision.slot, settings, attribute);
    auto const* const known = FindSetting(section, key);
    auto& told = decision.value.emplace();
    told.known = known != nullptr;
    told.standard = !value;
    if (known) told.effective = known->standard;
    if (!value) return;
    told.raw = told.effective = RawText(*value);
    if (known) {
        auto const reading = known->read(*known, *value);
        told.effective = reading.effective;
        told.standard = reading.kind == Reading::Kind::standard;
        told.clamped = reading.kind == Reading::Kind::clamped;
        for (auto const& item : reading.items) told.clamped = told.clamped || item.kind == Reading::Kind::clamped;
    }
    auto const& slot = config.policies[decision.slot];
    auto const source = m_world.sources().find(Config::s_PolicyIds[config.inbound][decision.slot], slot.identity,
                                               settings, attribute, VELT::EFabricScanAgent::get_time());
    if (!source) return;
    told.source = SpotOf(source->place);
    told.sourcePolicy = source->policy.c_str();
    if (source->identity) told.sourceIdentity = source->identity.c_str();
    if (source->window) told.window = source->window;
}

}  // namespace velt_policy
