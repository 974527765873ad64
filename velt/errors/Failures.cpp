#include "velt/errors/Failures.h"

#include <cstring>

#include "velt/logging/Events.h"

namespace VELT {

ConnectionFailure::ConnectionFailure(KORtk::Location const& where, KORtk::ExceptionString const& text,
                                     QXlog::Event const& event_, int error_, KORtk::ExceptionString const& second)
    : KORtk::Exception(where, text, second), event(event_), error(error_) {}

ConnectionFailure::~ConnectionFailure() = default;

LoopbackConnection::LoopbackConnection(KORtk::Location const& where, KORtk::ExceptionString const& text)
    : LoopbackConnection(where, text, events::CONNECT_LOOPBACK) {}

LoopbackConnection::LoopbackConnection(KORtk::Location const& where, KORtk::ExceptionString const& text,
                                       QXlog::Event const& event_)
    : KORtk::Exception(where, text), event(event_) {}

LoopbackConnection::~LoopbackConnection() = default;

TCPTestFailure::~TCPTestFailure() = default;

KORtk::ExceptionString ctor_helper(int error, KORtk::ExceptionString const& text) {
    return text + ": " + std::strerror(error) + " (" + std::to_string(error) + ")";
}

template class FWException<fw_exception_tag::io>;
template class FWException<fw_exception_tag::resource>;

}  // namespace VELT
