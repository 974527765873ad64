#include <velt/config_details/RuleOperators.h>
#include <velt/ldap/ServerFile.h>
#include <velt/lookup/NetCheckIPV4.h>

#include <KORtk/Exception.h>
#include <KORtk/Text.h>

#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "tools/velt-policy/Checks.h"
#include "tools/velt-policy/Readers.h"

namespace velt_policy {
namespace {

constexpr std::size_t kMostFree = 12;  // conditions whose answers are all tried

std::wstring Wide(std::string const& text) { return KORtk::Utf8Array(text).wstr(); }

// The hosts that groups begin with.
std::set<std::string> DirectoryHosts() {
    std::vector<std::unique_ptr<VELT::LDAPServer>> servers;
    VELT::ReadServerFile(World::path("ldap.txt"), VELT::ServerFileKind::Directory, servers);
    std::set<std::string> hosts;
    for (auto const& one : servers) hosts.insert(one->getServer());
    return hosts;
}

VELT::OperatorTable const* OperatorsOf(std::string const& subject) {
    if (!VELT::s_operators.count(Wide(subject).c_str())) return nullptr;
    return subject == "con"     ? &VELT::s_ConnectionOperators
           : subject == "efrom" ? &VELT::s_EmailFromOperators
                                : &VELT::s_EmailToOperators;
}

// What a gateway says of a condition when it loads it: nothing, or why its value cannot be taken.
std::optional<std::string> FailureOf(RuleCondition const& condition) try {
    EvalData* prepared = nullptr;
    VELT::evaluate_rule(AtomicValue(Wide(condition.subject)), AtomicValue(Wide(condition.value)),
                        AtomicValue(Wide(condition.op)), nullptr, prepared);
    std::unique_ptr<EvalData> const owned(prepared);
    return std::nullopt;
} catch (KORtk::Exception const& error) {
    return error.what();
} catch (std::exception const& error) {
    return error.what();
}

// Answers of conditions that are tried: by their text.
using Answers = std::map<std::wstring, bool>;

std::wstring KeyOf(std::wstring const& subject, std::wstring const& op, std::wstring const& value) {
    return subject + L' ' + op + L' ' + value;
}

bool AnswerTried(AtomicValue const& subject, AtomicValue const& value, AtomicValue const& op, void* data, EvalData*&) {
    return (*static_cast<Answers*>(data))[KeyOf(subject.AsString(), op.AsString(), value.AsString())];
}

class IdentitiesCheck {
public:
    IdentitiesCheck(World const& world, Findings& findings)
        : m_world(world), m_readers(world.sources()), m_hosts(DirectoryHosts()), m_findings(findings) {}

    void run() {
        auto const identities = m_world.sources().identities();
        for (auto const& one : identities)
            for (auto const& inherited : one.inherits) m_inherited.insert({one.policy.c_str(), inherited.c_str()});
        std::set<std::string> seen;
        for (auto const& one : identities) {
            if (!m_readers.hasIdentities(one.policy.c_str())) continue;
            lookAtName(one);
            if (seen.insert(one.name.c_str()).second) lookAtConditions(one.name.c_str());
        }
    }

private:
    // One that others inherit needs no condition of its own.
    void lookAtName(policyloader::IdentitySource const& one) {
        std::string const name = one.name.c_str();
        auto const* const identity = m_world.rules().find(name.c_str());
        if (!identity || identity->hasExpression()) return;
        if (m_inherited.count({one.policy.c_str(), name})) return;
        bool const written = identity->place().line != 0;
        for (auto const& place : one.places)
            m_findings.warning(SpotOf(place), "identity " + Quoted(name) + " is never chosen: identities.xml " +
                                                  (written ? "has no condition for it" : "does not have it"));
    }

    void lookAtConditions(char const* name) {
        auto const* const identity = m_world.rules().find(name);
        if (!identity || !identity->hasExpression()) return;
        auto const conditions = identity->conditions();
        std::set<std::wstring> never;
        for (auto const& one : conditions)
            if (!canHold(one)) never.insert(keyOf(one));
        if (!never.empty() && !canBeChosen(*identity, conditions, never))
            m_findings.warning(SpotOf(identity->place()), "identity " + Quoted(name) + " can never be chosen");
    }

    static std::wstring keyOf(RuleCondition const& one) {
        return KeyOf(Wide(one.subject), Wide(one.op), Wide(one.value));
    }

    bool canHold(RuleCondition const& condition) {
        if (auto const failure = FailureOf(condition)) {
            m_findings.error(SpotOf(condition.place), condition.text() + ": " + *failure);
            return true;
        }
        std::string const why = whyNever(condition);
        if (!why.empty()) m_findings.warning(SpotOf(condition.place), condition.text() + " never holds: " + why);
        return why.empty();
    }

    std::string whyNever(RuleCondition const& condition) const {
        auto const* const operators = OperatorsOf(condition.subject);
        if (!operators) return "there is no subject " + Quoted(condition.subject);
        if (!operators->count(Wide(condition.op).c_str()))
            return "subject " + Quoted(condition.subject) + " has no operator " + Quoted(condition.op);
        if (condition.subject == "con") return whyNoEnd(condition.value);
        return condition.op == "IN" ? whyNoGroup(condition.value) : "";
    }

    static std::string whyNoEnd(std::string const& value) {
        if (value.empty()) return "the value is empty";
        if (value[0] < '0' || value[0] > '9') return "";
        char const* const why = VELT::NetCheckIPV4::never_matches(value.c_str());
        if (!why) return "";
        return std::string(why) == "is no address" ? "a value that begins with a digit is an address, and this is none"
                                                   : why;
    }

    std::string whyNoGroup(std::string const& value) const {
        for (auto const& host : m_hosts)
            if (value.size() > host.size() + 1 && value.compare(0, host.size() + 1, host + '.') == 0) return "";
        return "the value begins with the name of no server in ldap.txt";
    }

    // Tries every answer of the conditions that may hold.
    static bool canBeChosen(Identity const& identity, std::vector<RuleCondition> const& conditions,
                            std::set<std::wstring> const& never) {
        std::set<std::wstring> keys;
        for (auto const& one : conditions) keys.insert(keyOf(one));
        std::vector<std::wstring> free;
        std::set_difference(keys.begin(), keys.end(), never.begin(), never.end(), std::back_inserter(free));
        if (free.size() > kMostFree) return true;
        for (unsigned tried = 0; tried < 1U << free.size(); ++tried) {
            Answers answers;
            for (std::size_t i = 0; i < free.size(); ++i) answers[free[i]] = tried >> i & 1U;
            if (identity.evaluate(AnswerTried, &answers)) return true;
        }
        return false;
    }

    World const& m_world;
    Readers const m_readers;
    std::set<std::string> const m_hosts;
    std::set<std::pair<std::string, std::string>> m_inherited;  // policy, identity
    Findings& m_findings;
};

}  // namespace

void CheckIdentities(World const& world, Findings& findings) {
    if (world.hasStore() && world.hasRules()) IdentitiesCheck(world, findings).run();
}

}  // namespace velt_policy
