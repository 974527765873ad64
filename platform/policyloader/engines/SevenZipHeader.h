// SevenZipHeader: what the directory of a 7z archive would have a reader allocate, told before one does. The directory
// itself may be packed: a few bytes can speak of a hundred million files.
// A function over one object; any thread.  Units: bytes.  Failure: EngineFailure when the object cannot be read,
// std::bad_alloc; what is wrong with the archive is the answer's `state`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace policyloader {

class TempObject;

struct SevenZipHeader {
    enum class State { Good, Broken, Encrypted };
    State state = State::Good;
    std::uint64_t things = 0;  // the most of files, folders or streams
    std::uint64_t memory = 0;  // the most that unpacking one of its folders takes
};

// The archive begins at `begin`. A directory of more than 16 MiB has too many things to count.
SevenZipHeader ReadSevenZipHeader(TempObject const& from, std::uint64_t begin);

// Whether one really begins so, and not only with its mark.
inline constexpr std::size_t kSevenZipStart = 32;
bool IsSevenZip(std::string_view start);

}  // namespace policyloader
