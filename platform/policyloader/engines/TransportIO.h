// TransportIO: whole reads and writes over a stream transport, in blocks of 64 KiB.
// Owner: none, free functions.  Threads: the scan's.  Units: bytes.  Failure: EngineFailure of Read or Write.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include <eFabric/Transport.h>

namespace policyloader {

// Memory that a scan thread keeps from scan to scan.
struct ReadBuffer {
    std::vector<char> bytes;
};

// From one position up to another; less than that is a failure.
void ReadRange(eFabric::IStreamTransport& in, std::uint64_t from, std::uint64_t to, ReadBuffer& buffer,
               std::function<void(std::string_view)> const& take);
void WriteAll(eFabric::IStreamTransport& out, std::string_view text);
void CopyObject(eFabric::IStreamTransport& in, eFabric::IStreamTransport& out, ReadBuffer& buffer);

inline constexpr std::size_t kBlockBytes = 64u << 10;

}  // namespace policyloader
