#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <velt/errors/Failures.h>
#include <velt/logging/Events.h>
#include <velt/streams/TCPStream.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "testing/DocExample.h"
#include "testing/Sockets.h"
#include "testing/TelnetModel.h"
#include "testing/TempRoot.h"

using namespace VELT;
using namespace velt_testing;

namespace {

struct Record {
    std::int32_t type;
    std::int32_t length;
    std::string data;

    Record(std::int32_t type_, std::string data_)
        : type(type_), length(static_cast<std::int32_t>(data_.size())), data(std::move(data_)) {}
    Record(std::int32_t type_, std::int32_t length_) : type(type_), length(length_) {}
    bool operator==(Record const&) const = default;
    friend void PrintTo(Record const& record, std::ostream* out) {
        *out << record.type << ':' << record.length << ':' << ::testing::PrintToString(record.data);
    }
};
using Records = std::vector<Record>;

std::string Header(std::int32_t type, std::int32_t length) {
    std::string bytes(8, 0);
    std::memcpy(bytes.data(), &type, 4);
    std::memcpy(bytes.data() + 4, &length, 4);
    return bytes;
}

Records Parsed(std::string const& file) {
    Records records;
    std::size_t at = 0;
    while (at + 8 <= file.size()) {
        std::int32_t numbers[2];
        std::memcpy(numbers, file.data() + at, 8);
        records.emplace_back(numbers[0], numbers[1]);
        at += 8;
        if (numbers[1] <= 0) continue;
        records.back().data = file.substr(at, static_cast<std::size_t>(numbers[1]));
        at += records.back().data.size();
    }
    EXPECT_EQ(at, file.size()) << "a record is cut";
    return records;
}

class CaptureTest : public ::testing::Test {
protected:
    CaptureTest() {
        auto [end, peer] = SocketPair();
        m_stream->SetSocket(end.release());
        m_stream->set_timeout(10000);
        m_peer = std::move(peer);
    }
    ~CaptureTest() override { TCPStream::set_debug_dir(""); }

    void Capture() {
        TCPStream::set_debug_dir(m_directory);
        m_stream->debug("smtp", "client");
    }
    std::string File() const { return m_root.Read("/captures/smtp-client.qxd"); }
    Records Captured() const { return Parsed(File()); }
    void PeerSays(std::string const& text) {
        ASSERT_EQ(::send(m_peer.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }
    std::string Received(unsigned room = 64, int flags = 0) {
        std::string text(room, 0);
        unsigned count = 0;
        m_result = m_stream->RecvDataFlagged(text.data(), room, flags, &count);
        return text.substr(0, count);
    }
    int Sent(std::string const& text) {
        return m_stream->SendDataFlagged(text.data(), static_cast<unsigned>(text.size()), 0, &m_count);
    }
    int SentTogether(std::vector<char const*> buffers, std::vector<unsigned> lengths) {
        return m_stream->SendData(static_cast<unsigned>(buffers.size()), buffers.data(), lengths.data(), &m_count);
    }

    TempRoot m_root;
    std::string const m_directory = m_root / "/captures";
    std::unique_ptr<TCPStream> m_stream = std::make_unique<TCPStream>();
    Fd m_peer;
    int m_result = 99;
    unsigned m_count = 99;
};

mode_t ModeOf(std::string const& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

// The descriptor of an open file; -1 when it is not open.
int DescriptorOf(std::string const& path) {
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry, gone) == path) return std::stoi(entry.path().filename());
    }
    return -1;
}

// The mask of new files, for a while.
class Mask {
public:
    explicit Mask(mode_t mask) : m_before(::umask(mask)) {}
    ~Mask() { ::umask(m_before); }

private:
    mode_t m_before;
};

}  // namespace

// --- the directory ---

TEST_F(CaptureTest, DirectoryIsMadeOpenToAll) {
    Mask const mask(077);
    TCPStream::set_debug_dir(m_directory);
    EXPECT_EQ(ModeOf(m_directory), 0777u);
}

TEST_F(CaptureTest, DirectoryThatIsThereIsOpenedToAll) {
    std::filesystem::create_directory(m_directory);
    ::chmod(m_directory.c_str(), 0700);
    TCPStream::set_debug_dir(m_directory);
    EXPECT_EQ(ModeOf(m_directory), 0777u);
}

TEST_F(CaptureTest, DirectoryThatCannotBeMadeIsNoFailure) {
    TCPStream::set_debug_dir(m_root / "/not/there");
    m_stream->debug("smtp", "client");
    EXPECT_EQ(Sent("hello"), 0);
    EXPECT_EQ(ReadAvailable(m_peer.get()), "hello");
    EXPECT_TRUE(m_stream->is_plain());
}

TEST_F(CaptureTest, WithoutADirectoryNothingIsEverWritten) {
    auto const before = std::filesystem::current_path();
    std::filesystem::current_path(m_root.path());
    TCPStream::set_debug_dir("");
    int const next = NextFd();
    m_stream->debug("smtp", "client");
    EXPECT_EQ(NextFd(), next);
    EXPECT_TRUE(m_stream->is_plain());
    m_stream->write_debug(0, "x", 1);
    EXPECT_EQ(Sent("hello"), 0);
    PeerSays("hello");
    EXPECT_EQ(Received(), "hello");
    EXPECT_TRUE(std::filesystem::is_empty(m_root.path()));
    EXPECT_FALSE(std::filesystem::exists("/-smtp-client.qxd"));
    std::filesystem::current_path(before);
}

// --- the file ---

TEST_F(CaptureTest, FileIsForItsOwnerAlone) {
    Mask const mask(0);
    Capture();
    EXPECT_EQ(ModeOf(m_directory + "/smtp-client.qxd"), 0600u);
    EXPECT_FALSE(m_stream->is_plain());
}

TEST_F(CaptureTest, FileThatIsThereIsEmptied) {
    m_root.Write("/captures/smtp-client.qxd", "of yesterday");
    Capture();
    EXPECT_EQ(File(), "");
}

TEST_F(CaptureTest, FileThatCannotBeOpenedMeansNoCaptureAndNoFailure) {
    std::filesystem::create_directories(m_directory + "/smtp-client.qxd");
    int const next = NextFd();
    Capture();
    EXPECT_EQ(NextFd(), next);
    EXPECT_TRUE(m_stream->is_plain());
    EXPECT_EQ(Sent("hello"), 0);
    PeerSays("hello");
    EXPECT_EQ(Received(), "hello");
}

TEST_F(CaptureTest, SecondCaptureEndsTheFirstEvenWhereItCannotBegin) {
    Capture();
    int const next = NextFd();
    m_stream->debug("smtp", "server");
    EXPECT_EQ(NextFd(), next);
    Sent("second");
    EXPECT_EQ(File(), "");
    EXPECT_EQ(Parsed(m_root.Read("/captures/smtp-server.qxd")), (Records{{1, "second"}}));
    m_stream->debug("not/there", "server");
    EXPECT_TRUE(m_stream->is_plain());
    EXPECT_LT(NextFd(), next);
}

TEST_F(CaptureTest, FileIsClosedWithItsStream) {
    TCPStream::set_debug_dir(m_directory);
    int const next = NextFd();
    {
        TCPStream other;
        other.debug("smtp", "client");
        EXPECT_NE(NextFd(), next);
    }
    EXPECT_EQ(NextFd(), next);
}

TEST_F(CaptureTest, FileIsNotInheritedByPrograms) {
    Capture();
    EXPECT_EQ(::fcntl(DescriptorOf(m_directory + "/smtp-client.qxd"), F_GETFD), FD_CLOEXEC);
    m_stream->use_debug_file((m_root / "/replayed").c_str());
    EXPECT_EQ(::fcntl(DescriptorOf(m_root / "/replayed"), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(DescriptorOf(m_directory + "/smtp-client.qxd"), -1) << "the capture has ended";
}

TEST_F(CaptureTest, LinkThatSomebodyLaidThereIsNotFollowed) {
    m_root.Write("/precious", "kept");
    std::filesystem::create_directory(m_directory);
    std::filesystem::create_symlink(m_root / "/precious", m_directory + "/smtp-client.qxd");
    Capture();
    EXPECT_TRUE(m_stream->is_plain());
    EXPECT_EQ(m_root.Read("/precious"), "kept");
}

TEST_F(CaptureTest, PipeThatSomebodyLaidThereHoldsNothingUp) {
    std::filesystem::create_directory(m_directory);
    ASSERT_EQ(::mkfifo((m_directory + "/smtp-client.qxd").c_str(), 0600), 0);
    Capture();
    EXPECT_TRUE(m_stream->is_plain());
}

TEST_F(CaptureTest, FullDiskLosesTheCaptureAndNothingElse) {
    auto const handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    std::string const whole = Header(1, 5) + "hello" + Header(0, 6) + "answer";
    for (std::size_t room = 0; room <= whole.size(); ++room) {
        rlimit const now{room, before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &now);
        Capture();
        EXPECT_EQ(Sent("hello"), 0);
        PeerSays("answer");
        EXPECT_EQ(Received(), "answer");
        ::setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_EQ(ReadAvailable(m_peer.get()), "hello");
        EXPECT_EQ(File(), whole.substr(0, room));
    }
    std::signal(SIGXFSZ, handler);
}

// --- what is captured ---

TEST_F(CaptureTest, EachReceiveIsOneRecordAndSoIsTheEnd) {
    Capture();
    PeerSays("one");
    Received();
    PeerSays("two three");
    Received(4);
    Received();
    m_peer.Close();
    EXPECT_EQ(Received(), "");
    EXPECT_EQ(Captured(), (Records{{0, "one"}, {0, "two "}, {0, "three"}, {0, ""}}));
}

TEST_F(CaptureTest, ReceiveIsCapturedAsItCameAndNotAsTelnetLeavesIt) {
    NotingHandler handler;
    m_stream->set_escape_handler(&handler);
    Capture();
    PeerSays("a\377\361b");
    EXPECT_EQ(Received(), "ab");
    EXPECT_EQ(Captured(), (Records{{0, "a\377\361b"}}));
}

TEST_F(CaptureTest, LookAheadIsARecordLikeAnyReceive) {
    Capture();
    PeerSays("hello");
    Received(3, MSG_PEEK);
    Received();
    EXPECT_EQ(Captured(), (Records{{0, "hel"}, {0, "hello"}}));
}

TEST_F(CaptureTest, FailedReceiveIsNoRecord) {
    Capture();
    m_stream->set_timeout(0);
    Received();
    EXPECT_EQ(m_result, ETIMEDOUT);
    EXPECT_EQ(Captured(), Records{});
}

TEST_F(CaptureTest, SendIsOneRecordEvenWhereItFails) {
    std::signal(SIGPIPE, SIG_IGN);
    Capture();
    EXPECT_EQ(Sent("hello"), 0);
    EXPECT_EQ(Sent(""), -1);
    EXPECT_EQ(m_stream->write("you", 3), 0);
    m_peer.Close();
    EXPECT_EQ(Sent("gone"), EPIPE);
    EXPECT_EQ(Captured(), (Records{{1, "hello"}, {1, "you"}, {1, "gone"}}));
}

TEST_F(CaptureTest, SendThatIsNotTriedIsNoRecord) {
    Capture();
    Fill(m_stream->GetSocket());
    m_stream->set_timeout(0);
    EXPECT_EQ(Sent("hello"), ETIMEDOUT);
    EXPECT_EQ(m_stream->SendDataFlagged(nullptr, 0x7FFFFFFF, 0, &m_count), -1);
    EXPECT_EQ(Captured(), Records{});
}

// Each attempt is captured with all that was left to send, so the records of one send overlap.
TEST_F(CaptureTest, SendInPiecesIsCapturedAsRecordsThatOverlap) {
    Capture();
    std::string text(2 << 20, 0);
    for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>(i * 7 + i / 251);
    std::string got;
    std::thread drain([&] {
        pollfd one{m_peer.get(), POLLIN, 0};
        while (got.size() < text.size() && ::poll(&one, 1, 10000) == 1) got += ReadAvailable(m_peer.get());
    });
    EXPECT_EQ(Sent(text), 0);
    drain.join();
    EXPECT_TRUE(got == text);
    Records const records = Captured();
    ASSERT_GT(records.size(), 1u);
    EXPECT_EQ(records.front().data.size(), text.size());
    std::size_t last = text.size() + 1;
    for (Record const& record : records) {
        EXPECT_EQ(record.type, 1);
        EXPECT_LT(record.data.size(), last);
        last = record.data.size();
        EXPECT_TRUE(record.data == text.substr(text.size() - record.data.size()));
    }
}

TEST_F(CaptureTest, VectoredSendIsARecordForEachBuffer) {
    Capture();
    EXPECT_EQ(SentTogether({"one", "", "two"}, {3, 0, 3}), 0);
    EXPECT_EQ(m_stream->PutLine("250 OK", true), 0);
    EXPECT_EQ(m_stream->PutLine("", false), 0);
    EXPECT_EQ(Captured(), (Records{{1, "one"}, {1, ""}, {1, "two"}, {1, "250 OK"}, {1, "\r\n"}, {1, ""}}));
    EXPECT_EQ(ReadAvailable(m_peer.get()), "onetwo250 OK\r\n");
}

TEST_F(CaptureTest, VectoredSendIsCapturedOnceHoweverItGoes) {
    Capture();
    std::string const text(1 << 20, 'x');
    m_stream->set_timeout(0);
    EXPECT_EQ(SentTogether({text.data(), "end"}, {1 << 20, 3}), ETIMEDOUT);
    EXPECT_EQ(Captured(), (Records{{1, text}, {1, "end"}}));
}

TEST_F(CaptureTest, VectoredSendThatIsTooMuchIsCapturedAndNotSent) {
    Capture();
    errno = 0;
    EXPECT_EQ(SentTogether({"one", nullptr}, {3, 0xFFFFFFFF}), 0);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(Captured(), (Records{{1, "one"}, {1, -1}}));
    EXPECT_EQ(ReadAvailable(m_peer.get()), "");
}

TEST_F(CaptureTest, SendThatNeverWaitsIsNotCaptured) {
    Capture();
    EXPECT_EQ(m_stream->SendDataNonBlocked("hello", 5), 5);
    EXPECT_EQ(Captured(), Records{});
}

TEST_F(CaptureTest, HostMayAddRecordsOfItsOwn) {
    Capture();
    m_stream->write_debug(7, "note", 4);
    m_stream->write_debug(-7, "", 0);
    EXPECT_EQ(Captured(), (Records{{7, "note"}, {-7, ""}}));
}

TEST_F(CaptureTest, RecordOfNegativeLengthIsAHeaderAlone) {
    Capture();
    m_stream->write_debug(1, "not this", -1);
    m_stream->write_debug(0, nullptr, -2147483647 - 1);
    EXPECT_EQ(File(), Header(1, -1) + Header(0, -2147483647 - 1));
}

// The example of the page is what a stream writes.
TEST_F(CaptureTest, PageShowsWhatIsWritten) {
    Capture();
    m_stream->PutLine("220 Service ready", true);
    ReadAvailable(m_peer.get());
    PeerSays("\377\364\377\362ABOR\r\n");
    Received();
    m_stream->write_debug(2, "login", 5);
    m_peer.Close();
    Received();
    m_stream->write_debug(1, nullptr, -1);
    std::string expected;
    std::istringstream lines(DocExample(DOCS "/formats/capture.md", "hex"));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream codes(line.substr(4));
        for (int code; codes >> std::hex >> code;) expected += static_cast<char>(code);
    }
    EXPECT_EQ(File(), expected);
}

// --- replay ---

namespace {

class ReplayTest : public CaptureTest {
protected:
    ReplayTest() { m_stream->use_debug_file(m_path.c_str()); }
    void Append(std::string const& bytes) { std::ofstream(m_path, std::ios::binary | std::ios::app) << bytes; }
    int Compared(std::string const& text) {
        return m_stream->compare_write(text.data(), static_cast<unsigned>(text.size()));
    }
    // The stream stands at the end of the file, behind a header that it acts on when it finds no other.
    void PassHeader(std::int32_t type, std::int32_t length) {
        Append(Header(type, length));
        EXPECT_EQ(Received(), "");
        EXPECT_EQ(m_result, 0);
    }
    // The stream expects this record, and what comes into the file next is its data.
    void Begin(std::int32_t type, std::int32_t length) {
        PassHeader(type, length);
        EXPECT_EQ(Received(), "");
        EXPECT_EQ(m_result, type == 0 ? 0 : -1);
    }
    void BeginAnew(std::int32_t type, std::int32_t length) {
        m_stream->use_debug_file(m_path.c_str());
        Begin(type, length);
    }
    std::string const m_path = m_root / "/replayed.qxd";
};

}  // namespace

TEST_F(ReplayTest, FileIsMadeForItsOwnerAlone) {
    Mask const mask(0);
    std::string const path = m_root / "/other.qxd";
    m_stream->use_debug_file(path.c_str());
    EXPECT_EQ(ModeOf(path), 0600u);
    EXPECT_FALSE(m_stream->is_plain());
}

// A capture is lost when it is asked to be played back: so it has always been, and hosts write the file afterwards.
TEST_F(ReplayTest, FileThatIsThereIsEmptied) {
    m_root.Write("/capture.qxd", Header(0, 5) + "hello");
    m_stream->use_debug_file((m_root / "/capture.qxd").c_str());
    EXPECT_TRUE(m_root.Exists("/capture.qxd"));
    EXPECT_EQ(m_root.Read("/capture.qxd"), "");
    EXPECT_EQ(Received(), "");
    EXPECT_EQ(m_result, 0);
}

TEST_F(ReplayTest, FileIsOpenedForReadingAndThroughALink) {
    m_root.Write("/capture.qxd", "x");
    std::filesystem::create_symlink(m_root / "/capture.qxd", m_root / "/link.qxd");
    m_stream->use_debug_file((m_root / "/link.qxd").c_str());
    int const fd = DescriptorOf(m_root / "/capture.qxd");
    EXPECT_EQ(::fcntl(fd, F_GETFL) & (O_ACCMODE | O_APPEND | O_NONBLOCK), O_RDONLY);
    EXPECT_EQ(m_root.Read("/capture.qxd"), "");
}

TEST_F(ReplayTest, FailureToOpenIsThatOfAConnection) {
    try {
        m_stream->use_debug_file((m_root / "/not/there").c_str());
        FAIL() << "opened";
    } catch (ConnectionFailure const& failure) {
        EXPECT_STREQ(failure.what(), std::strerror(ENOENT));
        EXPECT_EQ(failure.error, ENOENT);
        EXPECT_EQ(&failure.event, &events::CONNECT_FAILED);
    }
    Begin(0, 5);
    Append("still");
    EXPECT_EQ(Received(), "still") << "the earlier file goes on";
}

TEST_F(ReplayTest, FileTakesThePlaceOfTheOneBefore) {
    for (std::int32_t const type : {0, 1}) {
        BeginAnew(type, 5);
        std::string const other = m_root / "/other.qxd";
        m_stream->use_debug_file(other.c_str());
        EXPECT_EQ(DescriptorOf(m_path), -1);
        EXPECT_NE(DescriptorOf(other), -1);
        EXPECT_EQ(Received(), "");
        EXPECT_EQ(m_result, 0) << "nothing of the file before is still expected";
        EXPECT_EQ(Compared("x"), -1);
    }
}

TEST_F(ReplayTest, EmptyFileEndsTheInputAndExpectsNoOutput) {
    EXPECT_EQ(Received(), "");
    EXPECT_EQ(m_result, 0);
    EXPECT_EQ(Sent("x"), -1);
    EXPECT_EQ(SentTogether({"x"}, {1}), -1);
    EXPECT_EQ(m_count, 0u);
}

TEST_F(ReplayTest, NeedsNoSocketAndNoWait) {
    m_stream = std::make_unique<TCPStream>();
    BeginAnew(0, 5);
    Append("hello");
    EXPECT_EQ(Received(), "hello");
}

TEST_F(ReplayTest, WholeHeaderStartsNoRecord) {
    Append(Header(0, 8) + "01234567" + Header(1, 3) + "abcdefgh");
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(Received(), "") << i;
        EXPECT_EQ(m_result, 0) << "eight bytes are a header, whatever they say";
    }
    EXPECT_EQ(Received(), "");
    EXPECT_EQ(m_result, -1) << "the last eight bytes are the header that counts: of type \"abcd\"";
}

TEST_F(ReplayTest, EndOfTheFileActsOnTheLastHeader) {
    PassHeader(0, 5);
    EXPECT_EQ(Received(), "") << "there is no data yet";
    Append("hello and more");
    EXPECT_EQ(Received(), "hello");
    EXPECT_EQ(m_result, 0);
}

TEST_F(ReplayTest, InputComesInPiecesOfWhatIsThereAndWhatIsAskedFor) {
    Begin(0, 10);
    Append("0123");
    EXPECT_EQ(Received(3), "012");
    EXPECT_EQ(Received(3), "3");
    Append("456789xyz");
    EXPECT_EQ(Received(4), "4567");
    EXPECT_EQ(Received(4), "89");
    EXPECT_EQ(Received(4), "");
    EXPECT_EQ(m_result, -1) << "what is left is no whole header, and its type is no input";
}

// Every cut of a header: what is read of it lies over the last one, and that is acted on.
TEST_F(ReplayTest, CutHeaderIsActedOnAsItLiesOverTheLastOne) {
    for (std::size_t cut = 0; cut < 8; ++cut) {
        std::string const last = Header(0, 3), next = Header(0, 0x01010101);
        std::string expected = next.substr(0, cut) + last.substr(cut);
        std::int32_t length;
        std::memcpy(&length, expected.data() + 4, 4);
        m_stream->use_debug_file(m_path.c_str());
        PassHeader(0, 3);
        Append(next.substr(0, cut));
        EXPECT_EQ(Received(), "");
        std::string const text(20, 'x');
        Append(text);
        EXPECT_EQ(Received(), text.substr(0, static_cast<std::size_t>(std::min(length, 20)))) << cut;
    }
}

TEST_F(ReplayTest, InputIsRefusedWhileOutputIsExpected) {
    Begin(1, 5);
    Append("hello");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Received(), "");
        EXPECT_EQ(m_result, -1);
    }
    EXPECT_EQ(Compared("hello"), 0) << "the refused reads took nothing";
    EXPECT_EQ(Received(), "");
    EXPECT_EQ(m_result, -1) << "what is left of the record has not changed";
}

TEST_F(ReplayTest, AnyTypeButInputExpectsOutputFromAReader) {
    for (std::int32_t const type : {1, 2, -1, 0x100}) {
        BeginAnew(type, 1);
        EXPECT_EQ(m_result, -1) << type;
        Append("x");
        EXPECT_EQ(Compared("x"), 0) << type;
    }
}

TEST_F(ReplayTest, AnyTypeButOutputExpectsInputFromAWriter) {
    for (std::int32_t const type : {0, 2, -1, 0x100}) {
        m_stream->use_debug_file(m_path.c_str());
        PassHeader(type, 1);
        EXPECT_EQ(Compared("x"), -1) << type;
        EXPECT_EQ(Compared("x"), -1) << type;
        EXPECT_EQ(Compared(""), -1) << type;
        Append("y");
        EXPECT_EQ(Received(), "y") << type;
        EXPECT_EQ(Compared(""), 0) << type;
    }
}

TEST_F(ReplayTest, OutputIsComparedWithTheFile) {
    Begin(1, 5);
    Append("hello");
    EXPECT_EQ(Compared("hello"), 0);
    EXPECT_EQ(Compared(""), 0);
}

TEST_F(ReplayTest, WriterPassesOverHeadersUntilTheFileEnds) {
    Append(Header(0, 9) + Header(7, 9) + Header(1, 5));
    EXPECT_THROW(Compared("hello"), TCPTestFailure) << "the last header counts, and its data is not there";
    Append("hello");
    EXPECT_EQ(Compared("hello"), 0);
}

TEST_F(ReplayTest, DifferenceThrowsAtEveryByte) {
    std::string const text = "hello";
    for (std::size_t at = 0; at < text.size(); ++at) {
        BeginAnew(1, 5);
        Append(text);
        std::string other = text;
        ++other[at];
        try {
            Compared(other);
            FAIL() << "no difference at " << at;
        } catch (TCPTestFailure const& failure) {
            EXPECT_STREQ(failure.what(), "Outputstream does not match logged output");
        }
    }
}

TEST_F(ReplayTest, DifferenceLeavesTheFileBehindWhatWasCompared) {
    Begin(1, 10000);
    Append(std::string(10000, 'x') + "behind");
    EXPECT_THROW(Compared(std::string(10000, 'y')), TCPTestFailure);
    EXPECT_EQ(Compared("behind"), 0);
}

TEST_F(ReplayTest, WhatTheFileLacksCountsAsZeros) {
    Begin(1, 5);
    Append("he");
    EXPECT_THROW(Compared("hello"), TCPTestFailure);
    Append("he");
    EXPECT_EQ(Compared(std::string("he\0\0\0", 5)), 0);
    EXPECT_EQ(Compared(std::string(5, 0)), 0);
}

// Whatever the record's length, it is the head of the data that is compared, again and again.
TEST_F(ReplayTest, ComparisonAlwaysStartsAtTheHeadOfTheData) {
    for (std::size_t length = 1; length <= 9; ++length) {
        for (std::int32_t record = 1; record <= 12; ++record) {
            std::string const data = std::string("123456789").substr(0, length);
            std::string logged;
            for (std::size_t left = length; left > 0;) {
                std::size_t const step = std::min(left, static_cast<std::size_t>(record));
                logged += data.substr(0, step);
                left -= step;
            }
            BeginAnew(1, record);
            Append(logged);
            EXPECT_EQ(Compared(data), 0) << length << " by " << record;
            EXPECT_EQ(Compared(""), 0);
        }
    }
}

TEST_F(ReplayTest, LongOutputIsComparedWhole) {
    std::string text(20000, 0);
    for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>(i * 7 + i / 251);
    for (std::size_t const at : {0u, 4095u, 4096u, 12345u, 19999u}) {
        BeginAnew(1, 20000);
        Append(text);
        std::string other = text;
        ++other[at];
        EXPECT_THROW(Compared(other), TCPTestFailure) << at;
        Append(text);
        EXPECT_EQ(Compared(text), 0);
    }
}

TEST_F(ReplayTest, EmptyRecordAtTheEndIsNoOutput) {
    for (std::size_t cut = 0; cut < 8; ++cut) {
        m_stream->use_debug_file(m_path.c_str());
        PassHeader(1, 0);
        Append(Header(1, 0).substr(0, cut));
        EXPECT_EQ(Compared("x"), -1) << cut;
        EXPECT_EQ(Received(), "");
        EXPECT_EQ(m_result, -1) << cut;
    }
}

// A length is taken as it stands, and no more than the room, or the output, decides how much is read.
TEST_F(ReplayTest, LengthsThatNobodyCanMeanReadNoMoreThanThereIsRoomFor) {
    for (std::int32_t const length : {-1, -2147483647 - 1, 2147483647}) {
        BeginAnew(0, length);
        Append(std::string(100, 'x'));
        EXPECT_EQ(Received(7), std::string(7, 'x'));
        BeginAnew(1, length);
        Append("hello");
        EXPECT_EQ(Compared("hello"), 0);
    }
}

TEST_F(ReplayTest, SendComparesAndCountsNothing) {
    Begin(1, 5);
    Append("hellohellohello");
    EXPECT_EQ(Sent("hello"), 0);
    EXPECT_EQ(m_count, 0u);
    EXPECT_EQ(Sent(""), 0);
    EXPECT_EQ(m_stream->SendData("hello", 5, &m_count), 0);
    EXPECT_EQ(m_stream->write("hello", 5), 0) << "and it ends";
    EXPECT_THROW(Sent("x"), TCPTestFailure);
    EXPECT_EQ(ReadAvailable(m_peer.get()), "") << "the socket sees nothing of it";
}

TEST_F(ReplayTest, SendOfTooMuchIsRefusedBeforeItIsCompared) {
    Begin(1, 5);
    errno = 0;
    EXPECT_EQ(m_stream->SendDataFlagged(nullptr, 0x7FFFFFFF, 0, &m_count), -1);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST_F(ReplayTest, VectoredSendComparesEachBufferAndCountsThemAll) {
    Begin(1, 3);
    Append("onetwo");
    EXPECT_EQ(SentTogether({"one", "", "two"}, {3, 0, 3}), 0);
    EXPECT_EQ(m_count, 6u);
    EXPECT_THROW(SentTogether({"one", "two"}, {3, 3}), TCPTestFailure);
    EXPECT_EQ(SentTogether({}, {}), 0);
    EXPECT_EQ(m_count, 0u);
}

TEST_F(ReplayTest, VectoredSendEndsAtTheFirstBufferThatIsNotExpected) {
    Begin(0, 3);
    EXPECT_EQ(SentTogether({"one", "two"}, {3, 3}), -1);
    EXPECT_EQ(m_count, 0u);
    EXPECT_EQ(SentTogether({""}, {0}), -1);
    EXPECT_EQ(m_stream->PutLine("x", true), -1);
}

TEST_F(ReplayTest, SendThatNeverWaitsGoesToTheSocket) {
    EXPECT_EQ(m_stream->SendDataNonBlocked("hello", 5), 5);
    EXPECT_EQ(ReadAvailable(m_peer.get()), "hello");
}

TEST_F(ReplayTest, InputRunsThroughTheTelnetFilter) {
    NotingHandler handler;
    m_stream->set_escape_handler(&handler);
    Begin(0, 4);
    Append("a\377\361b");
    EXPECT_EQ(Received(), "ab");
    EXPECT_EQ(handler.calls, std::vector<std::string>{"command 241"});
}

// A capture that is begun on a stream that replays takes the place of its file, and cannot be read.
TEST_F(ReplayTest, FileThatCannotBeReadIsAFailureAndNotTheEnd) {
    Capture();
    EXPECT_EQ(Received(), "");
    EXPECT_EQ(m_result, EBADF);
    EXPECT_EQ(Sent("x"), -1);
}

TEST_F(ReplayTest, NothingIsEverCaptured) {
    Begin(0, 5);
    Append("hello");
    EXPECT_EQ(Received(), "hello");
    m_stream->write_debug(0, "x", 1);
    EXPECT_EQ(m_root.Read("/replayed.qxd"), Header(0, 5) + "hello");
    Capture();
    m_stream->write_debug(0, "x", 1);
    EXPECT_EQ(File(), "") << "a stream that has replayed once replays for good";
}

TEST_F(ReplayTest, FileIsClosedWithItsStream) {
    int const next = NextFd();
    {
        TCPStream other;
        other.use_debug_file(m_path.c_str());
        EXPECT_NE(NextFd(), next);
    }
    EXPECT_EQ(NextFd(), next);
}
