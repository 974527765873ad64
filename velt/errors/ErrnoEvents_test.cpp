#include "velt/errors/ErrnoEvents.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "velt/errors/Failures.h"
#include "velt/logging/Events.h"
#include "velt/logging/Keys.h"

namespace {

using namespace VELT;

constexpr KORtk::Location kPlace{"caller.cpp", 12, "caller"};

struct Thrown {
    std::string event;
    int error;
    std::string text;
    std::string second;
    KORtk::Location where;
};

Thrown Throw(int error, std::string const& text) {
    try {
        throw_connection_exception(error, kPlace, text);
    } catch (ConnectionFailure const& failure) {
        return {failure.event.asString(), failure.error, failure.what(), failure.second(), failure.where()};
    }
}

TEST(FailedConnects, WithErrorZeroKeepTheTextAsTheWholeMessage) {
    for (char const* text : {"the text", "", "x"}) {
        Thrown const thrown = Throw(0, text);
        EXPECT_EQ(thrown.event, "12000:35");
        EXPECT_EQ(thrown.error, 0);
        EXPECT_EQ(thrown.text, text);
        EXPECT_EQ(thrown.second, "throw_connection_exception");
    }
}

TEST(FailedConnects, DropATextOfOneCharacter) {
    EXPECT_EQ(Throw(ECONNREFUSED, "").text, "Connection refused");
    EXPECT_EQ(Throw(ECONNREFUSED, "x").text, "Connection refused");
    EXPECT_EQ(Throw(ECONNREFUSED, "xy").text, "Connection refused - xy");
}

TEST(FailedConnects, HaveAnEventForEachCause) {
    EXPECT_EQ(Throw(110, "").event, "12000:6");
    EXPECT_EQ(Throw(111, "").event, "12000:7");
    EXPECT_EQ(Throw(101, "").event, "12000:9");
    EXPECT_EQ(Throw(115, "").event, "12000:34");
}

TEST(FailedConnects, HaveOneEventForEveryOtherError) {
    for (int error = 1; error < 140; ++error) {
        if (error == 110 || error == 111 || error == 101 || error == 115) continue;
        Thrown const thrown = Throw(error, "abc");
        EXPECT_EQ(thrown.event, "12000:8") << error;
        EXPECT_EQ(thrown.error, error);
        EXPECT_EQ(thrown.text, std::string(std::strerror(error)) + " - abc");
    }
}

TEST(FailedConnects, AreReportedAtTheCallersPlace) {
    for (int const error : {0, ECONNREFUSED, EPERM}) {
        EXPECT_STREQ(Throw(error, "t").where.file, "caller.cpp");
        EXPECT_EQ(Throw(error, "t").where.line, 12);
    }
}

TEST(ErrnoTables, HoldExactlyTheirRows) {
    for (int error = -1; error < 200; ++error) {
        QXlog::Event const* const connect = _connection_find(error);
        QXlog::Event const* const deferred = _deferred_find(error);
        bool const inDeferred = error == 110 || error == 111 || error == 101;
        EXPECT_EQ(connect != nullptr, inDeferred || error == 115) << error;
        EXPECT_EQ(deferred != nullptr, inDeferred) << error;
    }
}

TEST(ErrnoTables, HaveNoRowForAnEstablishedConnection) {
    EXPECT_EQ(_connection_find(EISCONN), nullptr);
    EXPECT_EQ(_deferred_find(EISCONN), nullptr);
}

TEST(ErrnoTables, GiveDifferentEventsForATimeout) {
    EXPECT_EQ(_connection_find(ETIMEDOUT)->asString(), "12000:6");
    EXPECT_EQ(_deferred_find(ETIMEDOUT)->asString(), "50006:87");
    EXPECT_EQ(_deferred_find(ECONNREFUSED)->asString(), "50006:88");
    EXPECT_EQ(_deferred_find(ENETUNREACH)->asString(), "50006:89");
}

TEST(ErrnoTables, GiveTheFallbackForAnUnreachableHost) {
    EXPECT_EQ(_connection_find(EHOSTUNREACH), nullptr);
    EXPECT_EQ(_deferred_find(EHOSTUNREACH), nullptr);
    EXPECT_EQ(Throw(EHOSTUNREACH, "").event, "12000:8");
    EXPECT_EQ(GetSMTPDeferredType(EHOSTUNREACH).asString(), "50006:83");
}

TEST(Deferrals, OfAnyOtherErrorAreOfTheDefaultType) {
    EXPECT_EQ(GetSMTPDeferredType(0).asString(), "50006:83");
    EXPECT_EQ(GetSMTPDeferredType(-1).asString(), "50006:83");
    EXPECT_EQ(GetSMTPDeferredType(EINPROGRESS).asString(), "50006:83");
    EXPECT_EQ(GetSMTPDeferredType(ETIMEDOUT).asString(), "50006:87");
}

TEST(ErrnoTables, GiveTheFirstRowOfSeveralAndNothingFromNone) {
    constexpr ErrnoEventMap kTable[] = {
        {5, events::CONNECT_FAILED}, {7, events::CONNECT_REFUSED}, {5, events::CONNECT_TIMED_OUT}};
    EXPECT_EQ(findErrnoEvent(kTable, 3, 5), &events::CONNECT_FAILED);
    EXPECT_EQ(findErrnoEvent(kTable, 1, 7), nullptr);
    EXPECT_EQ(findErrnoEvent(nullptr, 0, 5), nullptr);
}

TEST(FailedCalls, AreReportedAsABagInABag) {
    KORlog::InfoBag const expected = QXPROP_VELT_ERROR(KORlog::InfoBag(QXPROP_VELT_OS_ERROR(13)));
    EXPECT_EQ(_find_errno(13), expected);
    EXPECT_EQ(_find_errno(13).size(), 1u);
}

}  // namespace
