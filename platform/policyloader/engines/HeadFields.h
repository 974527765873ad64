// HeadFields: the lines of a header block as they stand, taken over into another one, and fields of parts that are new.
// Constants and functions; nothing fails. Lines end as the object's do.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace policyloader {

// The fields whose name is wanted, with the lines that continue them; without the empty line at the end. A line that is
// no field has an empty name.
std::string KeepFields(std::string_view block, std::string const& lineEnd,
                       std::function<bool(std::string_view name)> const& wanted);
bool HasField(std::string_view block, std::string_view name);

// One parameter of a field as its own continuation line, with the ";" in front: quoted, or where it is not ASCII in
// the form of RFC 2231.
std::string FieldParameter(std::string const& name, std::string const& utf8, std::string const& lineEnd);

std::string WithLineEnds(std::string_view text, std::string const& lineEnd);  // of line feeds

}  // namespace policyloader
