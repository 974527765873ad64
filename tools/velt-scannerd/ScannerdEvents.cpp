#include "ScannerdEvents.h"

#include <iterator>

namespace scannerd::events {
namespace {

constexpr QXlog::EventText kTexts[] = {
#define VELT_EVENT(name, number, reason, keys, words, advice) {number, reason, words},
#include "ScannerdEvents.def"
#undef VELT_EVENT
};

}  // namespace

void RegisterTexts() { QXlog::RegisterTexts(kTexts, std::size(kTexts)); }

}  // namespace scannerd::events
