// Escaping of text that comes from an envelope before it stands in a filter or in the name of an entry, so that it can
// only ever be a value there. Threads: any. Text without special characters comes back as it is; bytes from 0x80 on are
// UTF-8's and stay.
#pragma once

#include <string>
#include <string_view>

#include <velt/Export.h>

namespace VELT {

VELT_API std::string escape_filter(std::string_view value);  // RFC 4515, section 3: * ( ) \ NUL
VELT_API std::string escape_dn(std::string_view value);      // RFC 4514, section 2.4

}  // namespace VELT
