#include <policyloader/store/Inheritance.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include <eFabric/XmlFile.h>
#include <policyloader/store/InternPool.h>

namespace policyloader {
namespace {

constexpr std::string_view Base = "base";
constexpr std::string_view Kinds[] = {"connection", "content", "transport", "protocol",
                                      "const",      "machine", "network",   "system"};
constexpr std::string_view Directions[] = {"", "_in", "_out"};

[[noreturn]] void Fail(Place const& place, std::string const& reason) {
    throw eFabric::XmlError(eFabric::XmlPlace{place.file, place.line, place.column}, reason);
}

InternedString Intern(std::string const& text) { return InternPool::process().intern(text); }

bool EndsWith(std::string_view text, std::string_view end) {
    return text.size() > end.size() && text.substr(text.size() - end.size()) == end;
}

PolicyNode const* BaseByName(StoreModel const& model, PolicyNode const& policy) {
    std::string const name = policy.name.c_str();
    if (name == Base) return nullptr;
    for (auto const direction : {std::string_view("_in"), std::string_view("_out")}) {
        if (!EndsWith(name, direction)) continue;
        if (auto const* const found = model.find(Intern(name.substr(0, name.size() - direction.size())))) return found;
    }
    return model.find(Intern(std::string(Base)));
}

PolicyNode const* BaseOf(StoreModel const& model, PolicyNode const& policy) {
    if (!policy.base) return BaseByName(model, policy);
    if (!*policy.base) return nullptr;
    auto const* const base = model.find(*policy.base);
    if (!base) Fail(policy.basePlace, std::string("base policy '") + policy.base->c_str() + "' does not exist");
    return base;
}

// One policy of the circle has its base written down, as bases by name lead to "base" and end there.
[[noreturn]] void FailCircle(std::vector<PolicyNode const*> const& bases) {
    auto const* said = bases.back();
    for (auto const* const node : bases)
        if (node->base) said = node;
    Fail(said->basePlace, std::string("policy '") + said->name.c_str() + "' is its own base in a circle");
}

// Collects a depth-first walk; the identities on the way down are kept apart to find circles. The depth is bounded by
// the number of identities, so the walk keeps its own stack.
class AncestorWalk {
public:
    explicit AncestorWalk(PolicyNode const& policy) : m_policy(policy) {}

    std::vector<IdentityNode const*> from(IdentityNode const& identity) {
        enter(identity);
        while (!m_path.empty()) {
            auto& [node, next] = m_path.back();
            if (next == node->inherits.size())
                leave(*node);
            else
                visit(*node, node->inherits[next++]);
        }
        return std::move(m_found);
    }

private:
    enum class State { OnPath, Done };

    void enter(IdentityNode const& identity) {
        m_states[&identity] = State::OnPath;
        m_found.push_back(&identity);
        m_path.emplace_back(&identity, 0);
    }

    void leave(IdentityNode const& identity) {
        m_states[&identity] = State::Done;
        m_path.pop_back();
    }

    void visit(IdentityNode const& heir, InternedString name) {
        auto const* const node = FindIdentity(m_policy, name);
        std::string const quoted = std::string("'") + name.c_str() + "'";
        if (!node) Fail(heir.inheritsPlace, "identity " + quoted + " does not exist in this policy");
        auto const known = m_states.find(node);
        if (known == m_states.end()) return enter(*node);
        if (known->second == State::OnPath)
            Fail(heir.inheritsPlace, "identity " + quoted + " inherits itself in a circle");
    }

    PolicyNode const& m_policy;
    std::vector<IdentityNode const*> m_found;
    std::unordered_map<IdentityNode const*, State> m_states;
    std::vector<std::pair<IdentityNode const*, std::size_t>> m_path;
};

}  // namespace

void AddStandardPolicies(StoreModel& model) {
    model.get(Intern(std::string(Base)));
    for (auto const kind : Kinds)
        for (auto const direction : Directions) model.get(Intern(std::string(kind).append(direction)));
}

std::vector<PolicyNode const*> BasesOf(StoreModel const& model, PolicyNode const& policy) {
    std::vector<PolicyNode const*> bases{&policy};
    while (auto const* const base = BaseOf(model, *bases.back())) {
        if (std::count(bases.begin(), bases.end(), base)) FailCircle(bases);
        bases.push_back(base);
    }
    return bases;
}

std::vector<IdentityNode const*> AncestorsOf(PolicyNode const& policy, IdentityNode const& identity) {
    return AncestorWalk(policy).from(identity);
}

}  // namespace policyloader
