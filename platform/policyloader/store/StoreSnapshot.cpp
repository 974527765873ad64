#include <policyloader/store/StoreSnapshot.h>

#include <utility>

#include <eFabric/XmlFile.h>
#include <policyloader/store/Inheritance.h>
#include <policyloader/store/TablesBuilder.h>

namespace policyloader {
namespace {

StoreTables const* Build(StoreModel& model) {
    AddStandardPolicies(model);
    return TablesBuilder(model, model.pool()).build();
}

}  // namespace

StoreSnapshot::StoreSnapshot(std::unique_ptr<StoreModel> model)
    : m_model(std::move(model)), m_tables(Build(*m_model)) {}

eFabric::IProductValue const* StoreSnapshot::productValue(InternedString policy, InternedString identity,
                                                          InternedString section, InternedString name,
                                                          std::time_t when) const {
    return m_tables->value(policy, identity, section, name, when);
}

eFabric::IIdentityList const& StoreSnapshot::identities(InternedString policy) const {
    return m_tables->identities(policy);
}

int StoreSnapshot::compareActions(InternedString policy, char const* a, char const* b) const {
    return m_tables->compareActions(policy, a, b);
}

SettingsView StoreSnapshot::view(InternedString policy, InternedString identity, std::time_t when) const {
    return m_tables->view(policy, identity, when);
}

std::unique_ptr<StoreSnapshot const> ParseStore(std::string const& name, std::string_view bytes) {
    auto model = std::make_unique<StoreModel>();
    model->add(eFabric::XmlFile(name, std::string(bytes), "rules"));
    return std::make_unique<StoreSnapshot const>(std::move(model));
}

}  // namespace policyloader
