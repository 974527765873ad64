// LogEvent: the one shape of every report. The bag is built only when the event is on, so that nothing is looked up or
// allocated for a report that nobody reads. Threads: any.
// Failure: none reaches the caller; a report whose bag or sink fails is dropped.
#pragma once

#include <QXlog/QXlog.h>

#include <cxxabi.h>

#include <string>
#include <utility>

namespace VELT {

template <class MakeBag>
void LogEvent(QXlog::Event const& event, MakeBag&& makeBag, std::string const& text = {},
              KORtk::Location where = KORtk::Here()) {
    if (!QXlog::detail::is_loggable(event)) return;
    try {
        KORlog::InfoBag const bag = std::forward<MakeBag>(makeBag)();
        QXlog::detail::get_qxtarget().sendlog(KORlog::sev::no_sev, where, event, text, bag);
    } catch (abi::__forced_unwind&) {  // the thread is being cancelled
        throw;
    } catch (...) {
    }
}

}  // namespace VELT
