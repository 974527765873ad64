// CaptureRecord: what stands in front of each piece of data in a capture file; docs/formats/capture.md has the whole
// format. Units: bytes; both numbers in the order of the machine that wrote the file.
#pragma once

#include <cstdint>

namespace VELT {

struct CaptureRecord {
    static constexpr std::int32_t received = 0;
    static constexpr std::int32_t sent = 1;

    std::int32_t type = received;  // a host may write other values
    std::int32_t length = 0;       // of the data that follows; below 0 there is none
};
static_assert(sizeof(CaptureRecord) == 8);

}  // namespace VELT
