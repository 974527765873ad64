// The course of an item beyond the ordinary: scans out of their order or once more, what a failure leaves alone, and
// sessions that look elsewhere, or end the connection, when they are called back.
#include <functional>
#include <utility>

#include "velt/scanning/ScannerConnTest.h"

using namespace VELT;
using namespace velt_testing;

namespace {

class RemoteCourse : public ScannerConnTest {
protected:
    RemoteCourse() { scanner.reset(ScannerConn::get(&context)); }

    std::string const ok = std::string("S ") + kOk;
    std::string const scan = "C get scan\nidentity staff\n\n";
    std::string const guests = "C get scan\nidentity guests\n\n";
    std::string const stasis = std::string("C ") + kStasis;
};
using RemoteCallback = RemoteCourse;
using RemoteReport = RemoteCourse;

}  // namespace

// --- the order of scans ---

TEST_F(RemoteCourse, GoesOnAfterAScanBeyondItsIdentities) {
    context.identities = {Intern("staff"), Intern("guests")};
    Converse(remote, {"C " + InLine(), ok, scan, "S " + Clean(), guests, "S " + Clean(), stasis, ok});
    EXPECT_EQ(Scan(0), 0);
    ScanOutput* const before = output;
    std::size_t const calls = manager.calls().size();
    for (unsigned const index : {2u, 0xFFFFFFFFu}) EXPECT_EQ(scanner->scan(index, output, true), -1) << index;
    EXPECT_EQ(output, before);
    EXPECT_EQ(manager.calls().size(), calls);
    EXPECT_TRUE(IsOccupied());
    EXPECT_EQ(Scan(1), 0) << "and nothing had gone wrong with the connection, which is kept";
    EXPECT_FALSE(IsOccupied());
}

// The last identity gives the connection back whenever it is scanned; what an earlier one left goes with the scanner.
TEST_F(RemoteCourse, EndsWithTheLastIdentityThoughItBeScannedFirst) {
    context.identities = {Intern("staff"), Intern("guests")};
    Converse(remote, {"C " + InLine(), ok, guests, "S " + Clean(), stasis, ok, std::string("C ") + kWakeup, ok,
                      "C " + InLine(), ok, scan, "S " + Clean(), stasis, ok});
    EXPECT_EQ(Scan(1), 0);
    EXPECT_FALSE(IsOccupied());
    Offer(remote);
    EXPECT_EQ(Scan(0), 0);
    EXPECT_TRUE(IsOccupied());
    DropScanner();
    EXPECT_FALSE(IsOccupied());
    EXPECT_EQ(TakeSent().back(), kStasis);
}

TEST_F(RemoteCourse, DeliversTheContentAnewAfterItsConnectionWasEnded) {
    context.identities = {Intern("staff"), Intern("guests")};
    Converse(remote, {"C " + InLine(), ok, scan, "S " + Clean(), stasis, ok, std::string("C ") + kWakeup, ok,
                      "C " + InLine(), ok, guests, "S " + Clean(), stasis, ok});
    EXPECT_EQ(Scan(0), 0);
    scanner->end_connection();
    Offer(remote);
    EXPECT_EQ(Scan(1), 0);
}

TEST_F(RemoteCourse, IsDeliveredAnewAfterARefusedSetup) {
    Converse(remote, {"C " + InLine(), "S State NO\n\n", "X end"});
    EXPECT_EQ(Scan(), -1001);
    events.Expect(events::SCANNER_REFUSED);
    Converse(remote, {"C " + InLine(), ok, scan, "S " + Clean(), "X end"});
    EXPECT_EQ(Scan(), 0) << "but what failed once is not kept";
}

TEST_F(RemoteCourse, GoesOnOverTheConnectionOfAnAnswerWithoutAState) {
    Converse(remote, {"C " + InLine(), ok, scan, "S size 1\n\n", scan, "S " + Clean("x"), "X end"});
    EXPECT_EQ(Scan(), -1);
    events.Expect(events::SCANNER_ANSWER_INCOMPLETE);
    EXPECT_EQ(Scan(), 0);
    EXPECT_EQ(All(*output->output), "x");
    EXPECT_EQ(manager.waits().size(), 1u);
}

TEST_F(RemoteCourse, HasItsInputChangedByOneScanAfterTheOther) {
    context.identities = {Intern("staff"), Intern("guests")};
    Converse(remote, {"C " + InLine(), ok, scan, "S " + Answer("3", 1, 0, 1) + kClean + kNoProperties + "one", guests,
                      "S " + Answer("5", 1, 0, 1) + kFound + kNoProperties + "three", stasis, ok});
    EXPECT_EQ(Scan(0), 0);
    EXPECT_EQ(All(*body), "one");
    EXPECT_EQ(Scan(1), 0);
    EXPECT_EQ(All(*body), "three");
}

// Whatever fails before there is a verdict leaves the caller's pointer as it was.
TEST_F(RemoteCourse, ThatFailsBeforeAVerdictLeavesTheOutputAlone) {
    events.AllowAll();
    ScanOutput const theirs;
    auto const expect = [&](int result) {
        scanner.reset(ScannerConn::get(&context));
        ScanOutput* passed = const_cast<ScanOutput*>(&theirs);
        EXPECT_EQ(scanner->scan(0, passed, false), result);
        EXPECT_EQ(passed, &theirs);
        DropScanner();
    };
    manager.ToFail(EIO);
    expect(-1000);
    Converse(remote, {"C " + InLine(), "S State NO\n\n", "X end"});
    expect(-1001);
    for (std::string const& answer : {std::string("State NO\n\n"), std::string("size 1\n\n"), std::string("\n"),
                                      std::string("State OK\n\n"), Answer("0", 0, 0, 0) + "x\n"}) {
        Converse(remote, {"C " + InLine(), ok, scan, "S " + answer, "X end"});
        expect(-1);
    }
}

// --- the session that is called back ---

TEST_F(RemoteCallback, MayAnswerWhatItLikes) {
    class Refusing : public ItemSession {
    public:
        bool ScannerCallback() override { return !ItemSession::ScannerCallback(); }
    } refusing;
    context.connection = &refusing;
    refusing.onCallback = [&] {
        if (refusing.callbacks == 2) remote.Pass();
    };
    manager.ToTimeOut();
    Converse(remote, {"C " + InLine(), ok, scan, "X pass", "S " + Clean(), stasis, ok});
    EXPECT_EQ(Scan(), 0);
}

TEST_F(RemoteCallback, MayBeMissing) {
    context.connection = nullptr;
    manager.ToTimeOut();
    Converse(remote, {"C " + InLine(), ok, scan, "S State NO\n\n", "X end"});
    EXPECT_EQ(Scan(), -1);
    events.Expect(events::SCANNER_REFUSED);
}

// A session whose client has gone need not wait for the answer. The server, which is at work, is told nothing.
TEST_F(RemoteCallback, MayEndTheConnection) {
    Converse(remote, {"C " + InLine(), ok, scan, "X end"});
    session.onCallback = [this] { scanner->end_connection(); };
    EXPECT_EQ(Scan(), -1);
    EXPECT_FALSE(IsOccupied());
    EXPECT_EQ(session.callbacks, 1);
    EXPECT_EQ(output, nullptr);
    EXPECT_TRUE(events.Names().empty());
    session.onCallback = nullptr;
    Converse(remote, {"C " + InLine(), ok, scan, "S " + Clean(), "X end"});
    EXPECT_EQ(Scan(), 0) << "by a connection that is not kept either";
}

TEST_F(RemoteCallback, MayEndTheConnectionWhenItIsAskedForItsAttributes) {
    class Ending : public ItemSession {
    public:
        void getConnectionAttributes(IKORPropertyBag*) override { onCallback(); }
    } ending;
    context.connection = &ending;
    ending.onCallback = [this] { scanner->end_connection(); };
    Converse(remote, {"C " + InLine(), ok, scan, "S State Attributes\n\n", "X end"});
    EXPECT_EQ(Scan(), -1);
    EXPECT_FALSE(IsOccupied());
    EXPECT_TRUE(events.Names().empty());
}

TEST_F(RemoteCallback, MayEndTheSearchWithTheConnectionThatThereIsNot) {
    Listener closed;
    sockaddr_in const nobody = closed.address();
    closed.Close();
    manager.ToOffer({kResource, 2, sequence, nobody});
    session.onCallback = [this] {
        scanner->end_connection();
        errno = EIO;
    };
    EXPECT_EQ(Scan(), -1000);
    events.Expect(events::SCANNER_EXCHANGE_FAILED);
    EXPECT_FALSE(IsOccupied());
}

// --- reports ---

TEST_F(RemoteReport, SaysNoMoreThanWhatIsKnown) {
    std::string const known = "ls_server_name=farm-1 connection={audit_id=a-1}";
    std::pair<char const*, std::string> const cases[] = {{"State NO because\n\n", known},
                                                         {"size 1\n\n", known + " ls_scan_attribute=State"},
                                                         {"garbage\n", known + " velt_error={velt_os_error=0}"}};
    for (auto const& [answer, report] : cases) {
        Converse(remote, {"C " + InLine(), ok, scan, std::string("S ") + answer, "X end"});
        EXPECT_EQ(Scan(), -1);
        ASSERT_EQ(events.Events().size(), 1u) << answer;
        EXPECT_EQ(Describe(events.Events()[0].bag), report);
        DropScanner();
        events.Clear();
    }
}

// With the log off the session is not asked who it is, and everything else happens as it does.
TEST_F(RemoteReport, ThatNobodyWantsIsNotMade) {
    class Silent : public ItemSession {
    public:
        void LogConnectionAttributes(KORlog::InfoBag&) const override { ADD_FAILURE() << "nobody asked"; }
    } silent;
    context.connection = &silent;
    QXlog::detail::noLogging();
    Converse(remote, {"C " + InLine(), ok, scan, "S State NO\n\n", "X end"});
    EXPECT_EQ(Scan(), -1);
    DropScanner();
    Converse(remote, {"C " + InLine(), "S x\n\n", "X end"});
    EXPECT_EQ(Scan(), -1001);
}
