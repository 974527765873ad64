// LogEvent: the one shape of every report. The bag is built only when the event is on, so that nothing is looked up or
// allocated for a report that nobody reads. Any thread. Never throws on account of a sink.
#pragma once

#include <QXlog/QXlog.h>

#include <source_location>
#include <string>
#include <utility>

namespace VELT {

template <class MakeBag>
void LogEvent(QXlog::Event const& event, MakeBag&& makeBag, std::string const& text = {},
              std::source_location where = std::source_location::current()) {
    if (!QXlog::detail::is_loggable(event)) return;
    KORlog::InfoBag const bag = std::forward<MakeBag>(makeBag)();
    QXlog::detail::get_qxtarget().sendlog(
        KORlog::sev::no_sev, KORtk::Location{where.file_name(), static_cast<int>(where.line()), where.function_name()},
        event, text, bag);
}

}  // namespace VELT
