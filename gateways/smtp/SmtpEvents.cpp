#include "SmtpEvents.h"

#include <iterator>

namespace smtp::events {
namespace {

constexpr QXlog::EventText kTexts[] = {
#define VELT_EVENT(name, number, reason, keys, words, advice) {number, reason, words},
#include "SmtpEvents.def"
#undef VELT_EVENT
};

}  // namespace

void RegisterTexts() { QXlog::RegisterTexts(kTexts, std::size(kTexts)); }

}  // namespace smtp::events
