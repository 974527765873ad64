// SystemPath: the one place where the system's fixed absolute paths are made.
// With the environment variable VELT_ROOT unset the path is as given; set, and the process not privileged by setuid
// (secure_getenv(3)), it is put in front, so that a test or a developer's gateway stays inside a folder of its own.
// Who composes a fixed path applies it; who is handed a path uses that as it is.
#pragma once

#include <string>
#include <string_view>

#include <Export.h>

VELTPLATFORM_API std::string SystemPath(std::string_view fixed);
