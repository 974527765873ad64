#include "velt/errors/ErrnoEvents.h"

#include <cerrno>
#include <cstring>
#include <iterator>

#include "velt/errors/Failures.h"
#include "velt/logging/Events.h"
#include "velt/logging/Keys.h"

namespace VELT {
namespace {

constexpr ErrnoEventMap kConnectEvents[] = {
    {ETIMEDOUT, events::CONNECT_TIMED_OUT},
    {ECONNREFUSED, events::CONNECT_REFUSED},
    {ENETUNREACH, events::CONNECT_NET_UNREACHABLE},
    {EINPROGRESS, events::CONNECT_IN_PROGRESS},
};

constexpr ErrnoEventMap kDeferredEvents[] = {
    {ETIMEDOUT, events::DEFERRED_TIMED_OUT},
    {ECONNREFUSED, events::DEFERRED_REFUSED},
    {ENETUNREACH, events::DEFERRED_NET_UNREACHABLE},
};

}  // namespace

QXlog::Event const* findErrnoEvent(ErrnoEventMap const* table, unsigned count, int error) {
    for (unsigned row = 0; row < count; ++row) {
        if (table[row].error == error) return &table[row].event;
    }
    return nullptr;
}

QXlog::Event const* _connection_find(int error) {
    return findErrnoEvent(kConnectEvents, std::size(kConnectEvents), error);
}

QXlog::Event const* _deferred_find(int error) {
    return findErrnoEvent(kDeferredEvents, std::size(kDeferredEvents), error);
}

QXlog::Event const& GetSMTPDeferredType(int error) {
    QXlog::Event const* const event = _deferred_find(error);
    return event ? *event : events::DEFERRED;
}

void throw_connection_exception(int error, KORtk::Location const& where, std::string const& text) {
    if (error == 0) throw ConnectionFailure(where, text, events::CONNECT_NO_ERROR_NUMBER, 0, __func__);
    QXlog::Event const* const event = _connection_find(error);
    std::string message = std::strerror(error);
    if (text.size() > 1) message += " - " + text;
    throw ConnectionFailure(where, message, event ? *event : events::CONNECT_FAILED, error);
}

KORlog::InfoBag _find_errno(int error) { return QXPROP_VELT_ERROR(KORlog::InfoBag(QXPROP_VELT_OS_ERROR(error))); }

}  // namespace VELT
