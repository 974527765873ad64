// The wildcard match against the plain recursive form of it, whose time explodes and which short inputs keep in check.
#include <velt/streams/NameMatch.h>

#include <algorithm>
#include <string>

#include "fuzz/Input.h"
#include "testing/NameMatchModel.h"

using velt_fuzz::Require;
using velt_testing::ModelMatch;
using velt_testing::ModelSet;

namespace {

bool Few(std::string const& pattern) { return std::count(pattern.begin(), pattern.end(), '*') <= 3; }

void CheckSet(std::string const& set, unsigned char c) {
    char const* const end = VELT::set_match(set.c_str(), c, true);
    Require(end == ModelSet(set.c_str(), c), "the same set");
    if (set.size() > 5) return;  // short ones are asked for every byte
    for (unsigned each = 0; each < 256; ++each)
        Require(VELT::set_match(set.c_str(), static_cast<int>(each), true) ==
                    ModelSet(set.c_str(), static_cast<unsigned char>(each)),
                "the same set for every byte");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    velt_fuzz::Input input(data, size);
    bool const fold = input.Byte() % 2 == 1;
    std::string const pattern(input.Line().c_str());
    std::string const name(input.Line().c_str());
    int const score = VELT::name_match(pattern.c_str(), name.c_str(), fold);
    if (Few(pattern) && name.size() < 40)
        Require(score == ModelMatch(pattern.c_str(), name.c_str(), fold), "the same score");
    CheckSet(pattern, name.empty() ? 0 : static_cast<unsigned char>(name.front()));
    return 0;
}
