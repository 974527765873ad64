// IdentityFile: identities.xml as names and expressions. Private to this folder.
// Failure: eFabric::XmlError with the place in the file.
#pragma once

#include <string>
#include <vector>

#include <QXid/Expression.h>
#include <eFabric/XmlFile.h>

namespace qxid {

struct IdentityEntry {
    std::string name;
    ExpressionPtr expression;  // null: the element is empty
    eFabric::XmlPlace place;
};

// `name` stands for the file in messages.
VELTPLATFORM_API std::vector<IdentityEntry> ParseIdentities(std::string const& name, std::string bytes);

}  // namespace qxid
