// Marks: the "%NAME%" of texts that policy has written, and what the host has to put in their place.
// Functions; nothing fails, and what nobody knows stays as it is.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <eFabric/Property.h>

namespace policyloader {

using MarkValue = std::function<bool(std::string const& name, std::string& text)>;

// Puts a text for each "%NAME%" for which `value` knows one; other marks stay. What is put in is not looked at again.
std::string FillMarks(std::string_view text, MarkValue const& value);

// The host's text, named with its marks or without. `texts` may be null.
bool HostsText(IKORPropertyBag const* texts, std::string const& name, std::string& text);

// What others chose stays within its line: without line ends and other controls.
std::string OneLine(std::string text);

}  // namespace policyloader
