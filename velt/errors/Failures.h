// The exception classes of the library. All derive from KORtk::Exception, and so not from std::exception: a host that
// wants to catch everything catches both.
// Socket set-up and connecting throw; reading and writing return error numbers.
// Owner: thrown by value. Threads: any.
#pragma once

#include <KORtk/Exception.h>
#include <QXlog/Event.h>

#include <string>

#include "velt/Export.h"

namespace VELT {

// A failed outbound connection: what a session logs and reports. The event tells the cause.
class VELT_API ConnectionFailure : public KORtk::Exception {
public:
    ConnectionFailure(KORtk::Location const& where, KORtk::ExceptionString const& text, QXlog::Event const& event,
                      int error, KORtk::ExceptionString const& second = {});
    ~ConnectionFailure() override;

    QXlog::Event const& event;
    int error;  // an errno, or 0
};

// A connection was refused since it would lead back to the proxy.
class VELT_API LoopbackConnection : public KORtk::Exception {
public:
    LoopbackConnection(KORtk::Location const& where, KORtk::ExceptionString const& text);
    LoopbackConnection(KORtk::Location const& where, KORtk::ExceptionString const& text, QXlog::Event const& event);
    ~LoopbackConnection() override;

    QXlog::Event const& event;
};

// The replay of a capture found a difference.
class VELT_API TCPTestFailure : public KORtk::Exception {
public:
    using KORtk::Exception::Exception;
    ~TCPTestFailure() override;
};

struct VELT_API velt_exception_tag {};  // all of the library's own errors

namespace fw_exception_tag {
struct VELT_API io {};        // a failed socket or stream set-up
struct VELT_API resource {};  // a system resource that was not to be had
}  // namespace fw_exception_tag

using VeltException = KORtk::ExceptionT<velt_exception_tag, KORtk::Exception>;

// "text: strerror(error) (error)"
VELT_API KORtk::ExceptionString ctor_helper(int error, KORtk::ExceptionString const& text);

// A handler catches the tag it cares about, or VeltException for every tag.
template <class Tag>
class VELT_API FWException : public VeltException {
public:
    FWException(int error_, KORtk::ExceptionString const& text, KORtk::Location const& where = KORtk::Here())
        : VeltException(where, ctor_helper(error_, text)), error(error_) {}

    int error;  // the errno, or another number
};

extern template class FWException<fw_exception_tag::io>;
extern template class FWException<fw_exception_tag::resource>;

}  // namespace VELT
