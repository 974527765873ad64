// Target: where a log call ends. Any thread may call sendlog; a target does its own locking. Nothing here throws.
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
VELTPLATFORM_API extern Severity const no_sev;
}  // namespace sev

class VELTPLATFORM_API Target {
public:
    virtual ~Target();
    virtual std::string useableSeverities() const = 0;  // empty: the target takes nothing
    virtual void write(sev::Severity severity, KORtk::Location const& where, QXlog::Event const& event,
                       std::string const& text, InfoBag const& bag) = 0;

    // Does nothing when no severity is usable; otherwise hands a copy of the location's texts to write().
    void sendlog(sev::Severity severity, KORtk::Location const& where, QXlog::Event const& event,
                 std::string const& text, InfoBag const& bag);
};

}  // namespace KORlog
