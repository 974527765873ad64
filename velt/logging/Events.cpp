#include "velt/logging/Events.h"

#include <iterator>

#define VELT_EVENT(name, number, reason, keys, words, advice) \
    template class QXlog::EventT<number, QXlog::ReasonT<reason>>;
#define VELT_EVENT_ALONE(name, number, keys, words, advice) template class QXlog::EventT<number, KORtk::NullType>;
#include "velt/logging/Events.def"
#undef VELT_EVENT
#undef VELT_EVENT_ALONE

namespace VELT::events {
namespace {

constexpr QXlog::EventText kTexts[] = {
#define VELT_EVENT(name, number, reason, keys, words, advice) {number, reason, words},
#define VELT_EVENT_ALONE(name, number, keys, words, advice) {number, QXlog::kNoReason, words},
#include "velt/logging/Events.def"
#undef VELT_EVENT
#undef VELT_EVENT_ALONE
};

[[maybe_unused]] bool const s_registered = (RegisterEventTexts(), true);

}  // namespace

void RegisterEventTexts() { QXlog::RegisterTexts(kTexts, std::size(kTexts)); }

}  // namespace VELT::events
