// PreparedReport: a report that is formatted in advance, for a place where nothing may be allocated and no lock be
// taken: a signal handler. Its time is filled in when it is made.
// Owner: the caller. Threads: prepare any; emit_prepared any, and a signal handler where the configured sinks take the
// report; a target in their place is called as always. The report goes past the queue. The sinks must be those of the
// time of prepare: logging that was set up anew or shut down meanwhile drops it.
// Failure: prepare throws std::bad_alloc; a report that a sink cannot take is counted and dropped.
#pragma once

#include <QXlog/Event.h>
#include <QXlog/QXlog.h>

#include <memory>
#include <string>
#include <vector>

namespace QXlog::detail {

// What one sink writes, by one call.
struct PreparedBytes {
    static constexpr std::size_t kNoTime = static_cast<std::size_t>(-1);

    std::string bytes;
    std::size_t timeAt = kNoTime;  // where the time stands in it, in the form of FormatTime
};

class VELTPLATFORM_API PreparedReport {
public:
    PreparedReport(Event const& event, KORtk::Location where, std::string text, KORlog::InfoBag bag)
        : m_event(event), m_where(where), m_text(std::move(text)), m_bag(std::move(bag)) {}

private:
    friend class Log;

    Event const& m_event;
    KORtk::Location m_where;
    std::string m_text;
    KORlog::InfoBag m_bag;
    unsigned long m_setup = 0;           // of the sinks
    std::vector<PreparedBytes> m_bytes;  // one for each sink
};

VELTPLATFORM_API std::unique_ptr<PreparedReport> prepare(Event const& event, KORtk::Location where, std::string text,
                                                         KORlog::InfoBag bag);
VELTPLATFORM_API void emit_prepared(PreparedReport& report);

}  // namespace QXlog::detail
