// UUID: a unique text per call (RFC 4122, random form, 36 characters). Any thread.
#pragma once

#include <string>

#include <Export.h>

struct VELTPLATFORM_API UUID {
    static std::string get();
};
