// The keys of the values that events carry, as names of the library.
#pragma once

#include <QXlog/Names.h>

namespace VELT {

using namespace QXlog::names;

// The session's attributes, as one nested bag.
inline constexpr KORlog::Key QXPROP_CONNECTION{"connection"};

}  // namespace VELT
