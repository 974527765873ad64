// QXlog: the start and end of logging, and the target that every report goes to.
// <proxy>-logging.xml chooses the sinks (journal, syslog, JSON lines, text) and switches events on and off by number
// and reason; docs/formats/logging-xml.md is its description.
// Threads: init to shutdownEvRep and the detail switches run at start-up and at the end of a process; reports come from
// any thread. No thread is started before goAsyncEvRep, so a process may fork until then. A child forked later writes
// its reports itself.
// Failure: init and initEvRep throw KORtk::Exception; a report that a sink cannot take is counted and dropped.
#pragma once

#include <cstddef>
#include <string>

#include <Export.h>
#include <KORlog/InfoBag.h>
#include <KORlog/Target.h>
#include <QXlog/Event.h>

namespace QXlog {

// Reads the logging configuration at `file`; `identity` names this process in every record.
// A missing file gives the default: all events to syslog. A malformed one throws with file, line, column and reason.
// From here on events have their switches, and noLogging is undone.
VELTPLATFORM_API void init(std::string const& identity, std::string const& file);
VELTPLATFORM_API void initEvRep(int, int);  // opens the sinks; throws when one cannot be opened
VELTPLATFORM_API void goAsyncEvRep(int);    // records go to the sinks from a thread of their own from now on
VELTPLATFORM_API void shutdownEvRep();      // writes what is queued, ends the thread, closes the sinks

// The words of one event: what it means, in one sentence. Rows are literals and live for ever.
struct EventText {
    int id;
    int reason;  // or kNoReason
    char const* words;
};
VELTPLATFORM_API void RegisterTexts(EventText const* rows, std::size_t count);  // later rows win over earlier ones
VELTPLATFORM_API char const* FindText(int id, int reason);                      // null: no words are known

namespace detail {
VELTPLATFORM_API KORlog::Target& get_qxtarget();
// Puts `target` in the place of the configured sinks and gives what stood there; null stands for the sinks. The caller
// keeps owning it, and puts the old one back before it goes. With a target, events are on as configured.
VELTPLATFORM_API KORlog::Target* exchange_qxtarget(KORlog::Target* target);
VELTPLATFORM_API void noLogging();            // every event off, now and later, until the next init
VELTPLATFORM_API bool allowLogging(bool on);  // undoes noLogging (true) or does it (false); gives what held before
// Waits until all reports so far are written: for `mostSteps` steps of `stepMs`, and no longer than a step that sees
// none written. False: there are more.
VELTPLATFORM_API bool drain(int stepMs, int mostSteps);
VELTPLATFORM_API void stdErrLogging(bool on);  // adds or removes a text sink on standard error
}  // namespace detail

}  // namespace QXlog
