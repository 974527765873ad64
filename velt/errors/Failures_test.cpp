#include "velt/errors/Failures.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "velt/logging/Events.h"

namespace {

using namespace VELT;
using IOFailure = FWException<fw_exception_tag::io>;
using ResourceFailure = FWException<fw_exception_tag::resource>;

TEST(SetUpFailures, SayTextErrorAndNumber) {
    EXPECT_EQ(ctor_helper(98, "TCPStream failed to listen on socket"),
              "TCPStream failed to listen on socket: Address already in use (98)");
    IOFailure const failure(EADDRINUSE, "SockStream unable to bind");
    EXPECT_STREQ(failure.what(), "SockStream unable to bind: Address already in use (98)");
    EXPECT_EQ(failure.error, 98);
}

TEST(SetUpFailures, SayAnErrorOfZeroToo) { EXPECT_EQ(ctor_helper(0, "x"), "x: Success (0)"); }

TEST(SetUpFailures, AreToldApartByTheirTag) {
    try {
        throw ResourceFailure(ENOENT, "Opening File");
    } catch (IOFailure const&) {
        FAIL() << "the other tag";
    } catch (ResourceFailure const& failure) {
        EXPECT_EQ(failure.error, ENOENT);
    }
}

TEST(SetUpFailures, AreCaughtByTheRootWhateverTheTag) {
    EXPECT_THROW(throw IOFailure(1, "x"), VeltException);
    EXPECT_THROW(throw ResourceFailure(1, "x"), VeltException);
    EXPECT_THROW(throw ResourceFailure(1, "x"), KORtk::Exception);
}

TEST(SetUpFailures, TakeThePlaceTheyAreGiven) {
    IOFailure const failure(1, "x", KORtk::Location{"f.cpp", 9, "g"});
    EXPECT_EQ(failure.where().line, 9);
    IOFailure const here(1, "x");
    EXPECT_EQ(here.where().line, __LINE__ - 1);
}

TEST(ConnectionFailures, CarryEventAndError) {
    ConnectionFailure const failure(KORtk::Here(), "no socket", events::CONNECT_NO_SOCKET, EMFILE);
    EXPECT_EQ(&failure.event, &events::CONNECT_NO_SOCKET);
    EXPECT_EQ(failure.event.asString(), "12000:114");
    EXPECT_EQ(failure.error, EMFILE);
    EXPECT_STREQ(failure.what(), "no socket");
}

TEST(ConnectionFailures, AreNoSetUpFailuresAndNoStandardExceptions) {
    EXPECT_FALSE((std::is_base_of_v<VeltException, ConnectionFailure>));
    EXPECT_FALSE((std::is_base_of_v<std::exception, ConnectionFailure>));
    EXPECT_TRUE((std::is_base_of_v<KORtk::Exception, TCPTestFailure>));
}

TEST(LoopbackConnections, CarryTheirOneEvent) {
    LoopbackConnection const failure(KORtk::Here(), "loop");
    EXPECT_EQ(failure.event.asString(), "12000:12");
}

TEST(RangeFailures, AreCaughtAsStandardAndAsTheLibrarysOwn) {
    using RangeFailure = KORtk::StdExceptionT<std::out_of_range, VeltException>;
    EXPECT_THROW(throw RangeFailure(KORtk::Here(), "x"), std::out_of_range);
    EXPECT_THROW(throw RangeFailure(KORtk::Here(), "x"), VeltException);
}

}  // namespace
