#include <policyloader/store/StoreModel.h>

#include <algorithm>

#include <policyloader/store/StoreReader.h>

namespace policyloader {

void StoreModel::add(eFabric::XmlFile const& file) {
    ++m_files;
    StoreReader(*this, file).read();
}

PolicyNode* StoreModel::find(InternedString name) const {
    auto const found =
        std::find_if(m_policies.begin(), m_policies.end(), [&](auto const& policy) { return policy->name == name; });
    return found == m_policies.end() ? nullptr : found->get();
}

PolicyNode& StoreModel::get(InternedString name) {
    if (auto* const known = find(name)) return *known;
    m_policies.push_back(std::make_unique<PolicyNode>());
    m_policies.back()->name = name;
    return *m_policies.back();
}

IdentityNode* FindIdentity(PolicyNode const& policy, InternedString name) {
    auto const found = std::find_if(policy.identities.begin(), policy.identities.end(),
                                    [&](auto const& identity) { return identity->name == name; });
    return found == policy.identities.end() ? nullptr : found->get();
}

}  // namespace policyloader
