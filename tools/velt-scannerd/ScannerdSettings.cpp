#include "ScannerdSettings.h"

#include <system/SystemPath.h>

#include <algorithm>

namespace scannerd {
namespace {

namespace S = VELTCFG::scannerd;
using VELT::ReadSetting;

constexpr std::uint64_t kLargestItem = 0xFFFFFFFF;  // bytes; positions in a stream are 32 bits wide

template <class Descriptor>
unsigned Milliseconds(VELT::Config& config) {
    return ReadSetting<Descriptor>(config) * 1000;
}

std::vector<std::string> Roots(VELT::Config& config) {
    std::vector<std::string> out;
    auto const list = ReadSetting<S::SpoolRoots>(config);
    for (unsigned i = 0; i < list.size(); ++i) out.push_back(list.at(i).str());
    if (out.empty()) out.push_back(SystemPath("/scandir"));
    return out;
}

}  // namespace

SessionSettings::SessionSettings(VELT::Config& config) : spoolRoots(Roots(config)) {
    limits.itemBytes = std::min(ReadSetting<S::MaxItemSize>(config) * std::uint64_t{1024}, kLargestItem);
    limits.idleMs = Milliseconds<S::IdleTimeout>(config);
    limits.requestMs = Milliseconds<S::RequestTimeout>(config);
    limits.dataMs = Milliseconds<S::DataTimeout>(config);
    limits.itemMs = Milliseconds<S::ItemTimeout>(config);
    limits.parkMs = Milliseconds<S::ParkTimeout>(config);
}

}  // namespace scannerd
