// From an operating system error number to the event that reports it.
// There are two tables, kept apart on purpose: the same error is one event for a connection that failed, and another
// for a mail that is to be deferred on account of it. Threads: any; the tables are constant.
#pragma once

#include <KORlog/InfoBag.h>
#include <KORtk/Exception.h>
#include <QXlog/Event.h>

#include <string>

#include "velt/Export.h"

namespace VELT {

struct ErrnoEventMap {
    int error;
    QXlog::Event const& event;
};

// The event of the first row with this error, or null.
VELT_API QXlog::Event const* findErrnoEvent(ErrnoEventMap const* table, unsigned count, int error);
VELT_API QXlog::Event const* _connection_find(int error);     // in the table of failed connects, or null
VELT_API QXlog::Event const* _deferred_find(int error);       // in the table of deferrals, or null
VELT_API QXlog::Event const& GetSMTPDeferredType(int error);  // as _deferred_find, with a default

// Throws the ConnectionFailure that belongs to a failed connect. With error 0 the text stands as it is; otherwise it
// follows the system's own words, unless it is a single character.
[[noreturn]] VELT_API void throw_connection_exception(int error, KORtk::Location const& where, std::string const& text);

// The values that go with the report of a failed system call. Take errno before anything else is called.
VELT_API KORlog::InfoBag _find_errno(int error);

}  // namespace VELT
