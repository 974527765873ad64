// The framework's library and its words: loading libpolicyloader.so, and its errors in syslog.
// Used by the engine adapter alone. Threads: load_efabric_library at start-up; the rest from any thread.
#pragma once

#include <eFabric/Policy.h>

namespace VELT {

// Loads the library once; false, with the reason in syslog, when it or one of its functions is missing.
bool load_efabric_library();

class EFabricLibrary {
public:
    static eFabric::IPolicyLoader* CreateLoader();  // null when there is no library, or it gives none
    static void Shutdown();                         // nothing without a library
};

void write_efabric_error(char const* function, int line, char const* text, IKORError const& error);
void debug_wide_log(char const* function, int line, wchar_t const* text);

// The file "scan.dat" that an engine keeps open across fork: each process that scans opens it anew under the same
// descriptor number, so that no two processes share a file position.
void pre_fork_init_filedescriptors();
void post_fork_init_filedescriptors();

}  // namespace VELT
