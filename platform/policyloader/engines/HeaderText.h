// HeaderText: what stands in header fields, for people and for counting.
// Free functions; any thread.  Units: bytes.  Failure: none; what is malformed is taken as far as it goes.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace policyloader {

// The value of a field as its reader sees it, in UTF-8: encoded words are undone.
std::string DecodedHeader(std::string const& value);

// The mailboxes of an address list, those of groups too. In one that is malformed each comma counts.
std::size_t CountAddresses(std::string_view list);

}  // namespace policyloader
