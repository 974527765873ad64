// What the framework said of its engines at start-up, which is written into every result of their kind.
// Written once, before threads start; read without a lock afterwards. No failure: what was not said is empty.
#pragma once

#include <eFabric/Property.h>

#include <string>

#include <velt/Export.h>

namespace VELT {

extern VELT_API std::string s_AVEngine, s_AVDats;  // version and definitions of the anti-virus engine
extern std::string s_SPAMEngine, s_SPAMDats;       // and of the anti-spam engine

// Notes both, and this host, in the sub-bag "QX_PROPERTIES" of a result, which keeps what else is in it.
void set_qx_version(IKORPropertyBag& bag, std::string const& engine, std::string const& dats);

}  // namespace VELT
