// Target: where a log call ends.
// Owner: whoever made it; the logging library's own lives for ever. Threads: any may call sendlog; a target does its
// own locking. Failure: none reaches the caller; what a target throws is dropped with the record.
#pragma once

#include <string>

#include <Export.h>
#include <KORlog/InfoBag.h>
#include <KORtk/Exception.h>

namespace QXlog {
class Event;
}

namespace KORlog {

namespace sev {
struct Severity {
    unsigned bits;
};
VELTPLATFORM_API extern Severity const no_sev;  // the empty one: reports are not graded
}  // namespace sev

class VELTPLATFORM_API Target {
public:
    virtual ~Target();
    virtual std::string useableSeverities() const = 0;  // empty: the target takes nothing
    virtual void write(sev::Severity severity, KORtk::Location const& where, QXlog::Event const& event,
                       std::string const& text, InfoBag const& bag) = 0;  // `where` and its texts: for this call only

    // Does nothing when no severity is usable; otherwise hands a copy of the location's texts to write().
    void sendlog(sev::Severity severity, KORtk::Location const& where, QXlog::Event const& event,
                 std::string const& text, InfoBag const& bag) noexcept;
};

}  // namespace KORlog
