#include "velt/scanning/StreamRequest.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <deque>
#include <map>
#include <string>

#include "testing/ScriptedStream.h"

using namespace VELT;
using velt_testing::EndsWith;
using velt_testing::ScriptedStream;

namespace {

using Headers = std::map<std::string, std::string>;

constexpr unsigned kBuffer = 64;

struct Block {
    int result;
    Headers headers;
};

Block Read(std::deque<std::string> pieces, EndsWith end = EndsWith::silence, unsigned buffer = kBuffer) {
    ScriptedStream stream(std::move(pieces), end, buffer);
    StreamRequest request;
    request["of an earlier block"] = "gone";
    int const result = request.read_headers(&stream);
    return {result, request};
}

}  // namespace

TEST(HeaderBlock, IsAMapOfNamesAndValuesUpToTheEmptyLine) {
    ScriptedStream stream({"State OK\nsize 12\n\nmsr.triggered sl 0\n"}, EndsWith::silence);
    StreamRequest request;
    EXPECT_EQ(request.read_headers(&stream), 0);
    EXPECT_EQ(request, (Headers{{"State", "OK"}, {"size", "12"}}));
    EXPECT_EQ(stream.GetLine().text, "msr.triggered sl 0");
}

TEST(HeaderBlock, WhoseFirstLineIsEmptyHasNoHeaderAndIsAnError) {
    EXPECT_EQ(Read({"\n"}).result, -3);
    EXPECT_EQ(Read({"\r\n"}).result, -3);
    EXPECT_TRUE(Read({"\nState OK\n\n"}).headers.empty());
}

TEST(HeaderBlock, DividesALineAtItsFirstSpaceOnly) {
    Block const block = Read({"State NO such thing \nempty \n  two\n\n"});
    EXPECT_EQ(block.result, 0);
    EXPECT_EQ(block.headers, (Headers{{"State", "NO such thing "}, {"empty", ""}, {"", " two"}}));
}

TEST(HeaderBlock, MayHaveItsHeadersInAnyOrderAndTheLastOfANameCounts) {
    Block const block = Read({"cached 0\nState NO\nunknown x\nstate ok\nState OK\nsize 7\n\n"});
    EXPECT_EQ(block.result, 0);
    EXPECT_EQ(block.headers,
              (Headers{{"cached", "0"}, {"State", "OK"}, {"unknown", "x"}, {"state", "ok"}, {"size", "7"}}));
}

TEST(HeaderBlock, TakesLinesThatEndInCarriageReturnAndLineFeed) {
    Block const block = Read({"State OK\r\nsize 1\r2\r\n\r\n"});
    EXPECT_EQ(block.result, 0);
    EXPECT_EQ(block.headers, (Headers{{"State", "OK"}, {"size", "1\r2"}}));
}

TEST(HeaderBlock, WithALineWithoutASpaceIsAnErrorAtOnce) {
    Block const block = Read({"State OK\ngarbage\nsize 1\n\n"});
    EXPECT_EQ(block.result, -2);
    EXPECT_EQ(block.headers, (Headers{{"State", "OK"}}));
    EXPECT_EQ(Read({"State\tOK\n\n"}).result, -2) << "no other blank divides";
    EXPECT_EQ(Read({"State:OK\n\n"}).result, -2);
}

TEST(HeaderBlock, TellsWhatEndedItBeforeItsEmptyLine) {
    ScriptedStream stream({"State OK\n"}, EndsWith::silence);
    StreamRequest request;
    EXPECT_EQ(request.read_headers(&stream), 0);
    EXPECT_EQ(request.failure(), ETIMEDOUT);
    stream.Say("State OK\n\nState OK\n");
    EXPECT_EQ(request.read_headers(&stream), 0);
    EXPECT_EQ(request.failure(), 0);
    stream.EndWith(EndsWith::reset);
    EXPECT_EQ(request.read_headers(&stream), 0);
    EXPECT_EQ(request.failure(), ECONNRESET);
}

TEST(HeaderBlock, ThatAFailedConnectionCutsIsCompleteFromItsFirstHeaderOn) {
    for (EndsWith const end : {EndsWith::reset, EndsWith::silence}) {
        EXPECT_EQ(Read({"State OK\nsize 1"}, end).result, 0);
        EXPECT_EQ(Read({"State OK\nsize 1"}, end).headers, (Headers{{"State", "OK"}}));
        EXPECT_EQ(Read({"State OK"}, end).result, -3);
        EXPECT_EQ(Read({}, end).result, -3);
    }
}

TEST(HeaderBlock, ThatThePeerClosesIsAnErrorWhateverItHeld) {
    for (char const* text : {"", "State OK", "State OK\n", "State OK\nsize 1\n"})
        EXPECT_EQ(Read({text}, EndsWith::close).result, -1) << text;
}

TEST(HeaderBlock, JoinsAValueThatIsLongerThanTheBuffer) {
    for (std::size_t length = kBuffer - 10; length <= 4 * kBuffer; ++length) {
        std::string const value(length, 'v');
        Block const block = Read({"long " + value + "\nState OK\n\n"});
        EXPECT_EQ(block.result, 0) << length;
        EXPECT_EQ(block.headers, (Headers{{"long", value}, {"State", "OK"}})) << length;
    }
}

// A line end may be what the buffer holds last, so a CR there is dropped with it.
TEST(HeaderBlock, DropsACarriageReturnAtTheEndOfAPiece) {
    std::string const first = "long " + std::string(kBuffer - 7, 'v');
    EXPECT_EQ(Read({first + "\r\n\n"}).headers, (Headers{{"long", first.substr(5)}}));
    EXPECT_EQ(Read({first + "\rmore\n\n"}).headers, (Headers{{"long", first.substr(5) + "more"}}));
    EXPECT_EQ(Read({"State OK\r\r\n\n"}).headers, (Headers{{"State", "OK\r"}})) << "elsewhere one is";
}

TEST(HeaderBlock, CountsTheLastOfANameAlsoWhereItIsJoined) {
    std::string const value(3 * kBuffer, 'v');
    EXPECT_EQ(Read({"a " + value + "\na 1\n\n"}).headers, (Headers{{"a", "1"}}));
    EXPECT_EQ(Read({"a 1\na " + value + "\n\n"}).headers, (Headers{{"a", value}}));
}

TEST(HeaderBlock, DoesNotStoreAValueThatTheConnectionCuts) {
    std::string const begun = "long " + std::string(3 * kBuffer, 'v');
    EXPECT_EQ(Read({begun}, EndsWith::reset).result, -3);
    EXPECT_EQ(Read({"State OK\n" + begun}, EndsWith::reset).headers, (Headers{{"State", "OK"}}));
    EXPECT_EQ(Read({"State OK\n" + begun}, EndsWith::close).result, -1);
}

TEST(HeaderBlock, HasNoNameThatIsLongerThanTheBuffer) {
    EXPECT_EQ(Read({std::string(kBuffer - 2, 'n') + " v\n\n"}).result, 0);
    EXPECT_EQ(Read({std::string(kBuffer, 'n') + " v\n\n"}).result, -2);
}

TEST(HeaderBlock, IsTheSameWhereverTheNetworkCutsIt) {
    std::string const wire = "State OK\r\nlong " + std::string(2 * kBuffer, 'v') + "\nsize 4\n\n";
    Headers const whole = Read({wire}).headers;
    for (std::size_t cut = 1; cut < wire.size(); ++cut) {
        Block const block = Read({wire.substr(0, cut), wire.substr(cut)});
        EXPECT_EQ(block.result, 0) << "cut at " << cut;
        EXPECT_EQ(block.headers, whole) << "cut at " << cut;
    }
}

TEST(HeaderBlock, KeepsAZeroByteInAValue) {
    EXPECT_EQ(Read({std::string("State O\0K\n\n", 11)}).headers, (Headers{{"State", std::string("O\0K", 3)}}));
}

// A peer that never ends its block, or its line, costs no more memory than this.
TEST(HeaderBlock, EndsAtItsLimitWhateverThePeerSays) {
    std::string const line = "name " + std::string(1000, 'v');
    std::string lines;
    while (lines.size() <= StreamRequest::s_mostBytes) lines += line + "\n";
    EXPECT_EQ(Read({lines}, EndsWith::silence, 4096).result, -2);
    std::string const below = "name " + std::string(StreamRequest::s_mostBytes - 6 - 64, 'v') + "\n";
    EXPECT_EQ(Read({below + "\n"}, EndsWith::silence, 65536).result, 0);
    Block const endless = Read({"name " + std::string(10 * 1024 * 1024, 'v')}, EndsWith::silence, 4096);
    EXPECT_EQ(endless.result, -2);
    EXPECT_TRUE(endless.headers.empty());
    EXPECT_EQ(Read({std::string(10 * 1024 * 1024, 'v')}, EndsWith::silence, 4096).result, -2);
}

TEST(HeaderBlock, NeedsABuffer) {
    ScriptedStream stream({"State OK\n\n"});
    stream.RefuseBuffer();
    StreamRequest request;
    EXPECT_EQ(request.read_headers(&stream), -3);
}
