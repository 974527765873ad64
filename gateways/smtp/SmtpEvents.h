// The mail gateway's events, by name, and the keys of their values. SmtpEvents.def is the catalogue.
// Threads: any. Owner: static storage, for ever.
#pragma once

#include <QXlog/QXlog.h>

namespace smtp::events {

#define VELT_EVENT(name, number, reason, keys, words, advice) \
    inline auto const& name = QXlog::EventT<number, QXlog::ReasonT<reason>>::value;
#include "SmtpEvents.def"
#undef VELT_EVENT

void RegisterTexts();  // gives the logging library the words; once, at start-up

}  // namespace smtp::events

namespace smtp::names {

inline constexpr KORlog::Key SENDER{"smtp_sender"};
inline constexpr KORlog::Key RECIPIENTS{"smtp_recipients"};
inline constexpr KORlog::Key SIZE{"smtp_size"};
inline constexpr KORlog::Key FINDING{"smtp_finding"};
inline constexpr KORlog::Key REPLY{"smtp_reply"};
inline constexpr KORlog::Key SERVER{"smtp_server"};
inline constexpr KORlog::Key COUNT{"smtp_count"};
inline constexpr KORlog::Key FILE{"smtp_file"};
inline constexpr KORlog::Key SCANS{"smtp_scans"};  // how many scans had which outcome

}  // namespace smtp::names
