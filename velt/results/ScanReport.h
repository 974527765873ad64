// The pieces that the reports of scan results are made of. Any thread; bags are built only for an event that is on.
#pragma once

#include <KORlog/InfoBag.h>

#include <boost/optional.hpp>

#include <velt/connection/Connection.h>

namespace VELT::results {

// The session's attributes, under the key "connection".
inline KORlog::InfoBag ConnectionAttributes(Connection const& connection) {
    KORlog::InfoBag attributes;
    connection.LogConnectionAttributes(attributes);
    return KORlog::Key{"connection"}(attributes);
}

// Adds a value that may be unset.
template <class T>
void AddIfSet(KORlog::InfoBag& bag, KORlog::Key const& key, boost::optional<T> const& value) {
    if (value) bag |= key(*value);
}

}  // namespace VELT::results
