// Event: what a report is, as a number and often a reason, with the switch that turns it on.
// An event is one constant object per (number, reason), named EventT<number, ReasonT<reason>>::value. It joins the
// registry of events when it is built, and the registry sets its switch, then and at every later change.
// Owner: static storage; an event is never destroyed, as threads may still report while the process ends, so a module
// that has events of its own stays loaded. Threads: any. Failure: none; an event not yet built is off.
#pragma once

#include <atomic>
#include <string>
#include <type_traits>

#include <Export.h>
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
struct VELTPLATFORM_API ReasonT {
    static constexpr Reason value{N};
};

inline constexpr int kNoReason = -1;

class VELTPLATFORM_API Event {
public:
    Event(Event const&) = delete;
    Event& operator=(Event const&) = delete;

    int id() const { return m_id; }
    virtual Reason const* reason() const = 0;  // null: the event has none
    std::string asString() const;              // "10003:68", or "15004" without a reason

    bool enabled() const { return m_enabled.load(std::memory_order_relaxed); }
    void enable(bool on) const { m_enabled.store(on, std::memory_order_relaxed); }  // until the registry's next change

protected:
    Event(int id, int reason);
    ~Event() = default;  // trivial on purpose: nothing of an event ends with the process

private:
    int m_id;
    mutable std::atomic<bool> m_enabled{false};
};

template <int Id, class R = KORtk::NullType>
class VELTPLATFORM_API EventT final : public Event {
public:
    EventT() : Event(Id, R::value.number()) {}
    Reason const* reason() const override { return &R::value; }
    static EventT const value;
};

template <int Id>
class VELTPLATFORM_API EventT<Id, KORtk::NullType> final : public Event {
public:
    EventT() : Event(Id, kNoReason) {}
    Reason const* reason() const override { return nullptr; }
    static EventT const value;
};

template <int Id, class R>
EventT<Id, R> const EventT<Id, R>::value{};
template <int Id>
EventT<Id, KORtk::NullType> const EventT<Id, KORtk::NullType>::value{};

namespace detail {
inline bool is_loggable(Event const& event) { return event.enabled(); }
}  // namespace detail

}  // namespace QXlog
