#include <gtest/gtest.h>
#include <velt/streams/BufferPool.h>
#include <velt/streams/TCPStream.h>

#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "testing/Sockets.h"
#include "testing/TelnetModel.h"

using namespace VELT;
using namespace velt_testing;

namespace {

using Texts = std::vector<std::string>;

std::string const kIac = "\377", kIp = "\364", kMark = "\362", kNop = "\361";
std::string const kWill = "\373", kWont = "\374", kDo = "\375", kDont = "\376";

class Telnet : public ::testing::Test {
protected:
    Telnet() { m_stream.set_escape_handler(&m_handler); }
    std::string Filter(std::string buffer) {
        auto length = static_cast<unsigned>(buffer.size());
        m_stream.handle_telnet(buffer.data(), length);
        return buffer.substr(0, length);
    }
    Texts Calls() { return std::exchange(m_handler.calls, {}); }

    NotingHandler m_handler;
    TCPStream m_stream;
};

// One bit for each place between two bytes: set, it is a cut.
Texts Cut(std::string const& text, unsigned cuts) {
    Texts pieces(1);
    for (std::size_t i = 0; i < text.size(); ++i, cuts >>= 1) {
        pieces.back() += text[i];
        if (cuts & 1 && i + 1 < text.size()) pieces.emplace_back();
    }
    return pieces;
}

void ExpectAsTheModel(Texts const& pieces) {
    TelnetModel model;
    NotingHandler handler;
    TCPStream stream;
    stream.set_escape_handler(&handler);
    for (std::string buffer : pieces) {
        std::string const expected = model.Filter(buffer);
        auto length = static_cast<unsigned>(buffer.size());
        stream.handle_telnet(buffer.data(), length);
        ASSERT_EQ(buffer.substr(0, length), expected) << ::testing::PrintToString(pieces);
    }
    ASSERT_EQ(handler.calls, model.calls()) << ::testing::PrintToString(pieces);
}

}  // namespace

TEST_F(Telnet, PlainDataStays) {
    EXPECT_EQ(Filter("USER anna\r\n"), "USER anna\r\n");
    EXPECT_EQ(Filter(""), "");
    EXPECT_EQ(Filter("\200\376\0x"), "\200\376\0x");
    EXPECT_EQ(Calls(), Texts{});
}

TEST_F(Telnet, EachCommandHasItsOwnCallAndIsTakenOut) {
    for (auto const& [sequence, call] : {std::pair{kIac + kWill + '\1', "will 1"},
                                         {kIac + kWont + '\3', "wont 3"},
                                         {kIac + kDo + '\377', "do 255"},
                                         {kIac + kDont + '\200', "dont 128"},
                                         {kIac + kMark, "mark"},
                                         {kIac + kNop, "command 241"},
                                         {kIac + '\0', "command 0"},
                                         {kIac + '\360', "command 240"},
                                         {kIac + '\363', "command 243"},
                                         {kIac + '\365', "command 245"},
                                         {kIac + '\372', "command 250"}}) {
        EXPECT_EQ(Filter("a" + sequence + "b"), "ab") << call;
        EXPECT_EQ(Calls(), Texts{call});
    }
}

TEST_F(Telnet, EscapedByteIsOneByteOfData) {
    EXPECT_EQ(Filter("a" + kIac + kIac + "b"), "a" + kIac + "b");
    EXPECT_EQ(Filter(kIac + kIac + kIac + kIac), kIac + kIac);
    EXPECT_EQ(Calls(), Texts{});
}

TEST_F(Telnet, EscapedByteThatIsCutInTwoKeepsItsSecondHalf) {
    EXPECT_EQ(Filter("a" + kIac), "a");
    EXPECT_EQ(Filter(kIac + "b"), kIac + "b");
    EXPECT_EQ(Filter(kNop), kNop) << "the sequence has ended";
}

TEST_F(Telnet, OptionInTheNextBufferIsTakenFromIt) {
    EXPECT_EQ(Filter("a" + kIac + kWill), "a");
    EXPECT_EQ(Calls(), Texts{});
    EXPECT_EQ(Filter("\1b"), "b");
    EXPECT_EQ(Calls(), Texts{"will 1"});
}

TEST_F(Telnet, BufferOfACommandAloneComesOutEmpty) {
    EXPECT_EQ(Filter(kIac + kNop), "");
    EXPECT_EQ(Calls(), Texts{"command 241"});
}

// The mark takes as many bytes as the parser's state says, and that is one less than the sequence has.
TEST_F(Telnet, InterruptThatAMarkEndsAtOnceLeavesItsIac) {
    EXPECT_EQ(Filter("a" + kIac + kIp + kMark + "b"), "a" + kIac + "b");
    EXPECT_EQ(Calls(), (Texts{"interrupt", "mark"}));
}

TEST_F(Telnet, InterruptCutBeforeItsMarkLeavesNothing) {
    EXPECT_EQ(Filter("a" + kIac + kIp), "a");
    EXPECT_EQ(Filter(kMark + "b"), "b");
    EXPECT_EQ(Calls(), (Texts{"interrupt", "mark"}));
}

TEST_F(Telnet, InterruptCutBehindItsIacLeavesNothing) {
    EXPECT_EQ(Filter("a" + kIac), "a");
    EXPECT_EQ(Filter(kIp + kMark + "b"), "b");
    EXPECT_EQ(Calls(), (Texts{"interrupt", "mark"}));
}

// What comes between an interrupt and its mark stays; the mark takes the two bytes before it along, whatever they are.
TEST_F(Telnet, MarkThatComesLaterTakesThreeBytes) {
    EXPECT_EQ(Filter("a" + kIac + kIp + "x" + kMark + "b"), "a" + kIac + "b");
    EXPECT_EQ(Filter("a" + kIac + kIp + "wxyz" + kMark + "b"), "a" + kIac + kIp + "wxb");
    EXPECT_EQ(Filter("a" + kIac + kIp + kIac + kMark + "b"), "a" + kIac + "b");
    EXPECT_EQ(Calls(), (Texts{"interrupt", "mark", "interrupt", "mark", "interrupt", "mark"}));
}

// The state is a count of bytes too, and the count of a wait for the mark is three, though they may be data.
TEST_F(Telnet, BufferThatEndsBeforeTheMarkLosesAsManyBytesAsTheStateSays) {
    EXPECT_EQ(Filter("a" + kIac + kIp + "wxyz"), "a" + kIac + kIp + "w");
    EXPECT_EQ(Filter("12345"), "12");
    EXPECT_EQ(Filter("12"), "");
    EXPECT_EQ(Filter(""), "");
    EXPECT_EQ(Filter(kIac + kNop + "678"), kIac + kNop) << "no command is seen before the mark";
    EXPECT_EQ(Filter("9" + kMark + "b"), "b");
    EXPECT_EQ(Calls(), (Texts{"interrupt", "mark"}));
}

TEST_F(Telnet, HandlerThatIsSetAnewStartsAnew) {
    EXPECT_EQ(Filter("a" + kIac + kWill), "a");
    m_stream.set_escape_handler(&m_handler);
    EXPECT_EQ(Filter("\1b"), "\1b");
    EXPECT_EQ(Calls(), Texts{});
}

TEST_F(Telnet, WithoutAHandlerAllStays) {
    m_stream.set_escape_handler(nullptr);
    EXPECT_EQ(Filter("a" + kIac + kNop + "b"), "a" + kIac + kNop + "b");
}

TEST_F(Telnet, SequencesStandBesideEachOther) {
    EXPECT_EQ(Filter(kIac + kDo + kIac + kIac + kNop + kIac + kIac + kIac + kMark + "x" + kIac + kDont + kMark),
              kIac + "x");
    EXPECT_EQ(Calls(), (Texts{"do 255", "command 241", "mark", "dont 242"}));
}

// Every text of up to five of these, and every way to cut it.
TEST(TelnetSweep, DoesAsTheModelForEveryTextAndEveryCut) {
    std::string const alphabet = "x" + kIac + kMark + kIp + kWill + kNop;
    std::size_t texts = 1;
    for (unsigned length = 1; length <= 5; ++length) {
        texts *= alphabet.size();
        for (std::size_t number = 0; number < texts; ++number) {
            std::string text;
            for (std::size_t rest = number; text.size() < length; rest /= alphabet.size())
                text += alphabet[rest % alphabet.size()];
            for (unsigned cuts = 0; cuts < 1u << (length - 1); ++cuts)
                ASSERT_NO_FATAL_FAILURE(ExpectAsTheModel(Cut(text, cuts)));
        }
    }
}

TEST(TelnetSweep, CutsMakeNoDifferenceWithoutAnInterrupt) {
    std::string const text = "ab" + kIac + kIac + "c" + kIac + kDo + "\1" + kIac + kNop + kIac + kMark + "\r\n";
    for (unsigned cuts = 0; cuts < 1u << (text.size() - 1); ++cuts) {
        NotingHandler handler;
        TCPStream stream;
        stream.set_escape_handler(&handler);
        std::string got;
        for (std::string buffer : Cut(text, cuts)) {
            auto length = static_cast<unsigned>(buffer.size());
            stream.handle_telnet(buffer.data(), length);
            got.append(buffer, 0, length);
        }
        ASSERT_EQ(got, "ab" + kIac + "c\r\n") << cuts;
        ASSERT_EQ(handler.calls, (Texts{"do 1", "command 241", "mark"})) << cuts;
    }
}

// A buffer of nothing but commands costs a walk over it, and not one for each of them.
TEST(TelnetSweep, ManyCommandsInOneBufferCostOneWalk) {
    std::string buffer;
    for (int i = 0; i < 1 << 22; ++i) buffer += kIac + kNop;
    struct : TelnetEscapeHandler {
        void on_will(int) override {}
        void on_wont(int) override {}
        void on_do(int) override {}
        void on_dont(int) override {}
        void on_interrupt() override {}
        void on_data_mark() override {}
        void on_command(int) override { ++count; }
        int count = 0;
    } handler;
    TCPStream stream;
    stream.set_escape_handler(&handler);
    auto length = static_cast<unsigned>(buffer.size());
    stream.handle_telnet(buffer.data(), length);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(handler.count, 1 << 22);
}

// --- in a stream ---

namespace {

class TelnetInput : public Telnet {
protected:
    TelnetInput() {
        auto [end, peer] = SocketPair();
        m_stream.SetSocket(end.release());
        m_stream.set_timeout(10000);
        m_peer = std::move(peer);
        TCPStream::set_pool(&m_pool);
    }
    ~TelnetInput() override {
        m_stream.reset_buffered_stream();
        TCPStream::set_pool(nullptr);
    }
    void PeerSays(std::string const& text) {
        ASSERT_EQ(::send(m_peer.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }
    BufferPool m_pool{4096, 0};
    Fd m_peer;
};

}  // namespace

TEST_F(TelnetInput, ReceiveIsFilteredAndTheStateSurvivesIt) {
    char room[32];
    unsigned count = 99;
    PeerSays("a" + kIac + kDo);
    EXPECT_EQ(m_stream.read(room, sizeof room, &count), 0);
    EXPECT_EQ(std::string(room, count), "a");
    PeerSays("\6b");
    EXPECT_EQ(m_stream.RecvDataFlagged(room, sizeof room, 0, &count), 0);
    EXPECT_EQ(std::string(room, count), "b");
    EXPECT_EQ(Calls(), Texts{"do 6"});
}

TEST_F(TelnetInput, ReceiveOfACommandAloneLooksLikeTheEnd) {
    char room[32];
    unsigned count = 99;
    PeerSays(kIac + kNop);
    EXPECT_EQ(m_stream.read(room, sizeof room, &count), 0);
    EXPECT_EQ(count, 0u);
    PeerSays(kIac + kNop);
    EXPECT_EQ(m_stream.read(room, 1), -1);
    PeerSays(kIac + kNop);
    char* line = nullptr;
    bool io_done = false;
    LINE_STATE_T state;
    EXPECT_EQ(m_stream.getline(line, true, io_done, state, true), 0);
    EXPECT_EQ(state, LINE_CLOSED);
}

TEST_F(TelnetInput, LinesComeWithoutTheCommandsInThem) {
    PeerSays("AB" + kIac + kNop + "OR\r\n");
    char* line = nullptr;
    bool io_done = false;
    LINE_STATE_T state;
    EXPECT_EQ(m_stream.getline(line, true, io_done, state, true), 4);
    EXPECT_STREQ(line, "ABOR");
    EXPECT_EQ(Calls(), Texts{"command 241"});
}

TEST_F(TelnetInput, OutputIsNotTouched) {
    EXPECT_EQ(m_stream.write((kIac + kNop).data(), 2), 0);
    EXPECT_EQ(ReadAvailable(m_peer.get()), kIac + kNop);
}

TEST_F(TelnetInput, HandlerMayAnswerOnTheStreamAndTakeItselfOff) {
    struct Refusing : TelnetEscapeHandler {
        explicit Refusing(TCPStream& to) : stream(to) {}
        void on_will(int) override {}
        void on_wont(int) override {}
        void on_do(int option) override {
            char const answer[] = {'\377', '\374', static_cast<char>(option)};
            EXPECT_EQ(stream.write(answer, sizeof answer), 0);
            stream.set_escape_handler(nullptr);
        }
        void on_dont(int) override {}
        void on_interrupt() override {}
        void on_data_mark() override {}
        void on_command(int) override {}
        TCPStream& stream;
    } handler(m_stream);
    m_stream.set_escape_handler(&handler);
    char room[32];
    unsigned count = 99;
    PeerSays("a" + kIac + kDo + "\1b" + kIac + kNop);
    EXPECT_EQ(m_stream.read(room, sizeof room, &count), 0);
    EXPECT_EQ(std::string(room, count), "ab" + kIac + kNop);
    EXPECT_EQ(ReadAvailable(m_peer.get()), kIac + kWont + "\1");
}

TEST_F(TelnetInput, StreamWithAHandlerIsNotPlain) {
    EXPECT_FALSE(m_stream.is_plain());
    m_stream.set_escape_handler(nullptr);
    EXPECT_TRUE(m_stream.is_plain());
}

// A host lays its own table of operations over this one.
TEST(TelnetHandler, HasItsSevenOperationsInTheirOrder) {
    using Option = void (TelnetEscapeHandler::*)(int);
    using Sign = void (TelnetEscapeHandler::*)();
    // A pointer to a virtual operation holds its place in the table: one more than the offset.
    auto const place = [](auto operation) {
        std::size_t words[2];
        static_assert(sizeof operation == sizeof words);
        std::memcpy(words, &operation, sizeof words);
        return (words[0] - 1) / sizeof(void*);
    };
    std::size_t next = 0;
    for (Option const operation : {&TelnetEscapeHandler::on_will, &TelnetEscapeHandler::on_wont,
                                   &TelnetEscapeHandler::on_do, &TelnetEscapeHandler::on_dont})
        EXPECT_EQ(place(operation), next++);
    for (Sign const operation : {&TelnetEscapeHandler::on_interrupt, &TelnetEscapeHandler::on_data_mark})
        EXPECT_EQ(place(operation), next++);
    EXPECT_EQ(place(Option(&TelnetEscapeHandler::on_command)), next);
}
