#include "Conversation.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <set>

#include "testing/ScriptedStream.h"
#include "testing/Sockets.h"
#include "testing/SpoolRoom.h"
#include "velt/results/SerializedEFabricResult.h"
#include "velt/scanning/ScannerProcessScanOutput.h"
#include "velt/streams/TCPStream.h"

namespace scannerd {
namespace {

using velt_testing::EndsWith;
using velt_testing::ScriptedStream;

constexpr char kOk[] = "State OK\n\n";
constexpr char kDenied[] = "State DENIED\n\n";
constexpr char kVerdict[] = "msr.triggered sl 0\nmsr.modified sl 0\n\n";

std::string Wide(std::string const& text) {
    std::string out;
    for (char const c : text) {
        wchar_t const wide = c;
        out.append(reinterpret_cast<char const*>(&wide), sizeof wide);
    }
    return out;
}

std::string ItemOf(std::string const& content, std::string const& extra = "", std::string const& section = "") {
    return "get setup_scan\nprotocol smtp\ntime 1767225600\nsize " + std::to_string(content.size()) +
           "\npolicy content_in\n" + extra + "\n" + section + "\r\n" + content;
}

std::string Head(std::string const& size, char inInput, char modified) {
    return "State OK\nsize " + size + "\noutput_in_input " + inInput + "\ncached 0\ninput_modified " + modified +
           "\n\n";
}

struct Asked {
    std::string policy, identity, content;
    bool fallback;
};

// Engines that do as the test says.
class ScriptedDesk : public Desk {
public:
    bool Intern(std::string const& name, InternedString& interned) override {
        if (name == noRoomFor) return false;
        interned = InternedString(m_names.insert(name).first->c_str());
        return true;
    }

    int Scan(VELT::ScanContext& context, bool fallback, VELT::ScanOutput*& output) override {
        InternedString const identity = context.identities.at(0);
        asked.push_back({context.policy.c_str(), identity ? identity.c_str() : "none",
                         velt_testing::ReadAll(*context.data), fallback});
        auto made = std::make_unique<VELT::ScannerProcessScanOutput>();
        made->setResult(VELT::SerializedEFabricResult::deserialize(nullptr));
        made->output = &made->stream();
        velt_testing::Put(made->stream(), after);
        if (engine) engine(context, *made);
        output = made.release();
        return result;
    }
    void ItemEnds() override {}
    void Note(Step step) override { steps.push_back(step); }
    void Tell(Trouble trouble, std::string const& why) override {
        troubles.push_back(trouble);
        lastWhy = why;
    }

    int result = 0;
    std::string after;  // the content after the scan
    std::string noRoomFor;
    std::function<void(VELT::ScanContext&, VELT::ScanOutput&)> engine;
    std::vector<Asked> asked;
    std::vector<Step> steps;
    std::vector<Trouble> troubles;
    std::string lastWhy;

private:
    std::set<std::string> m_names;
};

class ConversationTest : public testing::Test {
protected:
    ConversationTest() : m_room(64) {
        m_settings.spoolRoots = {m_room / "clients"};
        std::filesystem::create_directories(m_room / "clients");
    }

    // All that is answered to this input, which the client ends by closing.
    std::string Answers(std::deque<std::string> pieces, EndsWith end = EndsWith::close, unsigned buffer = 4096) {
        ScriptedStream client(std::move(pieces), end, buffer);
        Wire wire(client, nullptr);
        Conversation conversation(wire, m_desk, m_settings, m_local, nullptr);
        m_conversation = &conversation;
        conversation.Run();
        return client.written();
    }
    std::string Answers(std::string const& text) { return Answers(std::deque<std::string>{text}); }

    void ExpectRefused(std::string const& text, Trouble trouble, std::string const& why) {
        m_desk.troubles.clear();
        EXPECT_EQ(Answers(text), kDenied) << text;
        ASSERT_EQ(m_desk.troubles.size(), 1u) << text;
        EXPECT_EQ(m_desk.troubles[0], trouble) << text;
        EXPECT_EQ(m_desk.lastWhy, why) << text;
    }

    velt_testing::SpoolRoom m_room;
    SessionSettings m_settings;
    ScriptedDesk m_desk;
    bool m_local = true;
    Conversation* m_conversation = nullptr;
};

TEST_F(ConversationTest, RefusesANameThatThereIsNoRoomFor) {
    char const* const why = "more names of policies and identities than a process keeps";
    m_desk.noRoomFor = "content_in";
    ExpectRefused(ItemOf("a mail"), Trouble::RequestRefused, why);
    m_desk.noRoomFor = "staff";
    EXPECT_EQ(Answers(ItemOf("a mail") + "get scan\nidentity staff\n\n"), std::string(kOk) + kDenied);
    EXPECT_EQ(m_desk.lastWhy, why);
    EXPECT_TRUE(m_desk.asked.empty());
}

TEST_F(ConversationTest, AnswersAnItemInLine) {
    EXPECT_EQ(Answers(ItemOf("a mail") + "get scan\nidentity staff\n\n"),
              std::string(kOk) + Head("0", '0', '0') + kVerdict + "\r\n");
    ASSERT_EQ(m_desk.asked.size(), 1u);
    EXPECT_EQ(m_desk.asked[0].policy, "content_in");
    EXPECT_EQ(m_desk.asked[0].identity, "staff");
    EXPECT_EQ(m_desk.asked[0].content, "a mail");
    EXPECT_FALSE(m_desk.asked[0].fallback);
    EXPECT_TRUE(m_desk.troubles.empty());
}

TEST_F(ConversationTest, ScansOnceForEachIdentity) {
    Answers(ItemOf("a mail") + "get scan\nidentity staff\n\nget scan\n\nget scan\nidentity board\nfallbackscan 1\n\n");
    ASSERT_EQ(m_desk.asked.size(), 3u);
    EXPECT_EQ(m_desk.asked[1].identity, "none");
    EXPECT_EQ(m_desk.asked[2].identity, "board");
    EXPECT_TRUE(m_desk.asked[2].fallback);
    for (Asked const& one : m_desk.asked) EXPECT_EQ(one.content, "a mail");
}

TEST_F(ConversationTest, TakesAnItemOfAnySizeFromDisk) {
    std::string const large(100000, 'x');
    Answers(ItemOf(large) + "get scan\n\n");
    ASSERT_EQ(m_desk.asked.size(), 1u);
    EXPECT_EQ(m_desk.asked[0].content, large);
    EXPECT_TRUE(m_room.Spooled().empty()) << "nothing is left";
}

TEST_F(ConversationTest, TakesAnEmptyItem) {
    Answers(ItemOf("") + "get scan\n\n");
    ASSERT_EQ(m_desk.asked.size(), 1u);
    EXPECT_EQ(m_desk.asked[0].content, "");
}

TEST_F(ConversationTest, GivesTheEnginesTheItemsProperties) {
    std::string found;
    m_desk.engine = [&](VELT::ScanContext& context, VELT::ScanOutput&) {
        IKORProperty const* const name = context.properties.GetProperty("NAME");
        found = name && name->GetNarrow() ? name->GetNarrow() : "missing";
    };
    Answers(ItemOf("a mail", "", "scan_properties.NAME ss 3\n" + Wide("abc")) + "get scan\n\n");
    EXPECT_EQ(found, "abc");
}

// The four rows of what follows a verdict; the client's own file is never written to, so that "cached" is never set.
TEST_F(ConversationTest, SendsTheContentAfterTheScan) {
    struct {
        bool inInput, modified;
        char const* content;
    } const rows[] = {{false, false, "changed"}, {false, true, "changed"}, {true, false, ""}, {true, true, "in place"}};
    for (auto const& row : rows) {
        m_desk.after = "changed";
        m_desk.engine = [&](VELT::ScanContext& context, VELT::ScanOutput& output) {
            output.output_in_input = row.inInput;
            output.input_modified = row.modified;
            if (!row.inInput) return;
            context.data->reset();
            velt_testing::Put(*context.data, "in place");
            output.output = context.data;
        };
        std::string const content = row.content;
        EXPECT_EQ(Answers(ItemOf("a mail") + "get scan\n\n"),
                  kOk + Head(std::to_string(content.size()), row.inInput ? '1' : '0', row.modified ? '1' : '0') +
                      kVerdict + "\r\n" + content);
    }
}

// For each identity it would cross the wire once more, so that engines that can do so do not even hand it over. What is
// said to be changed, or is of another size, crosses.
TEST_F(ConversationTest, SendsNoContentThatTheClientHas) {
    struct {
        char const *verdict, *after, *content;
        bool leftOut;
        char inInput;
    } const rows[] = {{"\n", "a mail", "", false, '1'},
                      {"\n", "", "", true, '1'},
                      {"\n", "", "", false, '0'},
                      {"\n", "a mail", "a mail", true, '0'},
                      {"\n", "a mai", "a mai", false, '0'},
                      {"msr.modified sl 1\n\n", "", "", true, '0'},
                      {"msr.modified sl 1\n\n", "a MAIL", "a MAIL", false, '0'}};
    for (auto const& row : rows) {
        m_desk.after = row.after;
        m_desk.engine = [&](VELT::ScanContext& context, VELT::ScanOutput& output) {
            EXPECT_TRUE(context.properties.GetProperty("ES_CHANGED_OUTPUT_ONLY"));
            EXPECT_FALSE(context.properties.GetProperty("ES_OUTPUT_LEFT_OUT"));
            if (row.leftOut) context.properties.NewProperty("ES_OUTPUT_LEFT_OUT")->SetLong(1);
            ScriptedStream text({row.verdict});
            static_cast<VELT::ScannerProcessScanOutput&>(output).setResult(
                VELT::SerializedEFabricResult::deserialize(&text));
        };
        std::string const answer = Answers(ItemOf("a mail") + "get scan\n\nget scan\n\n");
        std::string const first = kOk + Head(std::to_string(std::strlen(row.content)), row.inInput, '0');
        EXPECT_TRUE(answer.starts_with(first)) << answer;
        EXPECT_TRUE(answer.ends_with(std::string("\n\r\n") + row.content)) << answer;
    }
}

TEST_F(ConversationTest, SendsThePropertiesAfterTheScan) {
    m_desk.engine = [](VELT::ScanContext&, VELT::ScanOutput& output) {
        output.properties.NewProperty("SEEN")->SetLong(7);
    };
    std::string const answer = Answers(ItemOf("a mail") + "get scan\n\n");
    EXPECT_NE(answer.find(std::string(kVerdict) + "properties.SEEN sl 7\n\r\n"), std::string::npos) << answer;
}

TEST_F(ConversationTest, TellsThatAScanFailedAndGoesOn) {
    m_desk.result = -1;
    EXPECT_EQ(Answers(ItemOf("a mail") + "get scan\n\nget stasis\n\n"), std::string(kOk) + "State FAILED\n\n" + kOk);
    EXPECT_EQ(m_desk.troubles, std::vector{Trouble::ScanFailed});
}

TEST_F(ConversationTest, TakesNoVerdictForAFailedScan) {
    m_desk.engine = [](VELT::ScanContext&, VELT::ScanOutput& output) { output.result = nullptr; };
    EXPECT_EQ(Answers(ItemOf("a mail") + "get scan\n\n"), std::string(kOk) + "State FAILED\n\n");
}

TEST_F(ConversationTest, ParksAndWakesUpForTheNextItem) {
    Answers(ItemOf("one") + "get scan\n\nget stasis\n\nget wakeup\n\n" + ItemOf("two") + "get scan\n\n");
    ASSERT_EQ(m_desk.asked.size(), 2u);
    EXPECT_EQ(m_desk.asked[1].content, "two");
    EXPECT_EQ(m_desk.steps, (std::vector{Step::ItemTaken, Step::ScanAsked, Step::Parked, Step::WokenUp, Step::ItemTaken,
                                         Step::ScanAsked}));
    EXPECT_TRUE(m_desk.troubles.empty());
}

TEST_F(ConversationTest, ForgetsAnItemsPropertiesWithIt) {
    std::vector<long> sizes;
    m_desk.engine = [&](VELT::ScanContext& context, VELT::ScanOutput&) { sizes.push_back(context.properties.Size()); };
    Answers(ItemOf("one", "", "scan_properties.N sl 1\n") + "get scan\n\nget stasis\n\nget wakeup\n\n" + ItemOf("two") +
            "get scan\n\n");
    EXPECT_EQ(sizes, (std::vector<long>{2, 1})) << "one is the daemon's own";
}

// Over the wire the result of an agent that looks at nothing would read as a clean one.
TEST_F(ConversationTest, GivesNoVerdictWhereNobodyLooked) {
    m_desk.engine = [](VELT::ScanContext&, VELT::ScanOutput& output) { output.output = nullptr; };
    EXPECT_EQ(Answers(ItemOf("a mail") + "get scan\n\n"), std::string(kOk) + "State FAILED\n\n");
    EXPECT_EQ(m_desk.troubles, std::vector{Trouble::ScanFailed});
    EXPECT_EQ(m_desk.lastWhy, "nobody looked at the item");
}

// --- Attributes ---

class AttributesTest : public ConversationTest {
protected:
    AttributesTest() {
        m_desk.engine = [this](VELT::ScanContext&, VELT::ScanOutput&) {
            for (int i = 0; i < 2; ++i) m_conversation->FillAttributes(&m_attributes);
        };
    }
    KORPropertyBag m_attributes;
};

TEST_F(AttributesTest, AreAskedForOnceAScan) {
    std::string const given = "conattr.SENDER ss 1\n" + Wide("a") + "\r\n";
    std::string const answer = Head("0", '0', '0') + kVerdict + "\r\n";
    EXPECT_EQ(Answers(ItemOf("a mail") + "get scan\nconnattr 1\n\n" + given + "get scan\nconnattr 1\n\n" + given),
              std::string(kOk) + "State Attributes\n\n" + answer + "State Attributes\n\n" + answer);
    EXPECT_STREQ(m_attributes.GetProperty("SENDER")->GetNarrow(), "a");
}

TEST_F(AttributesTest, AreNotAskedForWhereTheClientHasNone) {
    EXPECT_EQ(Answers(ItemOf("a mail") + "get scan\n\n"), kOk + Head("0", '0', '0') + kVerdict + "\r\n");
    EXPECT_EQ(m_attributes.Size(), 0);
}

TEST_F(AttributesTest, ThatCannotBeReadEndTheConversationWithoutAVerdict) {
    std::string const asked = std::string(kOk) + "State Attributes\n\n";
    EXPECT_EQ(Answers(ItemOf("a mail") + "get scan\nconnattr 1\n\nproperties.A sl 1\n\r\n"), asked + kDenied);
    EXPECT_EQ(Answers(ItemOf("a mail") + "get scan\nconnattr 1\n\nconattr.A sl 1\n"), asked);
    EXPECT_EQ(m_desk.troubles, (std::vector{Trouble::RequestRefused, Trouble::ClientGone}));
}

// --- Files by name ---

class NamedFileTest : public ConversationTest {
protected:
    std::string File(std::string const& content) {
        m_room.Write("clients/a.in", content);
        std::string const path = m_room / "clients/a.in";
        ::chmod(path.c_str(), 0600);
        return path;
    }
    std::string Named(std::string const& path, std::size_t size) {
        return "get setup_scan\nprotocol smtp\ntime 1\nsize " + std::to_string(size) + "\npolicy p\nfilename " + path +
               "\n\n\r\n";
    }
};

TEST_F(NamedFileTest, IsScannedWhereItLies) {
    std::string const content(1000, 'y');
    std::string const path = File(content);
    EXPECT_EQ(Answers(Named(path, 1000) + "get scan\n\nget stasis\n\n"),
              kOk + Head("0", '0', '0') + kVerdict + "\r\n" + kOk);
    ASSERT_EQ(m_desk.asked.size(), 1u);
    EXPECT_EQ(m_desk.asked[0].content, content);
    EXPECT_EQ(m_desk.steps[1], Step::FileTaken);
    EXPECT_EQ(m_room.Read("clients/a.in"), content) << "it is the client's, and stays";
}

TEST_F(NamedFileTest, OfAnotherMachineIsRefused) {
    m_local = false;
    ExpectRefused(Named(File("content"), 7) + "get scan\n\n", Trouble::FileRefused, "a file named by another machine");
    EXPECT_TRUE(m_desk.asked.empty());
}

TEST_F(NamedFileTest, IsRefusedWhereTheGateSaysSo) {
    ExpectRefused(Named("/etc/passwd", 7), Trouble::FileRefused, "below none of the spool roots");
    ExpectRefused(Named(File("content"), 8), Trouble::FileRefused, "not of the size that the client says");
}

// An engine that works on the item itself works on a copy: what it changed goes over the wire.
TEST_F(NamedFileTest, IsNotWrittenToByEnginesThatChangeTheItem) {
    m_desk.engine = [](VELT::ScanContext& context, VELT::ScanOutput& output) {
        context.data->seek(0, 0);
        velt_testing::Put(*context.data, "CHANGED");
        output.output_in_input = output.input_modified = true;
        output.output = context.data;
    };
    std::string const path = File(std::string(1000, 'y'));
    std::string const properties =
        "scan_properties.ES_CONTEXT_HTTP sl 1\nscan_properties.ES_FORCEDHOST ss 11\n" + Wide("KORHTTPScan");
    std::string setup = Named(path, 1000);
    setup.insert(setup.size() - 2, properties);
    std::string const answer = Answers(setup + "get scan\n\n");
    EXPECT_TRUE(answer.ends_with("CHANGED" + std::string(993, 'y'))) << answer;
    EXPECT_EQ(m_room.Read("clients/a.in"), std::string(1000, 'y'));
}

// --- What is refused ---

TEST_F(ConversationTest, RefusesWhatIsNoRequest) {
    ExpectRefused("\n", Trouble::RequestRefused, "not a request");
    ExpectRefused("garbage\n", Trouble::RequestRefused, "not a request");
    char const* const unknown = "a request that is unknown, or comes at the wrong time";
    for (char const* const text : {"get it\n\n", "GET setup_scan\n\n", "get scan\n\n", "get stasis\n\n",
                                   "get wakeup\n\n", "put setup_scan\n\n", "get \n\n"})
        ExpectRefused(text, Trouble::RequestRefused, unknown);
}

TEST_F(ConversationTest, RefusesARequestAtTheWrongTime) {
    EXPECT_EQ(Answers(ItemOf("one") + "get wakeup\n\n"), std::string(kOk) + kDenied);
    EXPECT_EQ(Answers(ItemOf("one") + ItemOf("two")), std::string(kOk) + kDenied);
    EXPECT_EQ(Answers(ItemOf("one") + "get stasis\n\nget scan\n\n"), std::string(kOk) + kOk + kDenied);
    EXPECT_TRUE(m_desk.asked.empty());
}

TEST_F(ConversationTest, RefusesAnItemThatIsNotDescribed) {
    struct {
        char const* header;
        char const* why;
    } const rows[] = {{"protocol smtp\n", "no protocol"},
                      {"time 1767225600\n", "no time"},
                      {"size 3\n", "no size"},
                      {"policy content_in\n", "no policy"}};
    for (auto const& row : rows) {
        std::string text = ItemOf("one");
        text.erase(text.find(row.header), std::strlen(row.header));
        ExpectRefused(text, Trouble::RequestRefused, row.why);
    }
}

TEST_F(ConversationTest, RefusesNumbersThatAreNone) {
    for (char const* const size : {"-1", "x", "3x", "0x3", " 3"}) {
        std::string text = ItemOf("one");
        ExpectRefused(text.replace(text.find("size 3"), 6, std::string("size ") + size), Trouble::RequestRefused,
                      "no size");
    }
}

TEST_F(ConversationTest, RefusesWhatIsTooLarge) {
    for (char const* const size : {"268435457", "4294967296", "9223372036854775808", "99999999999999999999999999"}) {
        std::string text = ItemOf("one");
        ExpectRefused(text.replace(text.find("size 3"), 6, std::string("size ") + size), Trouble::ItemTooLarge,
                      "larger than MaxItemSize");
    }
}

TEST_F(ConversationTest, HoldsHeadersToTheirLimits) {
    std::string many = "get setup_scan\n";
    for (int i = 0; i < 40; ++i) many += "x" + std::to_string(i) + " 1\n";
    ExpectRefused(many + "\n", Trouble::RequestRefused, "a header that is too long, or too many");
    ExpectRefused(ItemOf("one", "x " + std::string(9000, 'y') + "\n"), Trouble::RequestRefused,
                  "a header that is too long, or too many");
    ExpectRefused(ItemOf("one",
                         "identity a\x01"
                         "b\n"),
                  Trouble::RequestRefused, "a header that is too long, or too many");
}

TEST_F(ConversationTest, HearsNoEndlessLine) {
    std::deque<std::string> endless(1000, std::string(4000, 'x'));
    EXPECT_EQ(Answers(endless), kDenied);
    endless.assign(5000, "x " + std::string(4000, 'y'));
    EXPECT_EQ(Answers(endless), kDenied);
    EXPECT_EQ(m_desk.troubles, (std::vector{Trouble::RequestRefused, Trouble::RequestRefused}));
}

TEST_F(ConversationTest, HoldsASectionToItsLimit) {
    std::string line = "scan_properties.NAME sl 1\n", section;
    while (section.size() < 1100000) section += line;
    EXPECT_EQ(Answers(ItemOf("one", "", section)), kDenied);
    EXPECT_EQ(Answers(ItemOf("one", "", "scan_properties.NAME ss 9223372036854775807\n")), "") << "a cut payload";
}

TEST_F(ConversationTest, RefusesASectionOfAnotherName) {
    ExpectRefused(ItemOf("one", "", "properties.N sl 1\n"), Trouble::RequestRefused,
                  "a section of properties that cannot be read");
}

TEST_F(ConversationTest, RefusesAnItemThatItHasNoRoomFor) {
    std::filesystem::remove_all(m_room / "spool");
    ExpectRefused(ItemOf(std::string(1000, 'x')), Trouble::SpoolFailed, "no room for the item");
}

// --- Clients that leave ---

// Wherever the network cuts it: what was not whole is not scanned, and nothing is said that would pass for a verdict.
TEST_F(ConversationTest, GivesNoVerdictForWhatWasCut) {
    std::string const section = "scan_properties.NAME ss 3\n" + Wide("abc");
    std::string const setup = ItemOf("a mail", "", section);
    std::string const whole = setup + "get scan\nidentity staff\n\nget stasis\n\n";
    std::string const answer = kOk + Head("0", '0', '0') + kVerdict + "\r\n";
    std::string const answered = setup + "get scan\nidentity staff\n\n";
    for (EndsWith const end : {EndsWith::close, EndsWith::reset, EndsWith::silence}) {
        for (std::size_t cut = 1; cut < whole.size(); ++cut) {
            m_desk.troubles.clear();
            std::string const said = Answers({whole.substr(0, cut)}, end);
            EXPECT_EQ(said, cut >= answered.size() ? answer : cut >= setup.size() ? kOk : "") << cut;
            bool const quiet = cut == 0 || cut == answered.size();
            EXPECT_EQ(m_desk.troubles.size(), quiet ? 0u : 1u) << cut;
        }
    }
}

TEST_F(ConversationTest, IsTheSameWhereverTheNetworkCutsIt) {
    std::string const whole = ItemOf("a mail", "", "scan_properties.NAME ss 3\n" + Wide("abc")) +
                              "get scan\nidentity staff\n\nget stasis\n\nget wakeup\n\n";
    std::string const expected = Answers(whole);
    for (std::size_t cut = 1; cut < whole.size(); ++cut)
        EXPECT_EQ(Answers({whole.substr(0, cut), whole.substr(cut)}), expected) << cut;
}

TEST_F(ConversationTest, AnswersNobodyWhoLeftDuringAScan) {
    auto ends = velt_testing::SocketPair();
    static VELT::BufferPool& pool = *new VELT::BufferPool(4096, 1);
    VELT::TCPStream::set_pool(&pool);
    VELT::TCPStream client(ends.first.release());
    std::string const text = ItemOf("a mail") + "get scan\n\n";
    ASSERT_EQ(::send(ends.second.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    m_desk.engine = [&](VELT::ScanContext&, VELT::ScanOutput&) { ends.second.Close(); };
    Wire wire(client, nullptr);
    Conversation(wire, m_desk, m_settings, true, nullptr).Run();
    EXPECT_EQ(m_desk.asked.size(), 1u);
    EXPECT_EQ(m_desk.troubles, std::vector{Trouble::ClientGone});
    EXPECT_EQ(m_desk.lastWhy, "during a scan");
}

TEST_F(ConversationTest, ParksNobodyWhileTheProcessStops) {
    std::atomic<bool> stopping{true};
    ScriptedStream client({ItemOf("a mail") + "get scan\n\nget stasis\n\n"});
    Wire wire(client, &stopping);
    Conversation conversation(wire, m_desk, m_settings, true, nullptr);
    conversation.Run();
    EXPECT_EQ(client.written(), kOk + Head("0", '0', '0') + kVerdict + "\r\n") << "its item is scanned";
    EXPECT_TRUE(m_desk.troubles.empty());
}

}  // namespace
}  // namespace scannerd
