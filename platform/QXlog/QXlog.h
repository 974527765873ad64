// QXlog: events, the switch of each event, and the start and end of logging.
// An event is one constant object per (number, reason); its switch is a byte in the object, so that a log call whose
// event is off costs one load and one branch. Switches and sinks come from <proxy>-logging.xml.
// Threads: init and the detail switches run at start-up; is_loggable and the target from any thread.
#pragma once

#include <atomic>
#include <string>

#include <Export.h>
#include <KORlog/InfoBag.h>
#include <KORlog/Target.h>
#include <KORtk/Text.h>

namespace QXlog {

class Reason {
public:
    explicit constexpr Reason(int number) : m_number(number) {}
    constexpr int number() const { return m_number; }

private:
    int m_number;
};

template <int N>
struct ReasonT {
    static constexpr Reason value{N};
};

class VELTPLATFORM_API Event {
public:
    virtual ~Event();
    Event(Event const&) = delete;
    Event& operator=(Event const&) = delete;

    int id() const { return m_id; }
    virtual Reason const* reason() const = 0;  // null: the event has none
    std::string asString() const;              // "10003:68", or "15004" without a reason

    bool enabled() const { return m_enabled.load(std::memory_order_relaxed); }
    void enable(bool on) const { m_enabled.store(on, std::memory_order_relaxed); }

protected:
    Event(int id, int reason);  // joins the registry of events, which sets the switch as configured

private:
    int m_id;
    mutable std::atomic<bool> m_enabled{true};
};

template <int Id, class R = KORtk::NullType>
class EventT : public Event {
public:
    EventT() : Event(Id, R::value.number()) {}
    Reason const* reason() const override { return &R::value; }
    static EventT const value;
};

template <int Id>
class EventT<Id, KORtk::NullType> : public Event {
public:
    EventT() : Event(Id, -1) {}
    Reason const* reason() const override { return nullptr; }
    static EventT const value;
};

template <int Id, class R>
EventT<Id, R> const EventT<Id, R>::value{};
template <int Id>
EventT<Id, KORtk::NullType> const EventT<Id, KORtk::NullType>::value{};

// Reads the logging configuration at `file`; `identity` names this process in every record.
// A missing file gives the defaults. A malformed one throws KORtk::Exception with file, line, column and reason.
VELTPLATFORM_API void init(std::string const& identity, std::string const& file);
VELTPLATFORM_API void initEvRep(int, int);  // opens the sinks
VELTPLATFORM_API void goAsyncEvRep(int);    // records go to the sinks from a thread of their own from now on
VELTPLATFORM_API void shutdownEvRep();      // writes what is queued and closes the sinks

namespace detail {
inline bool is_loggable(Event const& event) { return event.enabled(); }
VELTPLATFORM_API KORlog::Target& get_qxtarget();
VELTPLATFORM_API KORlog::Target* exchange_qxtarget(
    KORlog::Target* target);  // null: the configured sinks; gives the old one
VELTPLATFORM_API void noLogging();
VELTPLATFORM_API void stdErrLogging(bool on);
}  // namespace detail

}  // namespace QXlog
