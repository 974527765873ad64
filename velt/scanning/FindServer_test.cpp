#include <climits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "velt/logging/Events.h"
#include "velt/scanning/ServerTest.h"

using namespace VELT;
using namespace velt_testing;

namespace {

class FindServer : public ServerTest {
protected:
    ~FindServer() override { RSMgrFreeResource(handle); }

    void ToOffer(int id) { manager.ToOffer({id, id, sequence, listener.address()}); }
    // A server whose port is closed.
    void ToOfferDead(int id) {
        sockaddr_in dead;
        {
            Listener closed;
            dead = closed.address();
        }
        manager.ToOffer({id, id, sequence, dead});
    }
    std::unique_ptr<TCPStream> Find(int interval, int maxwait) {
        return std::unique_ptr<TCPStream>(ScannerServer::find_server(handle, interval, maxwait, &session, server));
    }
    ScannerServer* FindOnly(int interval, int maxwait) {
        return ScannerServer::find_server(handle, interval, maxwait, &session);
    }
    std::vector<int> Timeouts() const {
        std::vector<int> found;
        for (ManagerModel::WaitRecord const& one : manager.waits()) found.push_back(one.timeout);
        return found;
    }
    void ExpectFreed() const {
        EXPECT_EQ(handle, -1);
        EXPECT_EQ(manager.held(0), 0u);
    }

    EventCapture events;
    int handle = -1;
    ScannerServer* server = nullptr;
};
class FindServerOnly : public FindServer {};
#define LIMITS(fixture) \
    INSTANTIATE_TEST_SUITE_P(Limits, fixture, testing::Values(1024, 4096), testing::PrintToStringParamName())
LIMITS(FindServer);
LIMITS(FindServerOnly);

}  // namespace

TEST_P(FindServer, ConnectsToTheServerThatIsOfferedAndStaysItsOccupant) {
    ToOffer(1);
    std::unique_ptr<TCPStream> const stream = Find(1, 3);
    ASSERT_NE(stream, nullptr);
    EXPECT_TRUE(listener.IsPending());
    EXPECT_EQ(server, &Server(1));
    EXPECT_GE(handle, 0);
    EXPECT_EQ(handle >= 1024, MovesUp());
    EXPECT_EQ(manager.held(0), 1u);
    EXPECT_EQ(session.callbacks, 0);
    EXPECT_EQ(Timeouts(), std::vector<int>{1});
}

TEST_P(FindServer, TakesAnIdleConnectionWhereThereIsOne) {
    Fd const peer = Kept(Server(1));
    Say(peer, good);
    ToOffer(1);
    EXPECT_NE(Find(1, 3), nullptr);
    EXPECT_EQ(Heard(peer), wakeup);
    EXPECT_FALSE(listener.IsPending());
}

TEST_P(FindServer, TriesTheNextIdleConnectionAndThenANewOne) {
    Fd broken = Kept(Server(1)), fine = Kept(Server(1));
    broken.Close();
    Say(fine, good);
    ToOffer(1);
    EXPECT_NE(Find(1, 3), nullptr);
    EXPECT_EQ(Heard(fine), wakeup);
    Fd gone = Kept(Server(1));
    gone.Close();
    ToOffer(1);
    RSMgrFreeResource(handle);
    EXPECT_NE(Find(1, 3), nullptr);
    EXPECT_TRUE(listener.IsPending());
}

TEST_P(FindServer, WaitsStepByStepAndCallsTheSessionBackBetween) {
    EXPECT_EQ(Find(1, 3), nullptr);
    EXPECT_EQ(Timeouts(), (std::vector<int>{1, 1, 1}));
    EXPECT_EQ(session.callbacks, 2);
    EXPECT_EQ(server, nullptr);
    EXPECT_TRUE(Pauses().empty());
    EXPECT_EQ(manager.opens(0), 1u) << "a wait that ran out keeps the handle";
    ExpectFreed();
}

TEST_P(FindServer, FindsOneInALaterStep) {
    manager.ToTimeOut();
    manager.ToTimeOut();
    ToOffer(1);
    EXPECT_NE(Find(1, 3), nullptr);
    EXPECT_EQ(session.callbacks, 2);
}

TEST_P(FindServer, TriesAsOftenAsTheStepsGoIntoTheWait) {
    struct {
        int interval, maxwait;
        std::vector<int> timeouts;
    } const cases[] = {
        {1, 0, {1}},
        {0, 0, {0}},
        {0, 7, {7}},
        {2, 5, {2, 2}},
        {3, 2, {3}},
        {1, -1, {1}},
        {-1, 5, {-1}},
        {-1, -5, {-1}},
        {0, -3, {-3}},
        {1, 2, {1, 1}},
        {INT_MAX, 1, {INT_MAX}},
        {INT_MIN, INT_MIN, {INT_MIN}},
    };
    for (auto const& one : cases) {
        std::size_t const before = Timeouts().size();
        EXPECT_EQ(Find(one.interval, one.maxwait), nullptr);
        std::vector<int> const all = Timeouts();
        EXPECT_EQ(std::vector<int>(all.begin() + static_cast<long>(before), all.end()), one.timeouts)
            << one.interval << ' ' << one.maxwait;
        ExpectFreed();
    }
}

TEST_P(FindServer, LeavesAServerThatCannotBeReachedAndTakesTheNext) {
    manager.SetName(1, "scan-a");
    ToOfferDead(1);
    ToOffer(2);
    events.Expect(events::SCANNER_EXCHANGE_FAILED);
    EXPECT_NE(Find(1, 3), nullptr);
    EXPECT_EQ(server, &Server(2));
    EXPECT_EQ(manager.opens(0), 2u) << "closing the handle left the first";
    EXPECT_EQ(manager.held(0), 1u);
    EXPECT_EQ(Pauses(), std::vector<unsigned>{1});
    EXPECT_EQ(session.callbacks, 1);
    KORlog::InfoBag const bag = events.Bag(events::SCANNER_EXCHANGE_FAILED);
    EXPECT_EQ(TextAt(bag, "ls_server_name"), "scan-a");
    EXPECT_EQ(NumberAt(bag, "velt_error.velt_os_error"), ECONNREFUSED);
    EXPECT_EQ(TextAt(bag, "connection.audit_id"), "a-1");
}

TEST_P(FindServer, NamesTheLastServerThatCouldNotBeReached) {
    for (int i = 0; i < 3; ++i) ToOfferDead(1);
    events.Expect(events::SCANNER_EXCHANGE_FAILED, 3);
    EXPECT_EQ(Find(1, 3), nullptr);
    EXPECT_EQ(server, &Server(1)) << "though there is no stream";
    ExpectFreed();
    EXPECT_EQ(Pauses().size(), 3u);
    EXPECT_EQ(manager.waits().size(), 3u);
    TCPStream* none = nullptr;
    server->end_connection(handle, none, false);
    ExpectFreed();
}

TEST_P(FindServer, ReportsEachServerThatCannotBeReached) {
    ToOfferDead(1);
    manager.ToTimeOut();
    ToOfferDead(2);
    events.Expect(events::SCANNER_EXCHANGE_FAILED, 2);
    EXPECT_EQ(Find(1, 3), nullptr);
    EXPECT_EQ(Pauses(), (std::vector<unsigned>{1, 1}));
    EXPECT_EQ(session.callbacks, 2);
    EXPECT_EQ(server, &Server(2));
    EXPECT_EQ(TextAt(events.Bag(events::SCANNER_EXCHANGE_FAILED, 1), "ls_server_name"), "?");
    ExpectFreed();
}

TEST_P(FindServer, EndsAtOnceAtAnyOtherError) {
    for (int const error : {EINTR, EIO, ENODEV, ENOTTY}) {
        manager.ToFail(error);
        EXPECT_EQ(Find(1, 3), nullptr);
        ExpectFreed();
    }
    EXPECT_EQ(manager.waits().size(), 4u);
    EXPECT_EQ(session.callbacks, 0);
    manager.ToTimeOut();
    manager.ToFail(EIO);
    EXPECT_EQ(Find(1, 3), nullptr);
    EXPECT_EQ(manager.waits().size(), 6u);
    EXPECT_EQ(session.callbacks, 1);
}

TEST_P(FindServer, EndsWhereTheDeviceCannotBeOpened) {
    manager.RefuseOpens(ENXIO);
    handle = 99;
    EXPECT_EQ(Find(1, 3), nullptr);
    EXPECT_EQ(handle, -1);
    EXPECT_TRUE(manager.waits().empty());
}

TEST_P(FindServer, EndsWhereTheDeviceCannotBeOpenedAgain) {
    Server(1);
    ToOfferDead(2);
    manager.RefuseOpens(ENXIO, 2);  // the search's and the server's own
    events.Expect(events::SCANNER_EXCHANGE_FAILED);
    EXPECT_EQ(Find(1, 3), nullptr);
    EXPECT_EQ(manager.waits().size(), 1u);
    EXPECT_EQ(session.callbacks, 0);
    ExpectFreed();
}

// A wait on a handle that the session's callback closed goes by the errno that was there.
TEST_P(FindServer, GoesByTheOldErrnoWhereTheHandleIsClosed) {
    int error = EAGAIN;
    session.onCallback = [&] {
        RSMgrFreeResource(handle);
        errno = error;
    };
    EXPECT_EQ(Find(1, 4), nullptr);
    EXPECT_EQ(session.callbacks, 3);
    EXPECT_EQ(manager.waits().size(), 1u);
    error = EBADF;
    session.callbacks = 0;
    EXPECT_EQ(Find(1, 4), nullptr);
    EXPECT_EQ(session.callbacks, 1);
    ExpectFreed();
}

TEST_P(FindServer, FreesTheHandleWhereTheSessionThrows) {
    session.onCallback = [] { throw std::runtime_error("the client has gone"); };
    EXPECT_THROW(Find(1, 3), std::runtime_error);
    ExpectFreed();
}

TEST_P(FindServer, NeedsNoSession) {
    ToOfferDead(1);
    ToOffer(2);
    events.Expect(events::SCANNER_EXCHANGE_FAILED);
    EXPECT_NE(std::unique_ptr<TCPStream>(ScannerServer::find_server(handle, 1, 3, nullptr, server)), nullptr);
}

TEST_P(FindServer, ServesSequenceAfterSequence) {
    ToOffer(1);
    EXPECT_NE(Find(1, 3), nullptr);
    ScannerServer* const first = server;
    RSMgrFreeResource(handle);
    NewList();
    ToOffer(1);
    EXPECT_NE(Find(1, 3), nullptr);
    EXPECT_NE(server, first);
}

// --- without a connection ---

// Without the memory to note a server there is none, nor the one that was offered before it.
TEST_P(FindServer, ForgetsTheServerBeforeOneThatThereIsNoMemoryFor) {
    if (!FailingNew::IsPossible()) GTEST_SKIP() << "memory is the sanitizer's";
    events.AllowAll();
    unsigned forgotten = 0;
    for (unsigned long allocations = 0;; ++allocations) {
        NewList();
        ToOfferDead(1);
        ToOffer(2);
        server = nullptr;
        ForgetPauses();
        std::unique_ptr<TCPStream> stream;
        {
            FailingNew const failing(allocations);
            EXPECT_NO_THROW(stream = Find(1, 2));
        }
        if (!FailingNew::HasFailed()) break;
        bool const isForgotten = !stream && !server && manager.opens(1) > 0;
        EXPECT_FALSE(isForgotten && Pauses().size() > 1) << "there was no server to leave alone";
        forgotten += isForgotten;
        EXPECT_EQ(manager.held(0), stream ? 1u : 0u);
        RSMgrFreeResource(handle);
        manager.Forget();
        while (listener.IsPending()) listener.Accept();
    }
    EXPECT_GT(forgotten, 0u);
}

TEST_P(FindServerOnly, FindsTheServerAndLeavesTheHandleToTheCaller) {
    manager.ToTimeOut();
    ToOffer(1);
    EXPECT_EQ(FindOnly(1, 3), &Server(1));
    EXPECT_EQ(session.callbacks, 1);
    EXPECT_EQ(manager.held(0), 1u);
    EXPECT_FALSE(listener.IsPending());
}

TEST_P(FindServerOnly, ReportsAWaitThatRanOut) {
    events.Expect(events::NO_SCANNER_SERVER);
    EXPECT_EQ(FindOnly(1, 3), nullptr);
    EXPECT_EQ(Timeouts(), (std::vector<int>{1, 1, 1}));
    EXPECT_EQ(session.callbacks, 2);
    EXPECT_EQ(TextAt(events.Bag(events::NO_SCANNER_SERVER), "connection.audit_id"), "a-1");
    ExpectFreed();
}

TEST_P(FindServerOnly, TriesAsOftenAsTheStepsGoIntoTheWait) {
    struct {
        int interval, maxwait;
        std::vector<int> timeouts;
    } const cases[] = {{0, 0, {0}}, {0, 9, {9}}, {1, 0, {1}}, {2, 5, {2, 2}}, {5, 4, {5}}};
    for (auto const& one : cases) {
        manager.Forget();
        session.callbacks = 0;
        events.Expect(events::NO_SCANNER_SERVER);
        EXPECT_EQ(FindOnly(one.interval, one.maxwait), nullptr);
        EXPECT_EQ(Timeouts(), one.timeouts) << one.interval << ' ' << one.maxwait;
        EXPECT_EQ(session.callbacks, static_cast<int>(one.timeouts.size()) - 1);
    }
}

TEST_P(FindServerOnly, ReportsNoOtherEnd) {
    manager.ToFail(EINTR);
    EXPECT_EQ(FindOnly(1, 3), nullptr);
    ExpectFreed();
    manager.RefuseOpens(ENXIO);
    EXPECT_EQ(FindOnly(1, 3), nullptr);
    ExpectFreed();
}
