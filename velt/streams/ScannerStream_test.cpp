#include <velt/streams/FileStream.h>
#include <velt/streams/ScannerStream.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syslog.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

#include <testing/SpoolRoom.h>
#include <velt/streams/BufferPool.h>

using namespace VELT;
using namespace velt_testing;

namespace {

std::vector<std::string> s_syslog;  // "priority text"

void Record(int priority, char const* format, std::va_list arguments) {
    char text[256];
    std::vsnprintf(text, sizeof text, format, arguments);
    s_syslog.push_back(std::to_string(priority) + ' ' + text);
}

}  // namespace

// In place of the system's, for this program.
extern "C" void syslog(int priority, char const* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    Record(priority, format, arguments);
    va_end(arguments);
}
extern "C" void __syslog_chk(int priority, int, char const* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    Record(priority, format, arguments);
    va_end(arguments);
}

namespace {

std::atomic<unsigned> s_allocations{0};

}  // namespace

#ifndef VELT_SANITIZED  // the sanitizers bring operators of their own
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++s_allocations;
    if (void* const memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
#endif

namespace {

constexpr unsigned kMemory = 16;

std::string Text(std::size_t length) {
    std::string text;
    for (std::size_t i = 0; i < length; ++i) text += static_cast<char>('a' + i % 26);
    return text;
}

class SpoolStream : public testing::Test {
protected:
    SpoolRoom room{kMemory};
    ScannerStream stream{"name", false};

    bool OnDisk() { return !stream.get_spool_file().empty(); }
};

class SpoolStreamOnDisk : public SpoolStream {
protected:
    SpoolStreamOnDisk() { Put(stream, content); }
    std::string content = Text(100);
};

// A limit on the size of files stands for a full disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        m_handler = std::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &m_before);
        rlimit const now{bytes, m_before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &now);
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, m_handler);
    }

private:
    rlimit m_before{};
    void (*m_handler)(int);
};

// Where the data stands depends on nothing but its amount, however it is cut into writes.
TEST_F(SpoolStream, StaysInMemoryBelowItsCapacityAndGoesToDiskFromThere) {
    for (unsigned total = kMemory - 3; total <= kMemory + 3; ++total) {
        std::string const data = Text(total);
        for (unsigned cut = 0; cut <= total; ++cut) {
            stream.reset();
            EXPECT_EQ(Put(stream, data.substr(0, cut)), cut);
            EXPECT_EQ(Put(stream, data.substr(cut)), total - cut);
            EXPECT_EQ(OnDisk(), total >= kMemory) << total << " cut at " << cut;
            EXPECT_EQ(stream.size(), total);
            EXPECT_EQ(ReadAll(stream), data) << "cut at " << cut;
        }
    }
}

TEST_F(SpoolStream, CreatesTheFileWithTheByteThatNoLongerFitsAndFlushesAll) {
    std::string const data = Text(kMemory - 1);
    EXPECT_EQ(Put(stream, data), kMemory - 1);
    EXPECT_TRUE(room.Spooled().empty());
    EXPECT_EQ(stream.get_spool_file(), "");
    EXPECT_EQ(Put(stream, "!"), 1);
    EXPECT_EQ(stream.get_spool_file(), room.Spool("name.in"));
    EXPECT_EQ(room.Read("spool/name.in"), data + "!");
}

TEST_F(SpoolStream, DoesNothingForAWriteOfNothingInMemory) {
    EXPECT_EQ(stream.write("x", 0u), 0);
    EXPECT_EQ(stream.size(), 0u);
    Put(stream, Text(kMemory - 1));
    EXPECT_EQ(stream.write("x", 0u), 0);
    EXPECT_FALSE(OnDisk());
    EXPECT_EQ(stream.write("x", 1u), 1);
    EXPECT_TRUE(OnDisk());
}

TEST_F(SpoolStream, IgnoresAWriteOfNothingBeyondTheData) {
    Put(stream, "ab");
    stream.seek(8, 0);
    EXPECT_EQ(stream.write("", 0u), 0);
    EXPECT_EQ(stream.size(), 2u);
}

TEST_F(SpoolStream, TellsTheCountInTheFormsThatAnswerZero) {
    unsigned count = 99;
    BufferedStream& base = stream;
    EXPECT_EQ(base.write("abc", 3, &count), 0);
    EXPECT_EQ(count, 3u);
    stream.seek(0, 0);
    char data[8];
    EXPECT_EQ(base.read(data, sizeof data, &count), 0);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(base.read(data, sizeof data, &count), 0);
    EXPECT_EQ(count, 0u);
}

TEST_F(SpoolStream, KeepsTheSuffixThatItsDirectionAsksFor) {
    ScannerStream outbound("other", true);
    Put(outbound, Text(40));
    EXPECT_EQ(outbound.get_spool_file(), room.Spool("other.out"));
}

TEST_F(SpoolStream, MakesItsFileForNobodyElse) {
    Put(stream, Text(40));
    struct stat status;
    ASSERT_EQ(::stat(stream.get_spool_file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(SpoolStream, WithoutMemoryMakesAFileOfAnEmptyStem) {
    ScannerStream none(0);
    EXPECT_EQ(Put(none, "x"), 1);
    EXPECT_EQ(none.get_spool_file(), room.Spool(".in"));
    EXPECT_EQ(ReadAll(none), "x");
}

TEST_F(SpoolStream, TakesAnotherNameUntilTheFileExists) {
    Put(stream, "abc");
    stream.set_id("renamed");
    Put(stream, Text(40));
    EXPECT_EQ(stream.get_spool_file(), room.Spool("renamed.out"));
    stream.set_id("too-late");
    Put(stream, "x");
    EXPECT_EQ(room.Spooled(), std::vector<std::string>{"renamed.out"});
    stream.reset();
    Put(stream, Text(40));
    EXPECT_EQ(room.Spooled(), std::vector<std::string>{"too-late.out"});
}

TEST_F(SpoolStream, LosesTheWriteAndStaysInMemoryWhenTheFileCannotBeMade) {
    Put(stream, "abc");
    ASSERT_EQ(::mkdir(room.Spool("name.in").c_str(), 0700), 0);
    EXPECT_EQ(Put(stream, Text(40)), -1);
    EXPECT_EQ(stream.get_spool_file(), "");
    EXPECT_EQ(ReadAll(stream), "abc");
    stream.reset();
    EXPECT_TRUE(room.Exists("spool/name.in")) << "what stood there was not ours to delete";
}

TEST_F(SpoolStream, DoesNotFollowALinkThatSomebodyLaidInTheSpoolDirectory) {
    room.Write("victim", "precious");
    ASSERT_EQ(::symlink((room / "victim").c_str(), room.Spool("name.in").c_str()), 0);
    EXPECT_EQ(Put(stream, Text(40)), -1);
    EXPECT_EQ(room.Read("victim"), "precious");
}

TEST_F(SpoolStream, FailsAWriteThatTheDiskHasNoRoomFor) {
    FileSizeLimit limit(20);
    Put(stream, "abc");
    EXPECT_EQ(Put(stream, Text(40)), -1);
    unsigned count = 0;
    EXPECT_EQ(stream.write("x", 1, &count), -1);
}

TEST_F(SpoolStream, StandsOnDiskWhenTheMemoryCouldNotBeFlushed) {
    FileSizeLimit limit(5);
    Put(stream, Text(10));
    EXPECT_EQ(Put(stream, Text(40)), -1);
    EXPECT_EQ(stream.get_spool_file(), room.Spool("name.in"));
}

TEST_F(SpoolStream, MovesTheCursorTwiceInAVectoredWrite) {
    unsigned lengths[] = {2, 3};
    char const* buffers[] = {"ab", "cde"};
    unsigned written = 0;
    EXPECT_EQ(stream.writev(2, lengths, buffers, &written), 0);
    EXPECT_EQ(written, 5u);
    EXPECT_EQ(stream.size(), 7u);
    EXPECT_EQ(ReadAll(stream), std::string("ab\0\0cde", 7)) << "the gap is of zero bytes";
    char const* one[] = {"ab"};
    stream.reset();
    EXPECT_EQ(stream.writev(1, lengths, one, &written), 0);
    EXPECT_EQ(written, 7u) << "the count adds up";
    EXPECT_EQ(stream.seek(0, 1), 4);
    EXPECT_EQ(stream.size(), 2u);
}

TEST_F(SpoolStream, FailsAVectoredWriteWithItsFirstFailure) {
    ASSERT_EQ(::mkdir(room.Spool("name.in").c_str(), 0700), 0);
    unsigned lengths[] = {2, 40};
    std::string const large = Text(40);
    char const* buffers[] = {"ab", large.c_str()};
    unsigned written = 0;
    EXPECT_EQ(stream.writev(2, lengths, buffers, &written), -1);
    EXPECT_EQ(written, 2u);
}

TEST_F(SpoolStream, BuildsTheFileWhenItSeeksFromBeyondTheMemory) {
    unsigned lengths[] = {10};
    char const* buffers[] = {"abcdefghij"};
    unsigned written = 0;
    stream.writev(1, lengths, buffers, &written);
    EXPECT_EQ(stream.seek(0, 0), 0);
    EXPECT_EQ(stream.get_spool_file(), room.Spool("name.in"));
    EXPECT_EQ(ReadRest(stream), "abcdefghij");
}

TEST_F(SpoolStream, ReadsNothingWhereTheCursorStandsBeyondTheData) {
    Put(stream, "abc");
    stream.seek(9, 0);
    char data[8];
    EXPECT_EQ(stream.read(data, sizeof data), 0);
    EXPECT_EQ(stream.seek(0, 1), 9);
}

TEST_F(SpoolStream, FillsTheGapWithZeroBytesAndNotWithAnotherSessionsData) {
    Put(stream, Text(kMemory - 1));
    stream.reset();
    Put(stream, "ab");
    stream.seek(6, 0);
    Put(stream, "z");
    EXPECT_EQ(ReadAll(stream), std::string("ab\0\0\0\0z", 7));
}

TEST_F(SpoolStream, RefusesAnUnknownKindOfSeekWithALineInTheLog) {
    Put(stream, "abc");
    s_syslog.clear();
    EXPECT_EQ(stream.seek(0, 2), -1);
    EXPECT_EQ(s_syslog, std::vector<std::string>{"30 seek:78 Invalid Seek position"});
    EXPECT_EQ(stream.seek(0, 1), 3) << "the cursor is where it was";
}

TEST_F(SpoolStream, RefusesAPlaceBeforeTheStart) {
    Put(stream, "abc");
    EXPECT_EQ(stream.seek(-4, 1), -1);
    EXPECT_EQ(stream.seek(-1, 0), -1);
    EXPECT_EQ(stream.seek(LONG_MAX, 1), -1);
    EXPECT_EQ(stream.seek(0, 1), 3);
}

TEST_F(SpoolStream, SeeksAnywhereInMemoryWithoutLookingAtTheSize) {
    Put(stream, "abc");
    EXPECT_EQ(stream.seek(2, 0), 2);
    EXPECT_EQ(stream.seek(-1, 1), 1);
    EXPECT_EQ(ReadRest(stream), "bc");
    EXPECT_EQ(stream.seek(kMemory * 3, 0), kMemory * 3);
    EXPECT_EQ(stream.size(), 3u);
    EXPECT_FALSE(OnDisk());
    EXPECT_EQ(Put(stream, "z"), 1);
    EXPECT_TRUE(OnDisk());
    EXPECT_EQ(ReadAll(stream), "abc" + std::string(kMemory * 3 - 3, '\0') + "z");
}

TEST_F(SpoolStreamOnDisk, MovesItsCursorByWhatAReadAskedFor) {
    stream.seek(90, 0);
    char data[64];
    EXPECT_EQ(stream.read(data, sizeof data), 10);
    EXPECT_EQ(stream.seek(0, 1), 90 + 64);
}

TEST_F(SpoolStreamOnDisk, OverwritesInThePlaceThatItSoughtAndGoesOnAtTheEnd) {
    stream.seek(98, 0);
    Put(stream, "XYZ");
    EXPECT_EQ(stream.size(), 101u);
    EXPECT_EQ(ReadAll(stream), content.substr(0, 98) + "XYZ");
}

TEST_F(SpoolStream, KeepsItsSizeWhereItIsOverwrittenInTheMiddle) {
    for (unsigned size : {kMemory - 1, kMemory * 2}) {
        for (unsigned place = 0; place + 2 < size; ++place) {
            stream.reset();
            Put(stream, Text(size));
            stream.seek(place, 0);
            EXPECT_EQ(Put(stream, "!"), 1);
            EXPECT_EQ(stream.size(), size) << place;
            EXPECT_EQ(ReadAll(stream), Text(size).replace(place, 1, "!"));
        }
    }
}

TEST_F(SpoolStreamOnDisk, RefusesAWriteThatWouldPassTheLargestPosition) {
    ASSERT_EQ(stream.seek(UINT_MAX, 0), UINT_MAX);
    errno = 0;
    EXPECT_EQ(Put(stream, "x"), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(stream.size(), 100u);
}

TEST_F(SpoolStream, RefusesAWriteInMemoryThatWouldPassTheLargestPosition) {
    ASSERT_EQ(stream.seek(UINT_MAX, 0), UINT_MAX);
    EXPECT_EQ(Put(stream, "xy"), -1);
    EXPECT_EQ(stream.size(), 0u);
}

TEST_F(SpoolStream, CutsInMemoryAndLowersTheCursor) {
    Put(stream, "abcdef");
    EXPECT_TRUE(stream.setsize(4));
    EXPECT_EQ(stream.size(), 4u);
    EXPECT_EQ(stream.seek(0, 1), 4);
    EXPECT_EQ(ReadAll(stream), "abcd");
    stream.seek(1, 0);
    EXPECT_TRUE(stream.setsize(3));
    EXPECT_EQ(stream.seek(0, 1), 1);
}

// Up to the capacity itself it stays in memory; one more makes the file.
TEST_F(SpoolStream, GrowsByZeroBytesInMemoryAndOnDisk) {
    for (unsigned size = kMemory - 2; size <= kMemory + 2; ++size) {
        stream.reset();
        Put(stream, Text(kMemory - 1));
        stream.reset();
        Put(stream, "ab");
        ASSERT_TRUE(stream.setsize(size));
        EXPECT_EQ(OnDisk(), size > kMemory) << size;
        EXPECT_EQ(stream.size(), size);
        EXPECT_EQ(ReadAll(stream), "ab" + std::string(size - 2, '\0')) << size;
    }
}

TEST_F(SpoolStream, TellsThatItCouldNotGrow) {
    ASSERT_EQ(::mkdir(room.Spool("name.in").c_str(), 0700), 0);
    EXPECT_FALSE(stream.setsize(kMemory + 1));
    EXPECT_EQ(stream.size(), 0u);
}

TEST_F(SpoolStreamOnDisk, CutsTheFileAndPutsTheCursorToItsEnd) {
    EXPECT_TRUE(stream.setsize(40));
    EXPECT_EQ(stream.size(), 40u);
    EXPECT_EQ(stream.seek(0, 1), 40);
    EXPECT_EQ(Put(stream, "!"), 1);
    EXPECT_EQ(ReadAll(stream), content.substr(0, 40) + "!");
    stream.seek(3, 0);
    EXPECT_TRUE(stream.setsize(30));
    EXPECT_EQ(stream.seek(0, 1), 3);
}

TEST_F(SpoolStream, TricklesNoMoreThanWasWritten) {
    char data[64];
    unsigned got = 99;
    EXPECT_EQ(stream.trickle_read(data, sizeof data, &got), 0);
    EXPECT_EQ(got, 0u);
    Put(stream, "abcde");
    EXPECT_EQ(stream.trickle_read(data, 2, &got), 0);
    EXPECT_EQ(std::string(data, got), "ab");
    EXPECT_EQ(stream.trickle_read(data, sizeof data, &got), 0);
    EXPECT_EQ(std::string(data, got), "cde");
    EXPECT_EQ(stream.trickle_read(data, sizeof data, &got), 0);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(stream.trickle_seekto(1), 1);
    EXPECT_EQ(stream.trickle_seekto(5), 1) << "the end is no place to go to";
    EXPECT_EQ(stream.trickle_seekto(-1), 1);
    stream.setsize(1);
    EXPECT_EQ(stream.trickle_read(data, sizeof data, &got), 0);
    EXPECT_EQ(got, 0u) << "cut below the cursor";
}

TEST_F(SpoolStream, GoesOnTricklingWhereItStoodWhenTheDataMovesToDisk) {
    for (unsigned first = 0; first < kMemory; ++first) {
        stream.reset();
        std::string const content = Text(60);
        Put(stream, content.substr(0, kMemory - 1));
        char data[100];
        unsigned got = 0;
        ASSERT_EQ(stream.trickle_read(data, first, &got), 0);
        std::string trickled(data, got);
        Put(stream, content.substr(kMemory - 1));
        ASSERT_EQ(stream.trickle_read(data, sizeof data, &got), 0);
        trickled.append(data, got);
        EXPECT_EQ(trickled, content) << "after " << first;
    }
}

TEST_F(SpoolStreamOnDisk, TricklesApartFromTheOrdinaryCursor) {
    char data[256];
    unsigned got = 0;
    EXPECT_EQ(stream.trickle_read(data, 30, &got), 0);
    EXPECT_EQ(std::string(data, got), content.substr(0, 30));
    Put(stream, "more");
    EXPECT_EQ(stream.trickle_read(data, sizeof data, &got), 0);
    EXPECT_EQ(std::string(data, got), content.substr(30) + "more");
    EXPECT_EQ(stream.trickle_read(data, sizeof data, &got), 0);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(stream.trickle_seekto(95), 95);
    EXPECT_EQ(stream.trickle_read(data, sizeof data, &got), 0);
    EXPECT_EQ(std::string(data, got), content.substr(95) + "more");
}

TEST_F(SpoolStreamOnDisk, CannotTrickleAFileThatIsGone) {
    ::unlink(stream.get_spool_file().c_str());
    char data[8];
    unsigned got = 0;
    EXPECT_EQ(stream.trickle_read(data, sizeof data, &got), -1);
    EXPECT_EQ(stream.trickle_seekto(0), -1);
}

TEST_F(SpoolStreamOnDisk, DeletesItsFileWithItselfAndWithItsContent) {
    stream.reset();
    EXPECT_TRUE(room.Spooled().empty());
    EXPECT_EQ(stream.size(), 0u);
    EXPECT_EQ(stream.get_spool_file(), "");
    {
        ScannerStream other("other", true);
        Put(other, content);
        EXPECT_EQ(room.Spooled(), std::vector<std::string>{"other.out"});
    }
    EXPECT_TRUE(room.Spooled().empty());
}

TEST_F(SpoolStreamOnDisk, StartsAgainInMemoryAfterAReset) {
    char data[8];
    unsigned got = 0;
    stream.trickle_read(data, 5, &got);
    stream.reset();
    Put(stream, "fresh");
    EXPECT_FALSE(OnDisk());
    EXPECT_EQ(stream.trickle_read(data, sizeof data, &got), 0);
    EXPECT_EQ(std::string(data, got), "fresh");
    EXPECT_EQ(ReadAll(stream), "fresh");
}

TEST_F(SpoolStreamOnDisk, LeavesTheFileWhenItIsClosed) {
    std::string const path = stream.get_spool_file();
    stream.close_io_stream();
    EXPECT_EQ(stream.get_spool_file(), path);
    EXPECT_EQ(room.Read("spool/name.in"), content);
    char data[256];
    EXPECT_GE(stream.read(data, sizeof data), 0) << "and stays within its memory";
    unsigned got = 0;
    EXPECT_EQ(stream.trickle_read(data, sizeof data, &got), 0);
    EXPECT_LE(got, kMemory);
}

TEST_F(SpoolStream, GivesItsMemoryBackToThePool) {
    unsigned position, length, limit;
    ScannerStream first("first", false);
    char* const memory = first.stream_info(position, length, limit);
    first.release();
    EXPECT_EQ(first.stream_info(position, length, limit), nullptr);
    ScannerStream second("second", false);
    EXPECT_EQ(second.stream_info(position, length, limit), memory);
}

TEST_F(SpoolStream, HoldsNothingAfterItsMemoryIsGone) {
    Put(stream, "a\nb\n");
    NextLine(stream);
    stream.release();
    char data[8];
    EXPECT_EQ(stream.read(data, sizeof data), 0);
    EXPECT_EQ(NextLine(stream).state, LINE_CLOSED);
    EXPECT_EQ(stream.spool_to_disk((room / "copy").c_str()), 0);
    EXPECT_EQ(room.Read("copy"), "");
    EXPECT_EQ(Put(stream, "x"), 1) << "what comes now goes to disk";
    EXPECT_TRUE(OnDisk());
}

// One message after the other goes through the same stream.
TEST(SpoolStreamSpeed, AllocatesNothingForMessagesThatStayInMemory) {
    SpoolRoom room(4096);
    ScannerStream stream("name", false);
    char line[] = "a line of a mail\r\n";
    char data[64];
    unsigned count = 0;
    unsigned const before = s_allocations;
    for (int message = 0; message < 10; ++message) {
        stream.reset();
        for (int i = 0; i < 100; ++i) stream.write(line, sizeof line - 1);
        stream.seek(0, 0);
        char* text = nullptr;
        bool io_done = false;
        LINE_STATE_T state;
        for (int i = 0; i < 50; ++i) stream.getline(text, true, io_done, state, true);
        stream.seek(0, 0);
        EXPECT_EQ(stream.read(data, sizeof data), static_cast<long>(sizeof data));
        stream.trickle_read(data, sizeof data, &count);
        stream.setsize(100);
    }
    EXPECT_EQ(s_allocations, before);
}

TEST(SpoolStreamSetUp, MakesTheDirectoryAndTheOneForCrashes) {
    TempRoot root;
    std::string path = root / "spool";
    mode_t const before = ::umask(077);
    ScannerStream::set_spool_dir(path);
    ::umask(before);
    EXPECT_EQ(path, root / "spool") << "the caller's text is left alone";
    EXPECT_EQ(ScannerStream::s_spooldir, root / "spool/");
    for (char const* made : {"spool", "spool/segv"}) {
        struct stat status;
        ASSERT_EQ(::stat((root / made).c_str(), &status), 0) << made;
        EXPECT_EQ(status.st_mode & 07777, 0777u) << made;
    }
    path += '/';
    ScannerStream::set_spool_dir(path);
    EXPECT_EQ(ScannerStream::s_spooldir, root / "spool/");
}

TEST(SpoolStreamSetUp, RecordsTheSizeOfThePool) {
    ScannerStream::set_buffer_pool(2, 2048);
    EXPECT_EQ(ScannerStream::s_buffersize, 2048u);
    EXPECT_EQ(ScannerStream::s_bufferpool->size(), 2048u);
}

TEST(SpoolStreamSetUp, UsesTheDiskOnlyWhenThereIsNoPool) {
    SpoolRoom room;
    ScannerStream::s_bufferpool = nullptr;
    ScannerStream stream("early", false);
    EXPECT_EQ(Put(stream, "a\n"), 2);
    EXPECT_EQ(room.Spooled(), std::vector<std::string>{"early.in"});
    EXPECT_EQ(ReadAll(stream), "a\n");
}

TEST(SpoolStreamSetUp, SurvivesANewPoolOfAnotherSize) {
    SpoolRoom room(64);
    auto early = std::make_unique<ScannerStream>("early", false);
    Put(*early, Text(63));
    room.Use(4096);
    early.reset();
    ScannerStream late("late", false);
    EXPECT_EQ(Put(late, Text(4095)), 4095);
    EXPECT_TRUE(room.Spooled().empty());
}

TEST(SpoolStreamSetUp, FileStreamIsAStreamWithMemoryOfItsOwn) {
    SpoolRoom room(16);
    FileStream file(64);
    EXPECT_EQ(Put(file, Text(63)), 63);
    EXPECT_TRUE(room.Spooled().empty());
    EXPECT_EQ(file.get_pool(), nullptr);
    EXPECT_EQ(file.get_file(), -1);
    FileStream named("id", true);
    EXPECT_EQ(Put(named, Text(16)), 16);
    EXPECT_EQ(named.get_spool_file(), room.Spool("id.out"));
}

}  // namespace
