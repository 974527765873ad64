// What a spool stream makes of calls that fail. read, write and fsync of this program are those below.
#include <velt/streams/FileStream.h>
#include <velt/streams/ScannerStream.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <vector>

#include <testing/ScriptedStream.h>
#include <testing/SpoolRoom.h>
#include <velt/streams/BufferPool.h>

using namespace VELT;
using namespace velt_testing;

namespace {

constexpr unsigned kMemory = 64;
constexpr int kShort = -1;  // the call moves one byte

// What the next calls do: fail with an error, move one byte, or, for 0 and when there are no more, what they were
// asked.
class Calls {
public:
    void Do(std::initializer_list<int> outcomes) {
        m_outcomes = outcomes;
        m_next = 0;
    }
    int Next() { return m_next < m_outcomes.size() ? m_outcomes[m_next++] : 0; }
    bool done() const { return m_next == m_outcomes.size(); }

private:
    std::vector<int> m_outcomes;
    std::size_t m_next = 0;
};

Calls s_reads, s_writes;
unsigned s_syncs = 0;

template <class Call>
ssize_t Outcome(Calls& calls, std::size_t length, Call call) {
    int const next = calls.Next();
    if (next == kShort) return call(length ? 1 : 0);
    if (next == 0) return call(length);
    errno = next;
    return -1;
}

}  // namespace

extern "C" {
ssize_t __real_read(int fd, void* data, std::size_t length);
ssize_t __real_write(int fd, void const* data, std::size_t length);
int __real_fsync(int fd);

ssize_t __wrap_read(int fd, void* data, std::size_t length) {
    return Outcome(s_reads, length, [&](std::size_t count) { return __real_read(fd, data, count); });
}
ssize_t __wrap_write(int fd, void const* data, std::size_t length) {
    return Outcome(s_writes, length, [&](std::size_t count) { return __real_write(fd, data, count); });
}
int __wrap_fsync(int fd) {
    ++s_syncs;
    return __real_fsync(fd);
}
}

namespace {

long OpenDescriptors() {
    std::filesystem::directory_iterator const all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

class SpoolFaults : public testing::Test {
protected:
    SpoolFaults() {
        for (int i = 0; i < 3000; ++i) content += static_cast<char>('a' + i * 7 % 26);
    }
    ~SpoolFaults() override {
        s_reads.Do({});
        s_writes.Do({});
    }

    std::string Tricked(unsigned length) {
        std::string data(length, '\0');
        unsigned got = 0;
        EXPECT_EQ(stream.trickle_read(data.data(), length, &got), 0);
        data.resize(got);
        return data;
    }
    long Place() { return stream.seek(0, 1); }

    SpoolRoom room{kMemory};
    ScannerStream stream{"name", false};
    std::string content;
};

class SpoolFaultsOnDisk : public SpoolFaults {
protected:
    SpoolFaultsOnDisk() { Put(stream, content); }
};

}  // namespace

TEST_F(SpoolFaultsOnDisk, AFailedReadLeavesTheCursorWhereItWas) {
    char data[16];
    unsigned got = 99;
    stream.seek(10, 0);
    for (int error : {EIO, EAGAIN, EINTR}) {
        s_reads.Do({error, error});
        EXPECT_EQ(stream.read(data, sizeof data), -1) << error;
        EXPECT_EQ(stream.read(data, sizeof data, &got), -1) << error;
    }
    EXPECT_EQ(Place(), 10);
}

TEST_F(SpoolFaultsOnDisk, AFailedTrickleIsNoFailureAndItsCountTheLargestThereIs) {
    char data[16];
    for (int error : {EIO, EAGAIN, EINTR}) {
        s_reads.Do({error});
        unsigned got = 0;
        EXPECT_EQ(stream.trickle_read(data, sizeof data, &got), 0) << error;
        EXPECT_EQ(got, UINT_MAX) << error;
    }
    EXPECT_EQ(Tricked(10), content.substr(0, 10)) << "and goes on where it was";
}

// The descriptor is the cursor there.
TEST_F(SpoolFaults, TheTrickleCursorOfTheMemoryStaysWhereItWasWhileTheDataIsOnDisk) {
    Put(stream, content.substr(0, 20));
    EXPECT_EQ(Tricked(4), content.substr(0, 4));
    Put(stream, content.substr(20));
    EXPECT_EQ(Tricked(30), content.substr(4, 30));
    EXPECT_EQ(stream.trickle_seekto(50), 50);
    stream.close_io_stream();
    EXPECT_EQ(stream.trickle_seekto(-1), 4);
}

TEST_F(SpoolFaultsOnDisk, TheDataIsOnDiskBeforeTheFirstTrickle) {
    unsigned const before = s_syncs;
    Tricked(10);
    EXPECT_EQ(s_syncs, before + 1);
    Tricked(10);
    stream.trickle_seekto(0);
    EXPECT_EQ(s_syncs, before + 1) << "once";
}

TEST_F(SpoolFaultsOnDisk, TheTrickleFollowsNoLink) {
    room.Write("secret", "not for clients");
    ::unlink(stream.get_spool_file().c_str());
    ASSERT_EQ(::symlink((room / "secret").c_str(), stream.get_spool_file().c_str()), 0);
    char data[16];
    unsigned got = 0;
    EXPECT_EQ(stream.trickle_read(data, sizeof data, &got), -1);
}

TEST_F(SpoolFaultsOnDisk, AnyFailureOfAWriteIsOneAlsoAnInterruption) {
    for (int error : {EINTR, EAGAIN, ENOSPC}) {
        s_writes.Do({error});
        EXPECT_EQ(Put(stream, "abc"), -1) << error;
        s_writes.Do({kShort, error});
        EXPECT_EQ(Put(stream, "abc"), -1) << "also after a byte went";
        EXPECT_TRUE(s_writes.done()) << "there is no second try";
    }
    EXPECT_EQ(stream.size(), 3003u) << "the bytes that went count";
}

TEST_F(SpoolFaultsOnDisk, AWriteGoesOnUntilAllIsGone) {
    s_writes.Do({kShort, kShort, 0});
    EXPECT_EQ(Put(stream, "abcdef"), 6);
    EXPECT_EQ(ReadAll(stream), content + "abcdef");
}

// The file stays open: the stream is on disk from then on.
TEST_F(SpoolFaults, AMemoryThatCannotBeFlushedIsLeftWithItsFileOpen) {
    for (int outcome : {ENOSPC, EINTR, kShort}) {
        Put(stream, content.substr(0, 40));
        s_writes.Do({outcome});
        EXPECT_EQ(Put(stream, content), -1) << outcome;
        EXPECT_EQ(stream.get_spool_file(), room.Spool("name.in"));
        EXPECT_EQ(Put(stream, "x"), 1);
        EXPECT_EQ(room.Read("spool/name.in"), outcome == kShort ? content.substr(0, 1) + "x" : "x");
        stream.reset();
        EXPECT_TRUE(room.Spooled().empty());
    }
}

TEST_F(SpoolFaults, AFileOfAnEarlierMessageIsEmptiedFirst) {
    room.Write("spool/name.in", content + content);
    Put(stream, content);
    EXPECT_EQ(room.Read("spool/name.in"), content);
}

TEST_F(SpoolFaults, AllOfTheMemoryIsFlushedWhereverTheCursorStands) {
    for (unsigned place = 0; place <= 40; ++place) {
        Put(stream, content.substr(0, 40));
        stream.seek(place, 0);
        ASSERT_TRUE(stream.setsize(kMemory + 1));
        EXPECT_EQ(ReadAll(stream), content.substr(0, 40) + std::string(kMemory + 1 - 40, '\0')) << place;
        stream.reset();
    }
}

TEST_F(SpoolFaultsOnDisk, ACutMovesTheFilesPositionWithTheCursor) {
    EXPECT_TRUE(stream.setsize(40));
    EXPECT_EQ(Put(stream, "!"), 1);
    EXPECT_EQ(room.Read("spool/name.in"), content.substr(0, 40) + "!");
}

TEST_F(SpoolFaults, AFileThatCannotBeCutStaysAsItIs) {
    room.Write("file", content);
    ASSERT_EQ(stream.spool_from_disk((room / "file").c_str()), 0);  // read-only
    EXPECT_FALSE(stream.setsize(10));
    EXPECT_FALSE(stream.setsize(5000));
    EXPECT_EQ(stream.size(), 3000u);
    EXPECT_EQ(ReadAll(stream), content);
}

TEST_F(SpoolFaults, ASeekThatFailsLeavesTheCursorWhereItWas) {
    std::string const pipe = room / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    ASSERT_EQ(stream.set_disk_file(pipe.c_str()), 0);
    EXPECT_EQ(stream.seek(5, 0), -1);
    EXPECT_EQ(Put(stream, "abc"), 3);
    EXPECT_EQ(stream.size(), 3u);
}

// Nothing is read again: all of it is there.
TEST_F(SpoolFaults, ASeekInMemoryKeepsWhatIsBuffered) {
    Put(stream, "first\nsecond\n");
    stream.seek(0, 0);
    EXPECT_EQ(NextLine(stream).text, "first");
    stream.seek(3, 0);
    EXPECT_TRUE(stream.is_line_buffered());
    char* data = nullptr;
    ASSERT_EQ(stream.buffereddata(data), 10);
    EXPECT_EQ(std::string(data, 10), "st\nsecond\n");
}

TEST_F(SpoolFaultsOnDisk, AWriteMakesWhatWasBufferedStale) {
    room.Use(16);
    ScannerStream lines("lines", false);
    Put(lines, "one\ntwo\nthree\nfour\nfive\nsix\n");
    lines.seek(0, 0);
    EXPECT_EQ(NextLine(lines).text, "one");
    Put(lines, "\nX");  // where the reading of the file stands, behind 15 bytes
    EXPECT_EQ(NextLine(lines).text, "r");
}

TEST_F(SpoolFaults, AStreamWithoutMemoryShowsThePoolsSizeAndNoPlace) {
    ScannerStream none(0);
    unsigned position = 9, length = 9, limit = 9;
    EXPECT_EQ(none.stream_info(position, length, limit), nullptr);
    EXPECT_EQ(position, 0u);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(limit, kMemory);
}

// --- whole contents ---

TEST_F(SpoolFaults, LoadingGivesUpWhereThereIsNothingYetAndGoesOnAfterAllElse) {
    room.Write("file", content);
    FileStream large(8192);
    long const open = OpenDescriptors();
    s_reads.Do({EAGAIN});
    EXPECT_EQ(large.spool_from_disk((room / "file").c_str()), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(OpenDescriptors(), open) << "the file is closed";
    s_reads.Do({EINTR, EIO, kShort, EIO, EBADF, EINTR, kShort, EISDIR, ENOMEM});
    EXPECT_EQ(large.spool_from_disk((room / "file").c_str()), 0);
    EXPECT_TRUE(s_reads.done());
    EXPECT_EQ(OpenDescriptors(), open);
    EXPECT_EQ(ReadAll(large), content);
}

TEST_F(SpoolFaults, AFileThatIsTooLargeIsClosedAgain) {
    room.Write("file", "");
    ASSERT_EQ(::truncate((room / "file").c_str(), 0x100000000), 0);
    long const open = OpenDescriptors();
    EXPECT_EQ(stream.spool_from_disk((room / "file").c_str()), -1);
    EXPECT_EQ(stream.set_disk_file((room / "file").c_str()), -1);
    EXPECT_EQ(OpenDescriptors(), open);
}

TEST_F(SpoolFaultsOnDisk, ACopyGoesOnAfterAnInterruptionAndWhereThereIsNothingYet) {
    s_reads.Do({EINTR, EAGAIN, 0, EAGAIN});
    s_writes.Do({EAGAIN, EINTR, kShort, EAGAIN});
    EXPECT_EQ(stream.spool_to_disk((room / "copy").c_str()), 0);
    EXPECT_TRUE(s_reads.done() && s_writes.done());
    EXPECT_EQ(room.Read("copy"), content);
}

TEST_F(SpoolFaultsOnDisk, ACopyThatCannotBeReadIsRemoved) {
    stream.seek(7, 0);
    long const open = OpenDescriptors();
    s_reads.Do({0, EIO});
    EXPECT_EQ(stream.spool_to_disk((room / "copy").c_str()), -1);
    EXPECT_FALSE(room.Exists("copy"));
    EXPECT_EQ(OpenDescriptors(), open);
}

TEST_F(SpoolFaults, ACopyOfTheMemoryGoesOnAfterAnInterruptionAndWhereThereIsNothingYet) {
    Put(stream, content.substr(0, 40));
    s_writes.Do({EAGAIN, EINTR, kShort, EAGAIN});
    EXPECT_EQ(stream.spool_to_disk((room / "copy").c_str()), 0);
    EXPECT_TRUE(s_writes.done());
    EXPECT_EQ(room.Read("copy"), content.substr(0, 40));
}

TEST_F(SpoolFaultsOnDisk, SendingGoesOnAfterAnInterruptionAndWhereThereIsNothingYet) {
    ScannerStream target("target", true);
    s_reads.Do({EINTR, EAGAIN, 0, EAGAIN});
    EXPECT_EQ(stream.spool_to_stream(&target), 0);
    EXPECT_TRUE(s_reads.done());
    EXPECT_EQ(ReadAll(target), content);
}

// The object is to be dropped then: the file's position is behind what was read.
TEST_F(SpoolFaultsOnDisk, SendingThatFailsDoesNotPutThePositionBack) {
    stream.seek(7, 0);
    s_writes.Do({EPIPE});
    ScannerStream none(0);
    EXPECT_EQ(stream.spool_to_stream(&none), -1);
    char data[10];
    ASSERT_EQ(stream.read(data, sizeof data), 10);
    EXPECT_EQ(std::string(data, 10), content.substr(1024, 10));
    s_reads.Do({EIO});
    EXPECT_EQ(stream.spool_to_stream(&none), -1);
    ASSERT_EQ(stream.read(data, sizeof data), 10);
    EXPECT_EQ(std::string(data, 10), content.substr(0, 10));
}

TEST_F(SpoolFaults, AMailWithReplacedHeadersGoesOnAfterAnInterruptionAndNothingElse) {
    std::string const mail = "A: b\nC: d\n\nbody";
    Put(stream, mail);
    s_writes.Do({EINTR, kShort, EINTR, EINTR});
    EXPECT_EQ(stream.spool_to_disk((room / "copy").c_str(), {{"C:", "e"}}), 0);
    EXPECT_TRUE(s_writes.done());
    EXPECT_EQ(room.Read("copy"), "A: b\nC: e\n\nbody");
    long const open = OpenDescriptors();
    for (int failing = 0; failing < 4; ++failing) {  // each of its writes in turn
        for (int error : {EAGAIN, ENOSPC}) {
            s_writes.Do({failing == 0 ? error : 0, failing == 1 ? error : 0, failing == 2 ? error : 0, error});
            EXPECT_EQ(stream.spool_to_disk((room / "copy").c_str(), {{"C:", "e"}}), -1) << failing;
            EXPECT_FALSE(room.Exists("copy"));
            EXPECT_EQ(OpenDescriptors(), open);
            s_writes.Do({});
            EXPECT_EQ(ReadRest(stream), mail) << "from the start";
        }
    }
}

TEST_F(SpoolFaults, CopiesAreForAllWhomTheUmaskLets) {
    Put(stream, "A: b\n\n");
    mode_t const before = ::umask(0);
    EXPECT_EQ(stream.spool_to_disk((room / "copy").c_str()), 0);
    EXPECT_EQ(stream.spool_to_disk((room / "mail").c_str(), {}), 0);
    ::umask(before);
    for (char const* const name : {"copy", "mail"}) {
        struct stat status;
        ASSERT_EQ(::stat((room / name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0666u) << name;
    }
}

TEST_F(SpoolFaultsOnDisk, AReopenedFileIsReadFromTheStartAndWritten) {
    room.Use(16);
    ScannerStream other("other", false);
    Put(other, "one\ntwo\nthree\nfour\nfive\n");
    other.seek(0, 0);
    EXPECT_EQ(NextLine(other).text, "one");
    room.Write("spool/other.in", "disinfected\nby another\n");
    EXPECT_EQ(other.reopen_disk_file(), 0);
    EXPECT_EQ(NextLine(other).text, "disinfected");
    other.seek(0, 0);
    EXPECT_EQ(Put(other, "D"), 1);
    EXPECT_EQ(room.Read("spool/other.in"), "Disinfected\nby another\n");
}

// The state is told also of what could not be saved.
TEST_F(SpoolFaults, ADumpThatFailsHasItsInfoAllTheSame) {
    ASSERT_EQ(::mkdir((room / "dump").c_str(), 0700), 0);
    Put(stream, "abc");
    EXPECT_EQ(stream.emergency_dump((room / "dump").c_str()), 0);
    EXPECT_EQ(room.Read("dump.info"), "FileType: In Memory\nPosn: 3\nEof : 3\n");
    Put(stream, content);
    EXPECT_EQ(stream.emergency_dump((room / "dump").c_str()), 0);
    EXPECT_EQ(room.Read("dump.info"),
              "FileType: OffDisk\nFileName : " + room.Spool("name.in") + "\nPosn: 3003\nEof : 3003\n");
}

// --- life ---

TEST_F(SpoolFaults, AResetClosesByTheVirtualOperation) {
    class Telling : public ScannerStream {
    public:
        using ScannerStream::ScannerStream;
        void close_io_stream() override {
            ++closed;
            ScannerStream::close_io_stream();
        }
        int closed = 0;
    };
    Telling telling("telling", false);
    telling.reset();
    EXPECT_EQ(telling.closed, 1);
}

TEST_F(SpoolFaultsOnDisk, EveryDescriptorGoesWithTheStreamAndWithItsContent) {
    stream.reset();
    long const open = OpenDescriptors();
    for (bool by_reset : {false, true}) {
        ScannerStream other("other", false);
        Put(other, content);
        other.trickle_seekto(0);
        EXPECT_NE(OpenDescriptors(), open);
        if (by_reset) {
            other.reset();
            EXPECT_EQ(OpenDescriptors(), open);
        }
    }
    EXPECT_EQ(OpenDescriptors(), open);
}

TEST_F(SpoolFaults, TheMemoryGoesBackToThePoolBehindWhatWaitsThere) {
    room.Use(128);
    unsigned size = 0;
    BufferPool& pool = *ScannerStream::s_bufferpool;
    auto memory = [](ScannerStream& of) {
        unsigned position, length, limit;
        return of.stream_info(position, length, limit);
    };
    char* waiting = pool.obtain_buffer(size);
    ScannerStream first("first", false);
    char* const given = memory(first);
    pool.release_buffer(waiting);
    first.release();
    std::unique_ptr<void, void (*)(void*)> const other(std::malloc(size), &std::free);  // what is free goes elsewhere
    EXPECT_EQ(pool.obtain_buffer(size), waiting);
    EXPECT_EQ(pool.obtain_buffer(size), given);
    pool.release_buffer(waiting);
    pool.release_buffer(given);
}
