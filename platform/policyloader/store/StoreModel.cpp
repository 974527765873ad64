#include <policyloader/store/StoreModel.h>

#include <policyloader/store/StoreReader.h>

namespace policyloader {

void StoreModel::add(eFabric::XmlFile const& file) {
    ++m_files;
    StoreReader(*this, file).read();
}

PolicyNode* StoreModel::find(InternedString name) const {
    auto const found = m_policyByName.find(name.c_str());
    return found == m_policyByName.end() ? nullptr : found->second;
}

PolicyNode& StoreModel::get(InternedString name) {
    if (auto* const known = find(name)) return *known;
    m_policies.push_back(std::make_unique<PolicyNode>());
    auto& made = *m_policies.back();
    made.name = name;
    m_policyByName.emplace(name.c_str(), &made);
    return made;
}

IdentityNode* FindIdentity(PolicyNode const& policy, InternedString name) {
    auto const found = policy.identityByName.find(name.c_str());
    return found == policy.identityByName.end() ? nullptr : found->second;
}

IdentityNode& GetIdentity(PolicyNode& policy, InternedString name) {
    if (auto* const known = FindIdentity(policy, name)) return *known;
    policy.identities.push_back(std::make_unique<IdentityNode>());
    auto& made = *policy.identities.back();
    made.name = name;
    policy.identityByName.emplace(name.c_str(), &made);
    return made;
}

}  // namespace policyloader
