// What the remote scanner sends, and to whom: the search for a server, the set-up, the request of a scan, the
// attributes and the keeping of connections.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "velt/scanning/ScannerConnTest.h"
#include "velt/scanning/ScannerServer.h"
#include "velt/scanning/ScannerThread.h"

using namespace VELT;
using namespace velt_testing;

namespace {

using RemoteItem = ScannerConnTest;
using RemoteSetup = ScannerConnTest;
using RemoteRequest = ScannerConnTest;
using RemoteAttributes = ScannerConnTest;
using RemoteSearch = ScannerConnTest;
using RemoteIdle = ScannerConnTest;
using ScanChainRemote = ScannerConnTest;

constexpr char const* kScan = "get scan\nidentity staff\n\n";

}  // namespace

// --- the item ---

TEST_F(RemoteItem, IsSetUpWithOneScanForEachIdentityAndNothingIsContacted) {
    context.identities = {Intern("staff"), InternedString(), Intern("guests")};
    scanner.reset(ScannerConn::get(&context));
    unsigned count = 7;
    EXPECT_EQ(scanner->setup_scan(count), 0);
    EXPECT_EQ(count, 3u);
    EXPECT_TRUE(manager.calls().empty());
    EXPECT_FALSE(scanner->is_streaming_media());
    EXPECT_TRUE(scanner->is_av_enabled());
}

TEST_F(RemoteItem, WithoutIdentitiesIsNotScannedAndTheNetworkNotTouched) {
    context.identities.clear();
    scanner.reset(ScannerConn::get(&context));
    unsigned count = 7;
    EXPECT_EQ(scanner->setup_scan(count), 0);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(Scan(0), -1);
    EXPECT_EQ(Scan(1), -1);
    EXPECT_TRUE(manager.calls().empty());
    EXPECT_EQ(Counted("scanner.conn.scans"), scansBefore);
}

TEST_F(RemoteItem, HasNoScanBeyondItsIdentities) {
    EXPECT_EQ(Scan(1), -1);
    EXPECT_EQ(output, nullptr);
    EXPECT_TRUE(manager.calls().empty());
}

TEST_F(RemoteItem, IsCountedWithWhatBecameOfIt) {
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean()});
    EXPECT_EQ(Scan(), 0);
    EXPECT_EQ(Counted("scanner.conn.scans"), scansBefore + 1);
    EXPECT_EQ(Counted("scanner.conn.failures"), failuresBefore);
    manager.ToFail(EIO);
    EXPECT_EQ(Scan(), -1000);
    EXPECT_EQ(Counted("scanner.conn.scans"), scansBefore + 2);
    EXPECT_EQ(Counted("scanner.conn.failures"), failuresBefore + 1);
}

// --- the set-up ---

TEST_F(RemoteSetup, IsTheseBytesAndTheHeaderBlockLeavesInOneWrite) {
    context.properties.NewProperty("SIZE_LIMIT")->SetLong(42);
    std::string const section = "scan_properties.SIZE_LIMIT sl 42\n\r\n";
    Converse(remote, {"C " + SetupBlock(), "C " + section + "hello\nworld\n", std::string("S ") + kOk,
                      std::string("C ") + kScan, "S " + Clean(), std::string("C ") + kStasis, std::string("S ") + kOk});
    EXPECT_EQ(Scan(), 0);
    EXPECT_EQ(TakeSent(), (std::vector<std::string>{
                              "get setup_scan\nprotocol smtp\ntime 1700000000\nsize 12\npolicy content_in\n\n",
                              section + "hello\nworld\n", kScan, kStasis}));
    EXPECT_EQ(
        TakeHeldBack(),
        (std::vector<std::string>{"get setup_scan\nprotocol smtp\ntime 1700000000\nsize 12\npolicy content_in\n\n"}));
}

TEST_F(RemoteSetup, TellsALocalServerTheSpoolFileAndSendsNoContent) {
    FillSpool();
    std::string const file = body->get_spool_file();
    Converse(local, {"C " + SetupBlock("filename " + file + "\n") + "\r\n", std::string("S ") + kOk,
                     std::string("C ") + kScan, "S " + Clean(), std::string("C ") + kStasis, std::string("S ") + kOk});
    EXPECT_EQ(Scan(), 0);
}

// Neither in calls nor in bytes does it matter how much is behind the name.
TEST_F(RemoteSetup, ByFileNameCostsTheSameWhateverTheSize) {
    std::vector<std::size_t> lengths;
    for (std::size_t const length : {100000u, 900000u}) {
        FillSpool(length);
        std::string const file = body->get_spool_file();
        Converse(local, {"C " + SetupBlock("filename " + file + "\n") + "\r\n", std::string("S ") + kOk,
                         std::string("C ") + kScan, "S " + Clean(), "X end"});
        scanner.reset(ScannerConn::get(&context));
        scanner->dont_cache();
        EXPECT_EQ(Scan(), 0);
        std::vector<std::string> const sent = TakeSent();
        EXPECT_EQ(sent.size(), 3u) << "the block, the section and the scan";
        lengths.push_back(0);
        for (std::string const& one : sent) lengths.back() += one.size();
    }
    EXPECT_EQ(lengths[0], lengths[1]) << "both sizes have six digits";
}

TEST_F(RemoteSetup, SendsALocalServerInLineWhatLiesInMemory) {
    ASSERT_EQ(body->get_spool_file(), "");
    Converse(local, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean()});
    EXPECT_EQ(Scan(), 0);
}

TEST_F(RemoteSetup, SendsAnotherMachineInLineWhatLiesInAFile) {
    FillSpool(100000);
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean()});
    EXPECT_EQ(Scan(), 0);
    for (std::string const& sent : TakeSent()) EXPECT_LT(sent.size(), 40000u);
}

TEST_F(RemoteSetup, SendsTheContentFromItsStartWhereverItWasRead) {
    for (bool const onDisk : {false, true}) {
        if (onDisk) FillSpool();
        bool io_done = false;
        char* line = nullptr;
        LINE_STATE_T state;
        body->seek(0, 0);
        EXPECT_GT(body->getline(line, true, io_done, state, true), 0);
        Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean(),
                          std::string("C ") + kStasis, std::string("S ") + kOk, "X close"});
        EXPECT_EQ(Scan(), 0) << onDisk;
        remote.Finish();
    }
}

TEST_F(RemoteSetup, HasNoContentWhereThereIsNone) {
    Fill("");
    Converse(remote,
             {"C " + SetupBlock() + "\r\n", std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean()});
    EXPECT_EQ(Scan(), 0);
}

TEST_F(RemoteSetup, NeedsAPolicyWhichIsMissedWhenAServerIsFound) {
    context.policy = InternedString();
    Converse(remote, {"X end"});
    EXPECT_EQ(Scan(), -1001);
    EXPECT_FALSE(IsOccupied());
    EXPECT_EQ(manager.waits().size(), 1u);
    EXPECT_TRUE(TakeSent().empty());
    EXPECT_TRUE(events.Names().empty());
}

TEST_F(RemoteSetup, NeedsContent) {
    context.data = nullptr;
    Converse(remote, {"X end"});
    EXPECT_EQ(Scan(), -1001);
    EXPECT_TRUE(TakeSent().empty());
}

TEST_F(RemoteSetup, IsNotSentWhereAPolicyOrAProtocolWouldForgeAHeader) {
    for (char const* const forged : {"p\nfilename /etc/shadow", "p\r", "\n"}) {
        context.policy = Intern(forged);
        Converse(remote, {"X end"});
        EXPECT_EQ(Scan(), -1001);
        DropScanner();
    }
    context.policy = Intern("content_in");
    world.proxy().m_productName = "smtp\npolicy none";
    Initialise();
    Converse(remote, {"X end"});
    EXPECT_EQ(Scan(), -1001);
    EXPECT_TRUE(TakeSent().empty());
}

TEST_F(RemoteSetup, SendsInLineWhatLiesInAFileWhoseNameWouldForgeAHeader) {
    std::string spool = world.root() / "scan\ndir";
    ScannerStream::set_spool_dir(spool);
    FillSpool();
    Converse(local, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean()});
    EXPECT_EQ(Scan(), 0);
}

TEST_F(RemoteSetup, SendsALocalServerInLineWhatLiesInAFileOfSomebodyElse) {
    std::string const theirs = world.root() / "theirs";
    content.assign(5000, 'q');
    std::ofstream(theirs) << content;
    ASSERT_EQ(body->set_disk_file(theirs.c_str()), 0);
    Converse(local, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean()});
    EXPECT_EQ(Scan(), 0);
}

TEST_F(RemoteSetup, TellsALengthBeyondTwoGibibytes) {
    std::string const huge = world.root() / "huge";
    std::ofstream(huge).close();
    ASSERT_EQ(::truncate(huge.c_str(), 3221225472L), 0);
    ASSERT_EQ(body->set_disk_file(huge.c_str()), 0);
    Converse(remote, {"C get setup_scan\nprotocol smtp\ntime 1700000000\nsize 3221225472\npolicy content_in\n\n\r\n",
                      "X reset"});
    EXPECT_EQ(Scan(), -1001);
    events.Expect(events::SCANNER_EXCHANGE_FAILED);
}

// An empty text is a name like others; only null is none.
TEST_F(RemoteSetup, SendsEmptyNamesAsTheyAre) {
    context.policy = Intern("");
    context.identities = {Intern("")};
    world.proxy().m_productName = "";
    Initialise();
    Converse(remote, {"C get setup_scan\nprotocol \ntime 1700000000\nsize 12\npolicy \n\n\r\n" + content,
                      std::string("S ") + kOk, "C get scan\nidentity \n\n", "S " + Clean()});
    EXPECT_EQ(Scan(), 0);
}

TEST_F(RemoteSetup, NamesTheProtocolThatThereWasAtTheStart) {
    world.proxy().m_productName = "later";
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean()});
    EXPECT_EQ(Scan(), 0);
}

// A spool file that was cut would put what follows out of step.
TEST_F(RemoteSetup, FailsWhereTheFileIsShorterThanItWas) {
    FillSpool();
    ASSERT_EQ(::truncate(body->get_spool_file().c_str(), 5000), 0);
    Converse(remote, {"C " + SetupBlock() + "\r\n" + content.substr(0, 5000), "X end"});
    EXPECT_EQ(Scan(), -1001);
    EXPECT_EQ(NumberAt(TheReport(events::SCANNER_EXCHANGE_FAILED), "velt_error.velt_os_error"), EIO);
}

TEST_F(RemoteSetup, SendsNoMoreThanItAnnounced) {
    FillSpool();
    ASSERT_EQ(::truncate(body->get_spool_file().c_str(), static_cast<off_t>(content.size() + 5000)), 0);
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean()});
    EXPECT_EQ(Scan(), 0);
}

TEST_F(RemoteSetup, FailsWhereTheFileCannotBeRead) {
    std::string const folder = world.root() / "scandir";
    Fill("");
    body->write("x", 1u);
    ASSERT_EQ(body->set_disk_file((world.root() / "inside.txt").c_str()), 0);
    content.resize(body->size());
    ::close(::open(folder.c_str(), O_RDONLY));
    int const broken = ::open(folder.c_str(), O_RDONLY);
    for (int fd = 3; fd < broken; ++fd) {  // the file of the content becomes a folder
        struct stat found {};
        char link[64], path[PATH_MAX] = {};
        std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        if (::fstat(fd, &found) == 0 && ::readlink(link, path, sizeof path - 1) > 0 &&
            std::string(path) == world.root() / "inside.txt")
            ::dup2(broken, fd);
    }
    ::close(broken);
    Converse(remote, {"C " + SetupBlock() + "\r\n", "X end"});
    EXPECT_EQ(Scan(), -1001);
    EXPECT_EQ(NumberAt(TheReport(events::SCANNER_EXCHANGE_FAILED), "velt_error.velt_os_error"), EISDIR);
}

// --- the request of a scan ---

TEST_F(RemoteRequest, HasNoIdentityLineForANullIdentityAndTheContentGoesOnce) {
    context.identities = {Intern("staff"), InternedString()};
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean(),
                      "C get scan\n\n", "S " + Clean(), std::string("C ") + kStasis, std::string("S ") + kOk});
    EXPECT_EQ(Scan(0), 0);
    EXPECT_EQ(output->identity, context.identities[0]);
    EXPECT_TRUE(IsOccupied());
    EXPECT_EQ(Scan(1), 0);
    ASSERT_NE(output, nullptr);
    EXPECT_FALSE(output->identity);
    EXPECT_FALSE(IsOccupied());
}

TEST_F(RemoteRequest, IsNotSentWhereAnIdentityWouldForgeAHeader) {
    context.identities = {Intern("staff\nfallbackscan 1")};
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, "X end"});
    EXPECT_EQ(Scan(), -1);
    EXPECT_FALSE(IsOccupied());
}

TEST_F(RemoteRequest, OfAFallbackForTheLastIdentityDeliversTheChangedInputAnew) {
    context.connection_attributes = new ScanConnectionAttributes(&session);
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, "C get scan\nidentity staff\nconnattr 1\n\n",
                      "S " + Answer("5", 1, 0, 1) + kClean + kNoProperties + "short", std::string("C ") + kStasis,
                      std::string("S ") + kOk, std::string("C ") + kWakeup, std::string("S ") + kOk,
                      "C get setup_scan\nprotocol smtp\ntime 1700000000\nsize 5\npolicy content_in\n\n\r\nshort",
                      std::string("S ") + kOk, "C get scan\nidentity staff\nfallbackscan 1\nconnattr 1\n\n",
                      "S " + Clean(), std::string("C ") + kStasis, std::string("S ") + kOk});
    EXPECT_EQ(Scan(0), 0);
    Offer(remote);
    EXPECT_EQ(Scan(0, true), 0);
    EXPECT_EQ(remote.connections(), 1u);
}

// The server has replaced the file; what it is told of the second time is what it left.
TEST_F(RemoteRequest, OfAFallbackForTheLastIdentityTellsALocalServerTheFileAnew) {
    FillSpool();
    std::string const file = body->get_spool_file();
    Converse(
        local,
        {"C " + SetupBlock("filename " + file + "\n") + "\r\n", std::string("S ") + kOk, std::string("C ") + kScan,
         "X pass", "S " + Answer("99", 1, 1, 1) + kClean + kNoProperties, std::string("C ") + kStasis,
         std::string("S ") + kOk, std::string("C ") + kWakeup, std::string("S ") + kOk,
         "C get setup_scan\nprotocol smtp\ntime 1700000000\nsize 8\npolicy content_in\nfilename " + file + "\n\n\r\n",
         std::string("S ") + kOk, "C get scan\nidentity staff\nfallbackscan 1\n\n",
         "S " + Answer("0", 1, 0, 0) + kClean + kNoProperties, std::string("C ") + kStasis, std::string("S ") + kOk});
    session.onCallback = [&] {
        if (session.callbacks != 1) return;
        std::ofstream(file + ".new") << "replaced";
        EXPECT_EQ(::rename((file + ".new").c_str(), file.c_str()), 0);
        local.Pass();
    };
    EXPECT_EQ(Scan(0), 0);
    Offer(local);
    EXPECT_EQ(Scan(0, true), 0);
    EXPECT_EQ(All(*body), "replaced");
}

TEST_F(RemoteRequest, OfAFallbackInTheMidstDeliversNothing) {
    context.identities = {Intern("staff"), Intern("guests")};
    Converse(remote,
             {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean(),
              "C get scan\nidentity staff\nfallbackscan 1\n\n", "S " + Clean("second"),
              "C get scan\nidentity guests\n\n", "S " + Clean(), std::string("C ") + kStasis, std::string("S ") + kOk});
    EXPECT_EQ(Scan(0), 0);
    EXPECT_EQ(Scan(0, true), 0);
    EXPECT_EQ(All(*output->output), "second");
    EXPECT_EQ(Scan(1), 0);
}

TEST_F(RemoteRequest, LeavesTheOutputThatIsPassedInAlone) {
    ScanOutput* const earlier = new ScanOutput;
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, "C get scan\nidentity staff\nfallbackscan 1\n\n",
                      "S " + Clean()});
    scanner.reset(ScannerConn::get(&context));
    output = earlier;
    EXPECT_EQ(scanner->scan(0, output, true), 0);
    EXPECT_NE(output, earlier);
    earlier->identity = Intern("still there");
    delete earlier;
}

// --- the attributes ---

TEST_F(RemoteAttributes, AreAnnouncedInEachScanAndServedAsOftenAsAsked) {
    context.connection_attributes = new ScanConnectionAttributes(&session);
    context.identities = {InternedString(), InternedString()};
    std::string const request = "C get scan\nconnattr 1\n\n", section = "C conattr.HOPS sl 3\n\r\n",
                      ask = "S State Attributes\n\n";
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, request, ask, section, ask, section, ask, section,
                      "S " + Clean(), request, ask, section, "S " + Clean()});
    EXPECT_EQ(Scan(0), 0);
    EXPECT_EQ(session.asked, 3);
    EXPECT_EQ(Scan(1), 0);
    EXPECT_EQ(session.asked, 4);
}

TEST_F(RemoteAttributes, AreServedToAServerThatWasNotToldOfThem) {
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S State Attributes\n\n",
                      "C conattr.HOPS sl 3\n\r\n", "S " + Clean()});
    EXPECT_EQ(Scan(), 0);
    EXPECT_EQ(session.asked, 1);
}

TEST_F(RemoteAttributes, OfNoSessionAreAnEmptySection) {
    context.connection = nullptr;
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S State Attributes\n\n",
                      "C \r\n", "S State NO\n\n"});
    EXPECT_EQ(Scan(), -1);
    events.Expect(events::SCANNER_REFUSED);
}

TEST_F(RemoteAttributes, AskedForWithoutEndKeepTheScanGoing) {
    ScannerPeer::Conversation steps{"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan};
    constexpr int kRounds = 300;
    for (int i = 0; i < kRounds; ++i) {
        steps.push_back("S State Attributes\n\n");
        steps.push_back("C conattr.HOPS sl 3\n\r\n");
    }
    steps.push_back("S " + Clean());
    Converse(remote, std::move(steps));
    EXPECT_EQ(Scan(), 0);
    EXPECT_EQ(session.asked, kRounds);
}

// A server may say two blocks at once. What was read ahead makes no socket readable.
TEST_F(RemoteAttributes, AndTheAnswerMayComeInOnePiece) {
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan,
                      "S State Attributes\n\nState Attributes\n\n" + Clean("after"),
                      "C conattr.HOPS sl 3\n\r\nconattr.HOPS sl 3\n\r\n", std::string("C ") + kStasis,
                      std::string("S ") + kOk});
    EXPECT_EQ(Scan(), 0);
    EXPECT_EQ(session.asked, 2);
    EXPECT_EQ(All(*output->output), "after");
}

// --- the search ---

TEST_F(RemoteSearch, TriesOnceASecondAndCallsTheSessionBackBetween) {
    Set("scanning", "LSServerWaitTime", FakeValue::Unsigned(3));
    Initialise();
    EXPECT_EQ(Scan(), -1000);
    EXPECT_EQ(manager.waits().size(), 3u);
    EXPECT_EQ(manager.waits()[0].timeout, 1);
    EXPECT_EQ(session.callbacks, 2);
    EXPECT_FALSE(IsOccupied());
    EXPECT_EQ(output, nullptr);
}

TEST_F(RemoteSearch, LeavesAServerThatCannotBeReachedForTheNextOffer) {
    Listener closed;
    sockaddr_in const nobody = closed.address();
    closed.Close();
    manager.ToOffer({kResource, 2, sequence, nobody});
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean()});
    EXPECT_EQ(Scan(), 0);
    EXPECT_EQ(Pauses(), std::vector<unsigned>{1});
    EXPECT_EQ(manager.opens(0), 2u);
    EXPECT_EQ(NumberAt(TheReport(events::SCANNER_EXCHANGE_FAILED), "velt_error.velt_os_error"), ECONNREFUSED);
}

// The server that was offered is still known, and there is nothing of it to end.
TEST_F(RemoteSearch, ThatOnlyMetAServerOutOfReachEndsWithNothingHeld) {
    Set("scanning", "LSServerWaitTime", FakeValue::Unsigned(1));
    Initialise();
    Listener closed;
    sockaddr_in const nobody = closed.address();
    closed.Close();
    manager.ToOffer({kResource, 2, sequence, nobody});
    EXPECT_EQ(Scan(), -1000);
    EXPECT_FALSE(IsOccupied());
    events.Expect(events::SCANNER_EXCHANGE_FAILED);
    DropScanner();
    EXPECT_FALSE(IsOccupied());
}

TEST_F(RemoteSearch, EndsAtOnceWithAnyErrorButATimeout) {
    manager.ToFail(EIO);
    EXPECT_EQ(Scan(), -1000);
    EXPECT_EQ(manager.waits().size(), 1u);
    EXPECT_EQ(session.callbacks, 0);
}

TEST_F(RemoteSearch, TakesAWaitBeyondEveryIntForTheLongestThereIs) {
    Set("scanning", "LSServerWaitTime", FakeValue::Unsigned(UINT_MAX));
    Initialise();
    for (int i = 0; i < 3; ++i) manager.ToTimeOut();
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean()});
    EXPECT_EQ(Scan(), 0);
    EXPECT_EQ(session.callbacks - StepsOfASecond(), 3);
}

TEST_F(RemoteSearch, IsMadeAgainByTheScanAfterOneThatFoundNobody) {
    manager.ToFail(EIO);
    EXPECT_EQ(Scan(), -1000);
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean(), "X end"});
    EXPECT_EQ(Scan(), 0);  // and what failed once is not kept
}

TEST_F(RemoteSearch, TriesOnceWhereTheWaitIsNoneOrOneSecond) {
    for (unsigned const seconds : {0u, 1u}) {
        manager.Forget();
        Set("scanning", "LSServerWaitTime", FakeValue::Unsigned(seconds));
        Initialise();
        EXPECT_EQ(Scan(), -1000);
        ASSERT_EQ(manager.waits().size(), 1u);
        EXPECT_EQ(manager.waits()[0].timeout, 1);
    }
    EXPECT_EQ(session.callbacks, 0);
    EXPECT_TRUE(events.Names().empty());
}

// The manager's offer counts: only idle connections of a server that is down are not used.
TEST_F(RemoteSearch, ConnectsToWhoIsOfferedThoughItsResourceIsDown) {
    manager.SetUp(kResource, false);
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean(), "X end"});
    EXPECT_EQ(Scan(), 0);
}

TEST_F(RemoteSearch, ConnectsWithinTheTimeThatTheManagerSays) {
    manager.WriteSettings("1 30 3 7");
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean(),
                      std::string("C ") + kStasis, std::string("S ") + kOk, std::string("C ") + kWakeup,
                      std::string("S ") + kOk, "C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan,
                      "S " + Clean()});
    EXPECT_EQ(Scan(), 0);
    EXPECT_EQ(TakeWaits().at(0), 3 * 1024);
    Offer(remote);
    EXPECT_EQ(Scan(), 0);
    for (int const wait : TakeWaits()) EXPECT_TRUE(wait == 7 * 1024 || wait == 1000 || wait == 0) << wait;
}

// --- idle connections ---

TEST_F(RemoteIdle, AreGivenBackByTheLastScanAndTakenUpByTheNextItem) {
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean(),
                      "C get stasis\n\n", std::string("S ") + kOk, "C get wakeup\n\n", std::string("S ") + kOk,
                      "C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean()});
    EXPECT_EQ(Scan(), 0);
    EXPECT_FALSE(IsOccupied());
    std::size_t const calls = manager.calls().size();
    DropScanner();
    EXPECT_EQ(manager.calls().size(), calls) << "nothing is left to end";
    Offer(remote);
    EXPECT_EQ(Scan(), 0);
    EXPECT_EQ(remote.connections(), 1u);
}

TEST_F(RemoteIdle, ThatDoNotWakeUpArePassedOverWithoutAWord) {
    std::string const ok = std::string("S ") + kOk, stasis = std::string("C ") + kStasis,
                      wakeup = std::string("C ") + kWakeup, scan = std::string("C ") + kScan,
                      guests = "C get scan\nidentity guests\n\n";
    context.identities = {Intern("staff"), Intern("guests")};
    Converse(remote, {"C " + InLine(), ok, scan, "S " + Clean(), guests, "S " + Clean(), stasis, ok, wakeup, ok,
                      "C " + InLine(), ok, scan, "S " + Clean(), guests, "S State NO\n\n", "X end"});
    EXPECT_EQ(Scan(0), 0);
    std::unique_ptr<ScannerConn> first(scanner.release());
    Converse(remote,
             {"C " + InLine(), ok, scan, "S " + Clean(), guests, "S " + Clean(), stasis, ok, wakeup, "X close"});
    EXPECT_EQ(Scan(0), 0);
    EXPECT_EQ(Scan(1), 0);  // kept first, and closed at its wakeup
    scanner = std::move(first);
    EXPECT_EQ(Scan(1), 0);  // kept second
    Offer(remote);
    EXPECT_EQ(Scan(0), 0);
    EXPECT_EQ(remote.connections(), 2u);
    EXPECT_EQ(Scan(1), -1);
    DropScanner();
    events.Expect(events::SCANNER_REFUSED);
    Converse(remote, {"C " + InLine(), ok, scan, "S " + Clean(), "X end"});
    EXPECT_EQ(Scan(0), 0);  // by a new connection, as none is left
    scanner->dont_cache();
    DropScanner();
}

// What woke up is a connection like others: nobody makes another when it fails.
TEST_F(RemoteIdle, ThatFailBehindTheirWakeupFailTheItem) {
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean(),
                      std::string("C ") + kStasis, std::string("S ") + kOk, std::string("C ") + kWakeup,
                      std::string("S ") + kOk, "C " + InLine(), "X close"});
    EXPECT_EQ(Scan(), 0);
    Offer(remote);
    EXPECT_EQ(Scan(), -1001);
    TheReport(events::SCANNER_EXCHANGE_FAILED);
    EXPECT_EQ(manager.waits().size(), 2u);
    EXPECT_FALSE(IsOccupied());
}

TEST_F(RemoteIdle, AreNoneWhereStasisIsAnsweredWithoutAHeader) {
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean(),
                      std::string("C ") + kStasis, "S \n", "X end"});
    EXPECT_EQ(Scan(), 0);
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean()});
    EXPECT_EQ(Scan(), 0);
    EXPECT_EQ(remote.connections(), 2u);
}

TEST_F(RemoteIdle, AreNoneForASessionThatDistrustsThem) {
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean(), "X end"});
    scanner.reset(ScannerConn::get(&context));
    scanner->dont_cache();
    EXPECT_EQ(Scan(), 0);
}

// A session that distrusts one connection does not trust the next.
TEST_F(RemoteIdle, AreNoneForTheRestOfAnItemThatIsDistrusted) {
    Converse(remote,
             {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "X pass", "S " + Clean(), "X end"});
    scanner.reset(ScannerConn::get(&context));
    session.onCallback = [&] {
        if (session.callbacks != 1) return;
        scanner->dont_cache();
        remote.Pass();
    };
    EXPECT_EQ(Scan(0), 0);
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, "C get scan\nidentity staff\nfallbackscan 1\n\n",
                      "S " + Clean(), "X end"});
    EXPECT_EQ(Scan(0, true), 0);
}

TEST_F(RemoteIdle, AreNoneWhereHelperThreadsAreOff) {
    Set("process", "ForkedModelThreads", FakeValue::Flag(0));
    Initialise();
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean(), "X end"});
    EXPECT_EQ(Scan(), 0);
}

TEST_F(RemoteIdle, AreGivenBackBetweenTwoScansBySessionsThatWantNoMore) {
    context.identities = {Intern("staff"), Intern("guests")};
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean(),
                      std::string("C ") + kStasis, std::string("S ") + kOk});
    EXPECT_EQ(Scan(0), 0);
    EXPECT_TRUE(IsOccupied());
    scanner->end_connection();
    EXPECT_FALSE(IsOccupied());
    scanner->end_connection();
}

// Bytes that nobody asked for are those of a server out of step.
TEST_F(RemoteIdle, AreNoneWhereMoreCameThanWasAsked) {
    Converse(remote,
             {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "S " + Clean() + kOk, "X end"});
    EXPECT_EQ(Scan(), 0);
}

TEST_F(RemoteIdle, AreNoneInTheMidstOfAnExchange) {
    session.onCallback = [] { throw std::runtime_error("host"); };
    Converse(remote, {"C " + InLine(), std::string("S ") + kOk, std::string("C ") + kScan, "X end"});
    EXPECT_THROW(Scan(), std::runtime_error);
    EXPECT_FALSE(IsOccupied());
    EXPECT_EQ(Counted("scanner.conn.failures"), failuresBefore + 1);
}

// --- the place in the chain ---

TEST_F(ScanChainRemote, TakesEveryItemWhileScannerProcessesAreActive) {
    manager.Answer(6, 1);
    EXPECT_TRUE(ScannerProcessActive());
    std::unique_ptr<Scanner> const chosen(Scanner::get(&context));
    unsigned count = 0;
    EXPECT_EQ(chosen->setup_scan(count), 0);
    EXPECT_EQ(count, 1u);
    manager.ToFail(EIO);
    EXPECT_EQ(chosen->scan(0, output, false), -1000);  // and nobody else scans it
}

TEST_F(ScanChainRemote, ComesBehindAnIdleScanThreadAndBeforeScanningInLine) {
    manager.Answer(6, 1);
    Set("scanning", "MaxScannerThreads", FakeValue::Unsigned(1));
    ScannerThread::initialise(&world.proxy().m_config);
    context.identities = {Intern("staff"), Intern("guests")};
    std::unique_ptr<Scanner> const first(Scanner::get(&context));
    unsigned count = 0;
    EXPECT_EQ(first->setup_scan(count), 0);
    EXPECT_EQ(count, 1u) << "a scan thread has one scan, whatever the number of identities";
    std::unique_ptr<Scanner> const next(Scanner::get(&context));
    EXPECT_EQ(next->setup_scan(count), 0);
    EXPECT_EQ(count, 2u);
    manager.ToFail(EIO);
    EXPECT_EQ(next->scan(0, output, false), -1000);
}

TEST_F(ScanChainRemote, IsNotTakenWhereTheSettingTurnsItOff) {
    manager.Answer(6, 1);
    world.proxy().m_handlerStackSize = 128;
    Set("scanning", "LSDisabled", FakeValue::Flag(1));
    Initialise();
    EXPECT_FALSE(ScannerProcessActive());
    EXPECT_TRUE(manager.calls().empty());
    Proxy::CheckStackSize();
    EXPECT_EQ(world.proxy().m_handlerStackSize, 0u);
    ScannerInline::initialise(&world.proxy().m_config);
    EXPECT_NE(std::unique_ptr<Scanner>(ScannerInline::get(&context)), nullptr);
}

TEST_F(ScanChainRemote, IsSetUpWithTheChainBeforeTheStackIsLookedAt) {
    manager.Answer(6, 1);
    world.proxy().m_handlerStackSize = 128;
    Set("scanning", "LSDisabled", FakeValue::Flag(1));
    Scanner::initialise(&world.proxy().m_config);
    EXPECT_FALSE(ScannerProcessActive());
    EXPECT_EQ(world.proxy().m_handlerStackSize, 0u);
}

TEST_F(ScanChainRemote, CanBeTurnedOffWheneverAHostLikes) {
    manager.Answer(6, 1);
    EXPECT_TRUE(ScannerProcessActive());
    ScannerConn::disable_ls();
    EXPECT_FALSE(ScannerProcessActive());
}

TEST_F(ScanChainRemote, LeavesTheStackOfConnectionThreadsAsItWasConfigured) {
    manager.Answer(6, 1);
    world.proxy().m_handlerStackSize = 128;
    Proxy::CheckStackSize();
    EXPECT_EQ(world.proxy().m_handlerStackSize, 128u);
}

TEST_F(ScanChainRemote, StaysTurnedOffWhateverTheSettingSaysLater) {
    manager.Answer(6, 1);
    ScannerConn::disable_ls();
    Set("scanning", "LSDisabled", FakeValue::Flag(0));
    Initialise();
    EXPECT_FALSE(ScannerProcessActive());
}

// --- what the process is told ---

TEST_F(ScanChainRemote, TakesSettingsThatCannotBeReadForTheirDefaults) {
    manager.Answer(6, 1);
    Set("scanning", "LSServerWaitTime", FakeValue::Unreadable());
    Set("scanning", "LSDisabled", FakeValue::Unreadable());
    Set("process", "ForkedModelThreads", FakeValue::Unreadable());
    ScannerServer::s_usethreads = false;
    Initialise();
    EXPECT_TRUE(ScannerServer::s_usethreads);
    EXPECT_TRUE(ScannerProcessActive());
    EXPECT_EQ(Scan(), -1000);
    EXPECT_EQ(manager.waits().size(), 60u);
}

TEST_F(RemoteSearch, WaitsForAMinuteUnlessTheSettingsSayOtherwise) {
    EXPECT_EQ(Scan(), -1000);
    EXPECT_EQ(manager.waits().size(), 60u);
}
