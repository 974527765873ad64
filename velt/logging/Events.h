// The events of the library, by name: VELT::events::SESSION_BEGINS is the one object of event 10003 reason 68.
// velt/logging/Events.def is the catalogue, one row each; docs/events.md is made from it by scripts/gen-events.
// Threads: any. Owner: static storage, for ever.
#pragma once

#include <QXlog/QXlog.h>

#include "velt/Export.h"

// Each object has one definition, in the library.
#define VELT_EVENT(name, number, reason, keys, words, advice) \
    extern template class QXlog::EventT<number, QXlog::ReasonT<reason>>;
#define VELT_EVENT_ALONE(name, number, keys, words, advice) \
    extern template class QXlog::EventT<number, KORtk::NullType>;
#include "velt/logging/Events.def"
#undef VELT_EVENT
#undef VELT_EVENT_ALONE

namespace VELT::events {

#define VELT_EVENT(name, number, reason, keys, words, advice) \
    inline constexpr auto const& name = QXlog::EventT<number, QXlog::ReasonT<reason>>::value;
#define VELT_EVENT_ALONE(name, number, keys, words, advice) \
    inline constexpr auto const& name = QXlog::EventT<number, KORtk::NullType>::value;
#include "velt/logging/Events.def"
#undef VELT_EVENT
#undef VELT_EVENT_ALONE

// Gives the logging library the words of these events. The library does it when it is loaded; again does no harm.
VELT_API void RegisterEventTexts();

}  // namespace VELT::events
