#include <policyloader/store/StoreSources.h>

#include <algorithm>
#include <cstring>
#include <tuple>

#include <policyloader/store/Inheritance.h>
#include <policyloader/store/StoreModel.h>

namespace policyloader {
namespace {

// Settings that stand together in a file.
struct Block {
    PolicyNode const* policy;
    IdentityNode const* identity;  // null: the policy's own

    Scope const& scope() const { return identity ? identity->scope : policy->scope; }
    InternedString identityName() const { return identity ? identity->name : InternedString(); }
};

// The blocks that a look-up asks, one after the other.
std::vector<Block> BlocksOf(StoreModel const& model, PolicyNode const& policy, InternedString identity) {
    std::vector<Block> blocks;
    auto const* const own = identity ? FindIdentity(policy, identity) : nullptr;
    if (own)
        for (auto const* const node : AncestorsOf(policy, *own)) blocks.push_back(Block{&policy, node});
    for (auto const* const node : BasesOf(model, policy)) blocks.push_back(Block{node, nullptr});
    return blocks;
}

std::vector<Block> AllBlocks(StoreModel const& model) {
    std::vector<Block> blocks;
    for (auto const& policy : model.policies()) {
        blocks.push_back(Block{policy.get(), nullptr});
        for (auto const& identity : policy->identities) blocks.push_back(Block{policy.get(), identity.get()});
    }
    return blocks;
}

SaidValue const* InForce(Setting const& setting, std::time_t when) {
    for (auto const& said : setting.windowed)
        if (said.window->contains(when)) return &said;
    return setting.plain.value ? &setting.plain : nullptr;
}

ValueSource SourceOf(Block const& block, SettingKey key, SaidValue const& said, Place replacedBy = {}) {
    return ValueSource{block.policy->name, block.identityName(), key.section,    key.name,  said.value,
                       said.when,          said.place,           said.itemLines, replacedBy};
}

void Append(std::vector<ValueSource>& all, Block const& block, SettingKey key, Setting const& setting) {
    for (auto const& said : setting.windowed) all.push_back(SourceOf(block, key, said));
    if (setting.plain.value) all.push_back(SourceOf(block, key, setting.plain));
    for (auto const& [said, by] : setting.replaced) all.push_back(SourceOf(block, key, said, by));
}

bool Before(Place const& a, Place const& b) {
    int const files = std::strcmp(a.file, b.file);
    return files != 0 ? files < 0 : std::tie(a.line, a.column) < std::tie(b.line, b.column);
}

}  // namespace

std::optional<ValueSource> StoreSources::find(InternedString policy, InternedString identity, InternedString settings,
                                              InternedString attribute, std::time_t when) const {
    auto const* const node = policy ? m_model->find(policy) : nullptr;
    if (!node) return std::nullopt;
    SettingKey const key{settings.c_str(), attribute.c_str()};
    if (when == 0) when = std::time(nullptr);
    for (auto const& block : BlocksOf(*m_model, *node, identity)) {
        auto const setting = block.scope().settings.find(key);
        if (setting == block.scope().settings.end()) continue;
        if (auto const* const said = InForce(setting->second, when)) return SourceOf(block, key, *said);
    }
    return std::nullopt;
}

std::vector<ValueSource> StoreSources::values() const {
    std::vector<ValueSource> all;
    for (auto const& block : AllBlocks(*m_model))
        for (auto const& [key, setting] : block.scope().settings) Append(all, block, key, setting);
    std::sort(all.begin(), all.end(), [](auto const& a, auto const& b) { return Before(a.place, b.place); });
    return all;
}

std::vector<RuleSource> StoreSources::rules() const {
    std::vector<RuleSource> all;
    for (auto const& block : AllBlocks(*m_model))
        for (auto const& [section, rules] : block.scope().rules)
            for (auto const& [file, rule] : rules)
                all.push_back(RuleSource{block.policy->name, block.identityName(), section, rule});
    return all;
}

std::vector<IdentitySource> StoreSources::identities() const {
    std::vector<IdentitySource> all;
    for (auto const& [policy, identity] : AllBlocks(*m_model))
        if (identity) all.push_back(IdentitySource{policy->name, identity->name, identity->inherits, identity->places});
    return all;
}

std::vector<PolicySource> StoreSources::policies() const {
    std::vector<PolicySource> all;
    for (auto const& policy : m_model->policies()) {
        auto const bases = BasesOf(*m_model, *policy);
        auto const base = bases.size() > 1 ? bases[1]->name : InternedString();
        auto const actions = policy->actions.value_or(std::vector<InternedString>());
        all.push_back(PolicySource{policy->name, base, actions, policy->actionsPlace, policy->places});
    }
    return all;
}

}  // namespace policyloader
