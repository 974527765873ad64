// What the remote scanner makes of what it is answered: refusals, lacks, broken answers, the verdict and the content.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string_view>
#include <utility>

#include "testing/Child.h"
#include "testing/DocExample.h"
#include "velt/scanning/ScannerConnTest.h"

using namespace VELT;
using namespace velt_testing;

namespace {

class AnswerTest : public ScannerConnTest {
protected:
    // To the set-up; the client says nothing more, and closes.
    int AfterSetup(std::string const& answer, std::string const& deed = "end") {
        Converse(remote, {"C " + InLine(), "S " + answer, "X " + deed});
        return Scan();
    }
    // To the scan of an item in line.
    int AfterScan(std::string const& answer, std::string const& deed = "end") {
        Converse(remote, {"C " + InLine(), ok, scan, "S " + answer, "X " + deed});
        return Scan();
    }
    std::string NextLine() {  // of the input
        char* line = nullptr;
        bool io_done = false;
        LINE_STATE_T state;
        int const length = body->getline(line, true, io_done, state, true);
        return length > 0 ? std::string(line, static_cast<std::size_t>(length)) : "";
    }
    // The same of a session that lets nothing be kept.
    int Unkept(std::string const& answer) {
        scanner.reset(ScannerConn::get(&context));
        scanner->dont_cache();
        return AfterScan(answer);
    }
    // The same, but that the server falls silent after so many bytes, and goes on when a read has given up.
    int AfterScanWithStall(std::string const& answer, std::size_t at) {
        Converse(remote,
                 {"C " + InLine(), ok, scan, "S " + answer.substr(0, at), "X pass", "S " + answer.substr(at), "X end"});
        Stall(remote);
        return Scan();
    }
    // Whole and in time, so that the connection is kept.
    int Kept(std::string const& answer, ScannerPeer& server, std::string const& setup) {
        Converse(server, {"C " + setup, ok, scan, "S " + answer, std::string("C ") + kStasis, ok});
        return Scan();
    }
    int Kept(std::string const& answer) { return Kept(answer, remote, InLine()); }
    void ExpectFailure(int error) {
        EXPECT_EQ(NumberAt(TheReport(events::SCANNER_EXCHANGE_FAILED), "velt_error.velt_os_error"), error);
        events.Clear();
    }
    void ExpectLack(char const* attribute) {
        EXPECT_EQ(TextAt(TheReport(events::SCANNER_ANSWER_INCOMPLETE), "ls_scan_attribute").value_or("none"),
                  attribute);
        events.Clear();
    }
    void ExpectRefusal() {
        TheReport(events::SCANNER_REFUSED);
        events.Clear();
    }

    std::string const ok = std::string("S ") + kOk;
    std::string const scan = "C get scan\nidentity staff\n\n";
};

using RemoteSetupAnswer = AnswerTest;
using RemoteScanAnswer = AnswerTest;
using RemoteContent = AnswerTest;
using RemoteWait = AnswerTest;
using RemoteHostile = AnswerTest;
using ScanProtocolPage = AnswerTest;

}  // namespace

// --- the answer to the set-up ---

TEST_F(RemoteSetupAnswer, WithoutAnyHeaderIsAFailure) {
    EXPECT_EQ(AfterSetup("\n"), -1001);
    ExpectFailure(0);
    EXPECT_FALSE(IsOccupied());
    EXPECT_EQ(output, nullptr);
}

TEST_F(RemoteSetupAnswer, OtherThanOKByteForByteIsARefusal) {
    for (char const* const state : {"ok", "", "OK ", " OK", "Ok", "OKAY", "Attributes", "NO such policy"}) {
        EXPECT_EQ(AfterSetup(std::string("State ") + state + "\n\n"), -1001) << state;
        ExpectRefusal();
        EXPECT_FALSE(IsOccupied());
        DropScanner();
    }
}

TEST_F(RemoteSetupAnswer, WithoutAStateLacksIt) {
    EXPECT_EQ(AfterSetup("state OK\nsize 1\n\n"), -1001);
    ExpectLack("State");
}

TEST_F(RemoteSetupAnswer, WithALineThatIsNoHeaderIsAFailure) {
    EXPECT_EQ(AfterSetup("garbage\n"), -1001);
    ExpectFailure(0);
}

TEST_F(RemoteSetupAnswer, ThatThePeerClosesIsAFailureWhateverItHeld) {
    for (char const* const text : {"", "State OK", "State OK\n"}) {
        EXPECT_EQ(AfterSetup(text, "close"), -1001) << text;
        ExpectFailure(0);
        DropScanner();
    }
}

// Behind a whole header a lost connection ends a block like its empty line; what follows shows it.
TEST_F(RemoteSetupAnswer, ThatIsResetBehindAHeaderPasses) {
    Converse(remote, {"C " + InLine(), "S State OK\n", "X reset"});
    EXPECT_EQ(Scan(), -1);
    events.Expect(events::SCANNER_EXCHANGE_FAILED);
}

TEST_F(RemoteSetupAnswer, ThatFallsSilentBehindAHeaderPasses) {
    TCPStream::set_default_timeout(50);
    Converse(remote, {"C " + InLine(), "S State OK\n", scan, "S " + Clean(), std::string("C ") + kStasis, ok});
    EXPECT_EQ(Scan(), 0);
}

TEST_F(RemoteSetupAnswer, ThatDoesNotComeIsATimeout) {
    TCPStream::set_default_timeout(50);
    EXPECT_EQ(AfterSetup("State"), -1001);
    ExpectFailure(ETIMEDOUT);
}

TEST_F(RemoteSetupAnswer, ThatDoesNotComeSinceTheContentIsNotTakenIsOneToo) {
    TCPStream::set_default_timeout(50);
    Fill(std::string(4000, 'x'));
    FillSpool(16 << 20);
    Offer(remote);
    remote.Converse({"X pass"});
    EXPECT_EQ(Scan(), -1001);
    ExpectFailure(ETIMEDOUT);
    remote.Pass();
}

// --- the answer to a scan ---

TEST_F(RemoteScanAnswer, MayHaveItsHeadersInAnyOrderAndMoreOfThem) {
    std::string const verdict = std::string(kFound) + kNoProperties + "clean";
    EXPECT_EQ(Kept("input_modified 1\r\nX y z\r\nState NO\r\ncached 0\r\noutput_in_input 1\r\noutput_in_input 0\r\n"
                   "State OK\r\nsize 5\r\n\r\n" +
                   verdict),
              0);
    EXPECT_TRUE(output->result->IsTriggered());
    EXPECT_FALSE(output->output_in_input);
    EXPECT_FALSE(output->input_modified);
    EXPECT_EQ(All(*output->output), "clean");
}

TEST_F(RemoteScanAnswer, GivesTheVerdictAndThePropertiesOfTheItem) {
    EXPECT_EQ(Kept(Answer("0", 0, 0, 0) + kFound + "properties.FOUND sl 7\n\r\n"), 0);
    EXPECT_TRUE(output->result->IsTriggered());
    EXPECT_EQ(output->identity, context.identities[0]);
    ASSERT_NE(output->properties.GetProperty("FOUND"), nullptr);
    long value = 0;
    EXPECT_TRUE(output->properties.GetProperty("FOUND")->GetLong(value));
    EXPECT_EQ(value, 7);
}

// The section of the request has another name. One under that name cannot be told from content, so nothing is reported;
// but the connection is out of step.
TEST_F(RemoteScanAnswer, UnderTheNameOfTheRequestsSectionGivesNoProperties) {
    EXPECT_EQ(AfterScan(Answer("0", 0, 0, 0) + kFound + "scan_properties.FOUND sl 7\n\r\n"), 0);
    EXPECT_TRUE(output->result->IsTriggered());
    EXPECT_EQ(output->properties.Size(), 0);
}

// What the numbers of a section leave behind, and what the server does next, make no difference.
TEST_F(RemoteScanAnswer, WithALineOfAnotherNameGivesThePropertiesBeforeIt) {
    std::string const answer = Answer("0", 0, 0, 0) + kFound + "properties.FOUND sl 99999999999999999999\nother\n";
    for (char const* const deed : {"close", "end"}) {
        Converse(remote, {"C " + InLine(), ok, scan, "X pass", "S " + answer, std::string("X ") + deed});
        bool const closes = std::string_view(deed) == "close";
        session.onCallback = [&, isFirst = true]() mutable {
            if (!std::exchange(isFirst, false)) return;
            remote.Pass();
            if (closes) remote.Finish();
        };
        EXPECT_EQ(Scan(), 0) << deed;
        EXPECT_EQ(output->properties.Size(), 1) << deed;
        EXPECT_TRUE(events.Names().empty()) << deed;
        DropScanner();
    }
}

// Its rest would be taken for the content.
TEST_F(RemoteScanAnswer, WithMorePropertiesThanASectionMayHaveIsAFailure) {
    std::string lines;
    for (int i = 0; i < 270000; ++i) lines += "#\n";
    EXPECT_EQ(AfterScan(Answer("5", 0, 0, 0) + kFound + lines + kNoProperties + "clean"), -1);
    ExpectFailure(EMSGSIZE);
}

TEST_F(RemoteScanAnswer, ThatRefusesLeavesTheConnectionAndAFurtherScanGoesOutOnIt) {
    Converse(remote, {"C " + InLine(), ok, scan, "S State NO\n\n", "C get scan\nidentity staff\nfallbackscan 1\n\n",
                      "S State no\n\n", "X end"});
    EXPECT_EQ(Scan(), -1);
    ExpectRefusal();
    EXPECT_EQ(output, nullptr);
    EXPECT_TRUE(IsOccupied());
    EXPECT_EQ(Scan(0, true), -1);
    ExpectRefusal();
    EXPECT_EQ(remote.connections(), 1u);
    DropScanner();
    EXPECT_FALSE(IsOccupied());
}

TEST_F(RemoteScanAnswer, AfterARefusalMaySucceedButTheConnectionIsNotKept) {
    Converse(remote, {"C " + InLine(), ok, scan, "S State NO\n\n", scan, "S " + Clean(), "X end"});
    EXPECT_EQ(Scan(), -1);
    ExpectRefusal();
    EXPECT_EQ(Scan(), 0);
}

TEST_F(RemoteScanAnswer, WithoutAStateLeavesTheConnectionToTheScannersEnd) {
    Converse(remote, {"C " + InLine(), ok, scan, "S size 1\n\n", "X end"});
    EXPECT_EQ(Scan(), -1);
    ExpectLack("State");
    EXPECT_TRUE(IsOccupied());
    DropScanner();
    EXPECT_FALSE(IsOccupied());
}

TEST_F(RemoteScanAnswer, LacksEachOfItsFourHeadersByName) {
    std::vector<std::string> const names{"size", "output_in_input", "cached", "input_modified"};
    for (std::string const& missing : names) {
        std::string block = "State OK\n";
        for (std::string const& name : names)
            if (name != missing) block += name + " 0\n";
        EXPECT_EQ(AfterScan(block + "\n" + kClean + kNoProperties), -1);
        ExpectLack(missing.c_str());
        EXPECT_EQ(output, nullptr);
        EXPECT_FALSE(IsOccupied());
        DropScanner();
    }
    EXPECT_EQ(AfterScan("State OK\n\n"), -1);
    ExpectLack("size");  // the first of them
    DropScanner();
    EXPECT_EQ(AfterScan("State OK\ninput_modified 0\nsize 0\n\n"), -1);
    ExpectLack("output_in_input");
}

TEST_F(RemoteScanAnswer, LacksASizeWhereItIsNone) {
    for (char const* const size : {"-1", "", "x", "5x", "4294967296", "9223372036854775808", "0x5", "1e3"}) {
        EXPECT_EQ(AfterScan(Answer(size, 0, 0, 0) + kClean + kNoProperties), -1) << size;
        ExpectLack("size");
        EXPECT_EQ(output, nullptr);
        DropScanner();
    }
}

TEST_F(RemoteScanAnswer, HasASizeHoweverItIsWritten) {
    for (char const* const size : {"5", "0005", " 5", "+5", "0000000000000000000000005"}) {
        EXPECT_EQ(Unkept(Answer(size, 0, 0, 0) + kClean + kNoProperties + "clean"), 0) << size;
        EXPECT_EQ(All(*output->output), "clean");
    }
}

// Every flag is a number, and on where that is not 0; what is no number is 0.
TEST_F(RemoteScanAnswer, HasFlagsThatAreNumbers) {
    std::pair<char const*, bool> const flags[] = {
        {"1", true},  {"2", true},   {"-1", true}, {" 1", true},  {"1x", true},   {"256", true},  {"4294967296", true},
        {"0", false}, {"00", false}, {"", false},  {"x1", false}, {"0 1", false}, {"0x1", false}, {"true", false}};
    auto const answer = [](std::string const& inInput, std::string const& cached, std::string const& modified) {
        return "State OK\nsize 3\noutput_in_input " + inInput + "\ncached " + cached + "\ninput_modified " + modified +
               "\n\n" + kClean + kNoProperties;
    };
    for (auto const& [text, isOn] : flags) {
        EXPECT_EQ(Unkept(answer(text, "0", "0") + (isOn ? "" : "new")), 0) << text;
        EXPECT_EQ(output->output_in_input, isOn) << text;
        EXPECT_EQ(Unkept(answer("1", text, "1") + (isOn ? "" : "new")), 0) << text;
        EXPECT_EQ(All(*body), isOn ? content : "new") << text;
        Fill("hello\nworld\n");
        EXPECT_EQ(Unkept(answer("1", "0", text) + (isOn ? "new" : "")), 0) << text;
        EXPECT_EQ(output->input_modified, isOn) << text;
        EXPECT_EQ(All(*body), isOn ? "new" : content) << text;
        Fill("hello\nworld\n");
    }
}

TEST_F(RemoteScanAnswer, ThatAsksForAttributesAndThenEndsIsAFailure) {
    for (char const* const deed : {"close", "reset"}) {
        EXPECT_EQ(AfterScan("State Attributes\n\n", deed), -1) << deed;
        TheReport(events::SCANNER_EXCHANGE_FAILED);
        events.Clear();
        EXPECT_FALSE(IsOccupied());
        DropScanner();
    }
}

TEST_F(RemoteScanAnswer, WithAVerdictThatCannotBeReadLacksNothingThatHasAName) {
    for (char const* const verdict :
         {"msr.unknown sl 1\n\n", "msr.triggered ss 1\nx\n", "msr.sr.result\nunknown 1\n\n\n", "garbage\n\n"}) {
        EXPECT_EQ(AfterScan(Answer("0", 0, 0, 0) + verdict + kNoProperties), -1) << verdict;
        ExpectLack("none");
        EXPECT_EQ(output, nullptr);
        EXPECT_FALSE(IsOccupied());
        DropScanner();
    }
    EXPECT_EQ(AfterScan(Answer("0", 0, 0, 0) + "msr.action ss 10\nDE", "close"), -1);
    ExpectLack("none");
}

// What is cut anywhere is no verdict, least of all a clean one.
TEST_F(RemoteScanAnswer, ThatIsCutAnywhereIsAFailure) {
    context.identities = {InternedString()};
    std::string const answer = Answer("5", 0, 0, 0) + kClean + "properties.FOUND sl 7\n\r\nclean";
    for (char const* const deed : {"close", "reset"}) {
        for (std::size_t cut = 0; cut < answer.size(); ++cut) {
            Converse(remote,
                     {"C " + InLine(), ok, "C get scan\n\n", "S " + answer.substr(0, cut), std::string("X ") + deed});
            EXPECT_EQ(Scan(), -1) << deed << " at " << cut;
            EXPECT_EQ(events.Events().size(), 1u) << deed << " at " << cut;
            EXPECT_FALSE(IsOccupied());
            events.Clear();
            DropScanner();
        }
    }
}

// The same of one whose content is in the spool file already: nothing follows its sections.
TEST_F(RemoteScanAnswer, WithoutContentThatIsCutAnywhereIsAFailure) {
    std::string const answer = Answer("0", 1, 0, 0) + kClean + "properties.FOUND sl 7\n\r\n";
    for (char const* const deed : {"close", "reset"}) {
        for (std::size_t cut = 0; cut + 1 < answer.size(); ++cut) {
            Converse(remote, {"C " + InLine(), ok, scan, "S " + answer.substr(0, cut), std::string("X ") + deed});
            EXPECT_EQ(Scan(), -1) << deed << " at " << cut;
            EXPECT_EQ(events.Events().size(), 1u) << deed << " at " << cut;
            events.Clear();
            DropScanner();
        }
    }
}

// What comes late cannot be told from what it continues: an empty line that ends the headers would end the verdict.
TEST_F(RemoteScanAnswer, ThatStallsBeforeTheEmptyLineOfItsHeadersIsAFailure) {
    std::string const headers = Answer("0", 1, 0, 0);
    EXPECT_EQ(AfterScanWithStall(headers + kFound + kNoProperties, headers.size() - 1), -1);
    EXPECT_EQ(output, nullptr);
    ExpectFailure(ETIMEDOUT);
    EXPECT_FALSE(IsOccupied());
}

TEST_F(RemoteScanAnswer, ThatStallsAnywhereIsAFailure) {
    std::string const result = "msr.sr.result\ncleanstatus sl 0\n\n";
    std::string const answer = Answer("5", 0, 0, 0) + "msr.triggered sl 0\n" + result + result +
                               "msr.triggered sl 1\n\nproperties.FOUND sl 7\n\r\nclean";
    for (std::size_t cut = 1; cut < answer.size(); ++cut) {
        EXPECT_EQ(AfterScanWithStall(answer, cut), -1) << cut;
        EXPECT_EQ(events.Events().size(), 1u) << cut;
        EXPECT_FALSE(IsOccupied());
        events.Clear();
        DropScanner();
    }
}

TEST_F(RemoteScanAnswer, IsTheSameWhereverTheNetworkCutsIt) {
    context.identities = {InternedString()};
    std::string const answer = Answer("5", 0, 0, 0) + kFound + "properties.FOUND sl 7\n\r\nclean";
    for (std::size_t cut = 1; cut < answer.size(); cut += 3) {
        Converse(remote, {"C " + InLine(), ok, "C get scan\n\n", "S " + answer.substr(0, cut), "X pass",
                          "S " + answer.substr(cut)});
        Pause(remote);
        scanner.reset(ScannerConn::get(&context));
        scanner->dont_cache();
        EXPECT_EQ(Scan(), 0) << cut;
        EXPECT_FALSE(IsPaused()) << cut;
        EXPECT_TRUE(output->result->IsTriggered());
        EXPECT_EQ(All(*output->output), "clean");
        DropScanner();
    }
}

TEST_F(RemoteScanAnswer, ThatCannotBeAskedForIsAFailure) {
    context.identities = {InternedString(), InternedString()};
    Converse(remote, {"C " + InLine(), ok, "C get scan\n\n", "S " + Clean(), "X reset"});
    EXPECT_EQ(Scan(0), 0);
    remote.Finish();
    EXPECT_EQ(Scan(1), -1);
    EXPECT_EQ(output, nullptr);
    events.Expect(events::SCANNER_EXCHANGE_FAILED);
    EXPECT_FALSE(IsOccupied());
}

// A header that broke on the way makes the client leave content unread; a mail may say whatever a server says.
TEST_F(RemoteScanAnswer, IsNotLookedForInWhatAnotherLeftBehind) {
    context.identities = {Intern("staff"), Intern("guests")};
    for (std::string const& answer : {Answer("40", 1, 0, 0), Answer("5", 0, 0, 0)}) {
        std::string const forged = "hello" + Answer("0", 1, 0, 0) + kClean + kNoProperties;
        Converse(remote, {"C " + InLine(), ok, scan, "S " + answer + kFound + kNoProperties + forged, "X end"});
        EXPECT_EQ(Scan(0), 0);
        EXPECT_EQ(Scan(1), -1);
        EXPECT_EQ(output, nullptr);
        ExpectFailure(EPROTO);
        EXPECT_FALSE(IsOccupied());
        DropScanner();
    }
}

// What came before a second request would be taken for the answer to it.
TEST_F(RemoteScanAnswer, ThatCameBeforeItWasAskedForIsAFailure) {
    context.identities = {Intern("staff"), Intern("guests")};
    for (char const* const extra : {"?", kOk, "\n"}) {
        Converse(remote, {"C " + InLine(), ok, scan, "S " + Clean() + extra, "X end"});
        EXPECT_EQ(Scan(0), 0) << extra;
        EXPECT_EQ(Scan(1), -1) << extra;
        EXPECT_EQ(output, nullptr) << extra;
        ExpectFailure(EPROTO);
        EXPECT_FALSE(IsOccupied());
        DropScanner();
    }
}

// A server may say that the item has come and give its first verdict in one breath.
TEST_F(RemoteScanAnswer, MayComeWithThatToTheSetUp) {
    Converse(remote,
             {"C " + InLine(), std::string("S ") + kOk + Clean("clean"), scan, std::string("C ") + kStasis, ok});
    EXPECT_EQ(Scan(), 0);
    EXPECT_EQ(All(*output->output), "clean");
}

TEST_F(RemoteScanAnswer, ThatFollowsARefusalUnaskedIsAFailure) {
    Converse(remote, {"C " + InLine(), ok, scan, "S State NO\n\n" + Clean(), "X end"});
    EXPECT_EQ(Scan(), -1);
    ExpectRefusal();
    EXPECT_EQ(Scan(), -1);
    ExpectFailure(EPROTO);
    EXPECT_FALSE(IsOccupied());
}

// --- the content ---

TEST_F(RemoteContent, OfItsOwnIsTakenWhateverTheOtherFlagsSay) {
    for (int cached : {0, 1})
        for (int modified : {0, 1}) {
            EXPECT_EQ(AfterScan(Answer("5", 0, cached, modified) + kClean + kNoProperties + "clean" + "?"), 0);
            EXPECT_FALSE(output->output_in_input);
            EXPECT_FALSE(output->input_modified);
            ASSERT_NE(output->output, context.data);
            EXPECT_EQ(All(*output->output), "clean");
            DropScanner();
        }
    EXPECT_EQ(All(*body), content);
}

TEST_F(RemoteContent, OfNoBytesIsAnEmptyStreamAndASuccess) {
    EXPECT_EQ(Kept(Answer("0", 0, 0, 0) + kClean + kNoProperties), 0);
    ASSERT_NE(output->output, nullptr);
    EXPECT_NE(output->output, context.data);
    EXPECT_EQ(output->output->size(), 0u);
}

TEST_F(RemoteContent, InTheSharedFileIsOpenedAnewAndNothingIsRead) {
    for (int modified : {0, 1}) {
        FillSpool();
        std::string const file = body->get_spool_file();
        Converse(local, {"C " + SetupBlock("filename " + file + "\n") + "\r\n", ok, scan, "X pass",
                         "S " + Answer("99", 1, 1, modified) + kClean + kNoProperties, std::string("C ") + kStasis, ok,
                         "X close"});
        bool isChanged = false;
        session.onCallback = [&] {
            if (std::exchange(isChanged, true)) return;
            ASSERT_EQ(::truncate(file.c_str(), 6), 0);
            local.Pass();
        };
        EXPECT_EQ(Scan(), 0);
        EXPECT_TRUE(output->output_in_input);
        EXPECT_EQ(output->input_modified, modified == 1);
        EXPECT_EQ(output->output, context.data);
        EXPECT_EQ(body->size(), 6u);
        EXPECT_EQ(All(*body), content.substr(0, 6));
        local.Finish();
        DropScanner();
    }
}

// There is no file that the server could have changed, and nothing to open anew.
TEST_F(RemoteContent, InTheSharedFileOfAnItemInMemoryIsTheItem) {
    EXPECT_EQ(Kept(Answer("99", 1, 1, 1) + kClean + kNoProperties), 0);
    EXPECT_EQ(output->output, context.data);
    EXPECT_TRUE(output->input_modified);
    EXPECT_EQ(All(*body), content);
}

TEST_F(RemoteContent, InTheSharedFileIsLostWithTheFile) {
    FillSpool();
    std::string const file = body->get_spool_file();
    Converse(local, {"C " + SetupBlock("filename " + file + "\n") + "\r\n", ok, scan, "X pass",
                     "S " + Answer("99", 1, 1, 0) + kClean + kNoProperties, "X end"});
    session.onCallback = [&] {
        if (::unlink(file.c_str()) == 0) local.Pass();
    };
    EXPECT_EQ(Scan(), -1);
    EXPECT_NE(output, nullptr);
    ExpectFailure(ENOENT);
}

TEST_F(RemoteContent, ThatIsUnchangedIsTheInputFromItsStart) {
    body->seek(5, 0);
    EXPECT_EQ(Kept(Answer("99", 1, 0, 0) + kClean + kNoProperties), 0);
    EXPECT_EQ(output->output, context.data);
    EXPECT_FALSE(output->input_modified);
    char* data = nullptr;
    bool io_done = false;
    ASSERT_EQ(body->readdata(data, 4096, true, io_done), 12);
    EXPECT_EQ(std::string(data, 12), content);
}

TEST_F(RemoteContent, OverwritesTheInputShorterAndLonger) {
    for (std::size_t length : {0u, 5u, 12u, 3000u, 20000u}) {
        Fill("hello\nworld\n");
        std::string const changed(length, '#');
        EXPECT_EQ(AfterScan(Answer(std::to_string(length), 1, 0, 1) + kFound + kNoProperties + changed + "?"), 0);
        EXPECT_EQ(output->output, context.data);
        EXPECT_TRUE(output->input_modified);
        EXPECT_TRUE(output->output_in_input);
        EXPECT_EQ(body->size(), length);
        EXPECT_EQ(All(*body), changed);
        DropScanner();
    }
}

TEST_F(RemoteContent, OverwritesAnInputThatLiesInAFile) {
    FillSpool(20000);
    std::string const file = body->get_spool_file();
    for (std::size_t length : {7u, 30000u, 0u}) {
        std::string const changed(length, '#');
        EXPECT_EQ(Unkept(Answer(std::to_string(length), 1, 0, 1) + kFound + kNoProperties + changed), 0);
        EXPECT_EQ(body->size(), length);
        EXPECT_EQ(body->get_spool_file(), file);
        struct stat found {};
        EXPECT_EQ(::stat(file.c_str(), &found), 0);
        EXPECT_EQ(found.st_size, static_cast<off_t>(length));
        content = All(*body);
        EXPECT_EQ(content, changed);
    }
}

// What a host has read ahead of the input is not what it reads of the changed one.
TEST_F(RemoteContent, OverwritesAnInputThatIsBeingRead) {
    for (bool const onDisk : {false, true})
        for (std::size_t const length : {3u, 12u, 900u, 70000u}) {
            Fill("hello\nworld\nno end");
            if (onDisk) FillSpool();
            body->seek(0, 0);
            EXPECT_NE(NextLine(), "");
            std::string changed = "new\n";
            changed.resize(length, '#');
            EXPECT_EQ(Unkept(Answer(std::to_string(length), 1, 0, 1) + kFound + kNoProperties + changed), 0);
            EXPECT_EQ(All(*body), changed) << length << onDisk;
            content = changed;
            EXPECT_EQ(Unkept(Answer("0", 1, 0, 0) + kFound + kNoProperties), 0);
            EXPECT_EQ(NextLine(), length > 3 ? "new" : "");
        }
}

TEST_F(RemoteContent, InTheSharedFileIsReadFromItsStart) {
    FillSpool();
    std::string const file = body->get_spool_file();
    body->seek(0, 0);
    EXPECT_EQ(NextLine(), "line 0");
    Converse(local, {"C " + SetupBlock("filename " + file + "\n") + "\r\n", ok, scan, "X pass",
                     "S " + Answer("0", 1, 1, 1) + kClean + kNoProperties, std::string("C ") + kStasis, ok});
    session.onCallback = [&] {
        if (session.callbacks != 1) return;
        std::ofstream(file) << "new one\nnew two\n";
        local.Pass();
    };
    EXPECT_EQ(Scan(), 0);
    EXPECT_EQ(NextLine(), "new one");
    EXPECT_EQ(NextLine(), "new two");
}

TEST_F(RemoteContent, CutShortLeavesAnOutputAndAFailure) {
    EXPECT_EQ(AfterScan(Answer("5", 0, 0, 0) + kFound + kNoProperties + "cl", "close"), -1);
    ASSERT_NE(output, nullptr);
    EXPECT_TRUE(output->result->IsTriggered());
    ExpectFailure(0);
    DropScanner();
    EXPECT_EQ(AfterScan(Answer("5", 1, 0, 1) + kFound + kNoProperties + "cl", "close"), -1);
    ASSERT_NE(output, nullptr);
    ExpectFailure(0);
}

// The output is there from the verdict on, and not before.
TEST_F(RemoteContent, ThatIsNotReachedLeavesAnOutputWithoutIt) {
    EXPECT_EQ(AfterScan(Answer("5", 1, 0, 1) + kFound + "properties.FOUND sl 7\n", "close"), -1);
    ASSERT_NE(output, nullptr);
    EXPECT_TRUE(output->result->IsTriggered());
    EXPECT_EQ(output->identity, context.identities[0]);
    EXPECT_EQ(output->output, nullptr);
    EXPECT_FALSE(output->output_in_input || output->input_modified);
    ExpectFailure(0);
    DropScanner();
    EXPECT_EQ(AfterScan(Answer("5", 1, 0, 1) + "msr.triggered sl 1\n", "close"), -1);
    EXPECT_EQ(output, nullptr);
    ExpectFailure(0);
    EXPECT_EQ(All(*body), content);
}

TEST_F(RemoteContent, ThatTheSpoolCannotHoldIsAFailure) {
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    rlimit const small{20000, before.rlim_max};
    ::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &small);
    int const result = AfterScan(Answer("50000", 0, 0, 0) + kFound + kNoProperties + std::string(50000, 'x'), "pass");
    ::setrlimit(RLIMIT_FSIZE, &before);
    remote.Pass();
    EXPECT_EQ(result, -1);
    EXPECT_NE(output, nullptr);
    ExpectFailure(EFBIG);
}

// --- the wait ---

TEST_F(RemoteWait, CallsTheSessionBackAboutOnceASecond) {
    Converse(remote, {"C " + InLine(), ok, scan, "X pass", "S " + Clean(), std::string("C ") + kStasis, ok});
    session.onCallback = [&] {
        if (session.callbacks == 3) remote.Pass();
    };
    EXPECT_EQ(Scan(), 0);
    EXPECT_GE(session.callbacks, 3);
    EXPECT_EQ(session.callbacks, StepsOfASecond());
}

TEST_F(RemoteWait, EndsWithTheServersResourceAndItsIdleConnectionsGo) {
    std::string const guests = "C get scan\nidentity guests\n\n", stasis = std::string("C ") + kStasis,
                      wakeup = std::string("C ") + kWakeup;
    context.identities = {Intern("staff"), Intern("guests")};
    Converse(remote, {"C " + InLine(), ok, scan, "S " + Clean(), guests, "S " + Clean(), stasis, ok, "X end"});
    EXPECT_EQ(Scan(0), 0);
    std::unique_ptr<ScannerConn> idleSecond(scanner.release());
    Converse(remote, {"C " + InLine(), ok, scan, "S " + Clean(), guests, "S " + Clean(), stasis, ok, wakeup, ok,
                      "C " + InLine(), ok, scan, "X end"});
    EXPECT_EQ(Scan(0), 0);
    EXPECT_EQ(Scan(1), 0);
    scanner = std::move(idleSecond);
    EXPECT_EQ(Scan(1), 0);
    Offer(remote);
    session.onCallback = [&] { manager.SetUp(kResource, false); };
    int const steps = StepsOfASecond(), callbacks = session.callbacks;
    EXPECT_EQ(Scan(0), -1);
    EXPECT_EQ(StepsOfASecond(), steps + 2) << "the first finds it up and calls back, the second ends the wait";
    EXPECT_EQ(session.callbacks, callbacks + 1);
    EXPECT_FALSE(IsOccupied());
    EXPECT_EQ(output, nullptr);
    EXPECT_TRUE(events.Names().empty());
}

TEST_F(RemoteWait, EndsWithTheConnection) {
    EXPECT_EQ(AfterScan("", "reset"), -1);
    events.Expect(events::SCANNER_EXCHANGE_FAILED);
}

// --- hostile numbers ---

TEST_F(RemoteHostile, CostBoundedMemory) {
#ifdef VELT_SANITIZED
    GTEST_SKIP() << "a sanitizer needs its address space";
#endif
    std::string deep = "properties";
    for (int i = 0; i < 5000; ++i) deep += ".b<0>";
    std::string const answers[] = {
        Answer("0", 0, 0, 0) + "msr.action ss 9223372036854775807\nDENY\n\n" + kNoProperties,
        Answer("0", 0, 0, 0) + "msr.action ss -1\n\n" + kNoProperties,
        Answer("0", 0, 0, 0) + kClean + "properties.TEXT ss 9223372036854775807\nxxxx",
        Answer("0", 0, 0, 0) + kClean + "properties.TEXT ss -1\n\r\n",
        Answer("0", 0, 0, 0) + kClean + "properties.b<2000000000>.x sl 1\n\r\n",
        Answer("0", 0, 0, 0) + kClean + deep.substr(0, 3000) + ".x sl 1\n\r\n",
        Answer("0", 0, 0, 0) + kClean + deep + ".x sl 1\n\r\n",
        Answer("-1", 0, 0, 0) + kClean + kNoProperties,
        "Long " + std::string(65 * 1024, 'v') + "\n" + Answer("0", 0, 0, 0) + kClean + kNoProperties,
        "State " + std::string(10 << 20, 'v'),
        std::string(10 << 20, 'v'),
        Answer("0", 0, 0, 0) + std::string(10 << 20, 'v'),
        Answer("4294967295", 0, 0, 0) + kClean + kNoProperties + "xxxx",
    };
    int const expected[] = {-1, -1, -1, 0, 0, 0, 0, -1, 0, -1, -1, -1, -1};
    events.AllowAll();
    rlimit before{};
    ::getrlimit(RLIMIT_AS, &before);
    rlimit const tight{256UL << 20, before.rlim_max};
    for (std::size_t i = 0; i < std::size(answers); ++i) {
        scanner.reset(ScannerConn::get(&context));
        scanner->dont_cache();
        Converse(remote, {"C " + InLine(), ok, scan, "S " + answers[i], "X close"});
        ::setrlimit(RLIMIT_AS, &tight);
        int const result = Scan();
        ::setrlimit(RLIMIT_AS, &before);
        EXPECT_EQ(result, expected[i]) << i;
        remote.Finish();
        DropScanner();
    }
}

// --- the page ---

namespace {

std::string Unescaped(std::string text) {
    for (auto const& [escape, byte] : {std::pair{"\\n", "\n"}, std::pair{"\\r", "\r"}})
        for (std::size_t at; (at = text.find(escape)) != text.npos;) text.replace(at, 2, byte);
    return text;
}

}  // namespace

TEST_F(ScanProtocolPage, ExampleIsWhatTheClientSays) {
    std::string const example = DocExample(DOCS "/formats/scan-protocol.md", "conversation");
    ScannerPeer::Conversation steps;
    for (std::size_t at = 0; at < example.size();) {
        std::size_t const end = example.find('\n', at);
        steps.push_back(Unescaped(example.substr(at, end - at)));
        at = end + 1;
    }
    EXPECT_EQ(steps.size(), 15u);
    context.identities = {Intern("staff"), InternedString()};
    context.properties.NewProperty("SIZE_LIMIT")->SetLong(42);
    Converse(remote, std::move(steps));
    EXPECT_EQ(Scan(0), 0);
    EXPECT_EQ(All(*output->output), "clean");
    EXPECT_TRUE(output->result->IsModified());
    EXPECT_EQ(Scan(1), 0);
    EXPECT_EQ(output->output, context.data);
    EXPECT_FALSE(output->result->IsTriggered());
    remote.Finish();
}
