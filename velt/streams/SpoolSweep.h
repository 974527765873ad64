// RemoveStaleSpool: removes the spool files that processes left behind which ended without order.
// Thread: one, at start-up. Owner: none. Units: the answer counts files. Younger files than an hour stay: another
// process of the same proxy may still be at work on them. Failure: what cannot be removed stays, without a word.
#pragma once

#include <string>

#include <velt/Export.h>

namespace VELT {

VELT_API unsigned long RemoveStaleSpool(std::string const& directory);  // how many are gone; not those of folders in it

}  // namespace VELT
