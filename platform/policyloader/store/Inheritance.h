// Inheritance: in which order the parts of the store are asked. Private to this folder.
// Failure: eFabric::XmlError at the attribute that names something unknown or closes a circle.
#pragma once

#include <vector>

#include <policyloader/store/StoreModel.h>

namespace policyloader {

// Makes the policies that exist without being written down, so that they inherit by name.
void AddStandardPolicies(StoreModel& model);

// A policy without a base attribute has one by name: "x_in" and "x_out" have "x", every other has "base".
std::vector<PolicyNode const*> BasesOf(StoreModel const& model, PolicyNode const& policy);  // itself first

// Depth first, each once, itself first.
std::vector<IdentityNode const*> AncestorsOf(PolicyNode const& policy, IdentityNode const& identity);

}  // namespace policyloader
