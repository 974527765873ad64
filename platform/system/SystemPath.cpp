#include <system/SystemPath.h>

#include <cstdlib>

std::string SystemPath(std::string_view fixed) {
    char const* const root = ::secure_getenv("VELT_ROOT");
    std::string path(root ? root : "");
    path.append(fixed);
    return path;
}
