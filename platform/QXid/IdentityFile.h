// IdentityFile: identities.xml as names and expressions. Private to this folder.
// Failure: eFabric::XmlErrors with their places in the file.
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

struct IdentityList {
    std::vector<IdentityEntry> entries;
    std::vector<eFabric::XmlError> errors;  // one at most of each identity; with one there is no use for the entries
};

// `name` stands for the file in messages. Throws where the file as a whole cannot be read.
VELTPLATFORM_API IdentityList ParseIdentities(std::string const& name, std::string bytes);

}  // namespace qxid
