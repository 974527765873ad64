// Saving a mail with some of its headers replaced.
#include <velt/streams/FileStream.h>
#include <velt/streams/ScannerStream.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <testing/SpoolRoom.h>

using namespace VELT;
using namespace velt_testing;

namespace {

using Replacements = ScannerStream::Replacements;

constexpr unsigned kLargeBuffer = 1024;
constexpr unsigned kSmallBuffer = 64;

// Saved from memory or, with the small buffer, from disk, unless the mail is short.
class HeaderRewriting : public testing::Test {
protected:
    SpoolRoom room{kLargeBuffer};

    std::string Rewritten(std::string_view mail, Replacements const& replacements, unsigned buffer) {
        room.Use(buffer);
        ScannerStream stream("mail", true);
        Put(stream, mail);
        EXPECT_EQ(stream.spool_to_disk((room / "saved").c_str(), replacements), 0);
        EXPECT_EQ(ReadRest(stream), mail) << "the cursor is at the start, and the object as it was";
        return room.Read("saved");
    }
    void Expect(std::string_view mail, Replacements const& replacements, std::string_view expected) {
        EXPECT_EQ(Rewritten(mail, replacements, kLargeBuffer), expected);
        EXPECT_EQ(Rewritten(mail, replacements, kSmallBuffer), expected);
    }
};

TEST_F(HeaderRewriting, ReplacesAHeaderAndTurnsItsLineEndsIntoLineFeeds) {
    Expect("From: a@b\r\nSubject: old\r\nTo: c@d\r\n\r\nbody\r\nend\r\n", {{"Subject:", "new"}},
           "From: a@b\nSubject: new\nTo: c@d\n\nbody\r\nend\r\n");
}

TEST_F(HeaderRewriting, CopiesTheBodyByteForByte) {
    std::string body = "Subject: not a header\r\n\r\n\r\rlone\nends\r\n";
    for (int c = 0; c < 256; ++c) body += static_cast<char>(c);
    Expect("A: b\n\n" + body, {{"Subject:", "new"}}, "A: b\n\n" + body);
}

TEST_F(HeaderRewriting, MatchesAPrefixInAnyCaseAndTakesTheFirstPairThatFits) {
    Expect("SUBJECT: old\nX-Mark-Two: b\n\n", {{"subj", "1"}, {"Subject:", "2"}, {"x-mark", "3"}},
           "subj 1\nx-mark 3\n\n");
}

TEST_F(HeaderRewriting, WritesAReplacedHeaderThatWasFoldedAsOneLine) {
    Expect("Subject: one\r\n two\r\n\tthree\r\nTo: x\r\n folded\r\n\r\n", {{"Subject:", "new"}},
           "Subject: new\nTo: x\n folded\n\n");
}

TEST_F(HeaderRewriting, EndsAMailWithoutBlankLineWithOne) {
    Expect("A: b\r\nC: d\r\n", {{"C:", "e"}}, "A: b\nC: e\n\n");
    Expect("", {{"C:", "e"}}, "\n");
}

TEST_F(HeaderRewriting, TakesALastHeaderWithoutLineEndForBody) { Expect("A: b\nC: d", {{"C:", "e"}}, "A: b\n\nC: d"); }

TEST_F(HeaderRewriting, ReplacesNothingWithoutPairs) { Expect("A: b\r\n\r\nbody", {}, "A: b\n\nbody"); }

// The pieces of a line that is longer than the buffer join again, and it is never replaced. Every length around the
// buffer's is tried, and those where the last byte of a piece is the '\r' of the line end.
TEST_F(HeaderRewriting, JoinsThePiecesOfALongLine) {
    room.Use(kSmallBuffer);
    for (unsigned length = 2; length < 4 * kSmallBuffer; ++length) {
        for (char const* end : {"\r\n", "\n"}) {
            std::string const line = "X-Long: " + std::string(length, 'x');
            std::string const rest = "Subject: old\r\n folded\r\n\r\n" + std::string(100, 'b');
            bool const replaced = line.size() + std::string_view(end).size() < kSmallBuffer;
            EXPECT_EQ(Rewritten(line + end + rest, {{"X-Long:", "short"}, {"Subject:", "new"}}, kSmallBuffer),
                      (replaced ? "X-Long: short" : line) + "\nSubject: new\n\n" + std::string(100, 'b'))
                << length;
        }
    }
}

TEST_F(HeaderRewriting, KeepsAReturnThatStandsBetweenTwoPieces) {
    std::string const first = std::string(kSmallBuffer - 2, 'x') + '\r';  // fills the buffer
    std::string const mail = first + "more\nB: c\n\n" + std::string(80, 'y');
    EXPECT_EQ(Rewritten(mail, {}, kSmallBuffer), mail);
    std::string const twice = first + std::string(kSmallBuffer - 3, 'z') + "\r" + "end\n\n" + std::string(80, 'y');
    EXPECT_EQ(Rewritten(twice, {}, kSmallBuffer), twice);
}

TEST_F(HeaderRewriting, EndsALongLineThatTheMailEndsIn) {
    std::string const line = std::string(150, 'x');
    EXPECT_EQ(Rewritten(line, {}, kSmallBuffer), line + "\n\n");
}

TEST_F(HeaderRewriting, ForgetsTheReplacementOverALongLine) {
    std::string const longer = " folded " + std::string(100, 'x');
    EXPECT_EQ(Rewritten("Subject: old\n" + longer + "\n again\n\n", {{"Subject:", "new"}}, kSmallBuffer),
              "Subject: new\n" + longer + "\n again\n\n");
}

TEST_F(HeaderRewriting, RemovesTheFileThatCannotBeWritten) {
    ScannerStream stream("mail", true);
    Put(stream, "A: b\nC: d\n\nbody");
    for (Replacements const& replacements : {Replacements{}, Replacements{{"A:", "x"}}}) {
        ASSERT_EQ(::symlink("/dev/full", (room / "full").c_str()), 0);
        EXPECT_EQ(stream.spool_to_disk((room / "full").c_str(), replacements), -1);
        struct stat status;
        EXPECT_NE(::lstat((room / "full").c_str(), &status), 0);
        EXPECT_EQ(ReadRest(stream), "A: b\nC: d\n\nbody") << "back at the start";
    }
    EXPECT_EQ(stream.spool_to_disk((room / "no/such/folder").c_str(), Replacements{}), -1);
}

// Without a buffer the lines cannot be had: no copy is better than an empty one.
TEST_F(HeaderRewriting, FailsForDataThatItCannotReadByLines) {
    ScannerStream none(0);
    Put(none, "A: b\n\n");
    EXPECT_EQ(none.spool_to_disk((room / "saved").c_str(), Replacements{}), -1);
    EXPECT_FALSE(room.Exists("saved"));
}

}  // namespace
