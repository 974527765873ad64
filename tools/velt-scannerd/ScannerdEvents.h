// The scanner daemon's events, by name, and the keys of their values. ScannerdEvents.def is the catalogue.
// Threads: any. Owner: static storage, for ever.
#pragma once

#include <QXlog/QXlog.h>

namespace scannerd::events {

#define VELT_EVENT(name, number, reason, keys, words, advice) \
    inline auto const& name = QXlog::EventT<number, QXlog::ReasonT<reason>>::value;
#include "ScannerdEvents.def"
#undef VELT_EVENT

void RegisterTexts();  // gives the logging library the words; once, at start-up

}  // namespace scannerd::events

namespace scannerd::names {

inline constexpr KORlog::Key ITEMS{"scannerd_items"};
inline constexpr KORlog::Key PORT{"scannerd_port"};
inline constexpr KORlog::Key PROCESS{"scannerd_process"};
inline constexpr KORlog::Key SCANS{"scannerd_scans"};
inline constexpr KORlog::Key WHY{"scannerd_why"};

}  // namespace scannerd::names
