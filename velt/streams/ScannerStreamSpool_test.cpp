// Whole contents of spool streams, out and in.
#include <velt/streams/FileStream.h>
#include <velt/streams/ScannerStream.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

#include <testing/ScriptedStream.h>
#include <testing/SpoolRoom.h>

using namespace VELT;
using namespace velt_testing;

namespace {

constexpr unsigned kMemory = 64;

std::string Text(std::size_t length) {
    std::string text;
    for (std::size_t i = 0; i < length; ++i) text += static_cast<char>('a' + i * 7 % 26);
    return text;
}

// A peer that takes a few bytes at a time, and fails after some.
class SlowPeer : public ScriptedStream {
public:
    explicit SlowPeer(std::size_t fails_after = SIZE_MAX, unsigned at_once = 100)
        : ScriptedStream({}), m_failsAfter(fails_after), m_atOnce(at_once) {}
    int write(char const* data, unsigned length, unsigned* sent) override {
        if (written().size() >= m_failsAfter) return EPIPE;
        return ScriptedStream::write(data, std::min(length, m_atOnce), sent);
    }

private:
    std::size_t m_failsAfter;
    unsigned m_atOnce;
};

class SpoolCopies : public testing::Test {
protected:
    SpoolRoom room{kMemory};
    ScannerStream stream{"name", false};

    std::string File(std::string_view content) {
        room.Write("file", content);
        return room / "file";
    }
};

TEST_F(SpoolCopies, SaveObjectsOfAnySizeAndLeaveTheCursorOnDiskWhereItWas) {
    for (unsigned size : {0u, 1u, kMemory - 1, kMemory, 1023u, 1024u, 1025u, 5000u}) {
        stream.reset();
        std::string const content = Text(size);
        Put(stream, content);
        stream.seek(size / 2, 0);
        EXPECT_EQ(stream.spool_to_disk((room / "copy").c_str()), 0) << size;
        EXPECT_EQ(room.Read("copy"), content) << size;
        EXPECT_EQ(ReadRest(stream), content.substr(size / 2)) << size;
    }
}

TEST_F(SpoolCopies, ReplaceTheFileThatStoodThere) {
    room.Write("copy", Text(500));
    Put(stream, "new");
    EXPECT_EQ(stream.spool_to_disk((room / "copy").c_str()), 0);
    EXPECT_EQ(room.Read("copy"), "new");
}

TEST_F(SpoolCopies, FailWithoutAFolderToSaveTo) {
    Put(stream, "x");
    EXPECT_EQ(stream.spool_to_disk((room / "no/such/folder").c_str()), -1);
}

TEST_F(SpoolCopies, RemoveTheFileThatTheDiskHasNoRoomFor) {
    for (unsigned size : {kMemory - 1, 3000u}) {
        stream.reset();
        Put(stream, Text(size));
        ASSERT_EQ(::symlink("/dev/full", (room / "full").c_str()), 0);
        errno = 0;
        EXPECT_EQ(stream.spool_to_disk((room / "full").c_str()), -1) << size;
        EXPECT_EQ(errno, ENOSPC);
        struct stat status;
        EXPECT_NE(::lstat((room / "full").c_str(), &status), 0) << "removed";
        EXPECT_EQ(ReadAll(stream), Text(size));
    }
}

// A real file system of two pages.
class SmallDisk {
public:
    explicit SmallDisk(std::string path) : m_path(std::move(path)) {
        ::mkdir(m_path.c_str(), 0700);
        m_mounted = ::mount("tmpfs", m_path.c_str(), "tmpfs", 0, "size=8192") == 0;
    }
    ~SmallDisk() {
        if (m_mounted) ::umount2(m_path.c_str(), MNT_DETACH);
    }
    bool mounted() const { return m_mounted; }

private:
    std::string m_path;
    bool m_mounted;
};

TEST_F(SpoolCopies, TellOfAFullDiskAndLeaveNothingOnIt) {
    SmallDisk disk(room / "small");
    if (!disk.mounted()) GTEST_SKIP() << "mounting is not permitted here";
    Put(stream, Text(20000));
    EXPECT_EQ(stream.spool_to_disk((room / "small/copy").c_str()), -1);
    EXPECT_FALSE(room.Exists("small/copy"));
    std::string directory = room / "small/spool";
    ScannerStream::set_spool_dir(directory);
    {
        ScannerStream spooled("big", false);
        EXPECT_EQ(Put(spooled, Text(20000)), -1);
    }
    EXPECT_FALSE(room.Exists("small/spool/big.in"));
    ScannerStream next("next", false);
    EXPECT_EQ(Put(next, Text(2000)), 2000) << "the room is free again";
}

// The reader of a pipe interrupts the writer all the time.
TEST_F(SpoolCopies, GoOnAfterAnInterruptedWrite) {
    struct sigaction quiet = {}, before;
    quiet.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR1, &quiet, &before), 0);
    for (bool in_memory : {false, true}) {
        FileStream object(in_memory ? 400000 : 64);
        std::string const content = Text(300000);
        Put(object, content);
        std::string const path = room / "pipe";
        ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
        int const reader = ::open(path.c_str(), O_RDWR);
        ASSERT_GE(reader, 0);
        std::string received;
        pthread_t const writer = ::pthread_self();
        std::thread peer([&] {
            char block[4096];
            while (received.size() < content.size()) {
                ::pthread_kill(writer, SIGUSR1);
                ssize_t const count = ::read(reader, block, sizeof block);
                if (count > 0) received.append(block, static_cast<std::size_t>(count));
            }
        });
        EXPECT_EQ(object.spool_to_disk(path.c_str()), 0);
        peer.join();
        EXPECT_TRUE(received == content);
        ::close(reader);
        ::unlink(path.c_str());
    }
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(SpoolCopies, SendToAPeerThatTakesALittleAtATime) {
    for (unsigned size : {0u, 1u, kMemory - 1, kMemory, 1024u, 1025u, 3000u}) {
        stream.reset();
        Put(stream, Text(size));
        stream.seek(size / 3, 0);
        SlowPeer peer;
        EXPECT_EQ(stream.spool_to_stream(&peer), 0) << size;
        EXPECT_EQ(peer.written(), Text(size)) << size;
        EXPECT_EQ(ReadRest(stream), Text(size).substr(size / 3)) << size;
    }
}

TEST_F(SpoolCopies, FailWithThePeer) {
    for (unsigned size : {kMemory - 1, 3000u}) {
        stream.reset();
        Put(stream, Text(size));
        SlowPeer broken(size / 2, 10);
        EXPECT_EQ(stream.spool_to_stream(&broken), -1);
        SlowPeer stuck(SIZE_MAX, 0);
        EXPECT_EQ(stream.spool_to_stream(&stuck), -1) << "a peer that takes nothing is no peer";
    }
}

TEST_F(SpoolCopies, SendFromOneStreamToAnother) {
    ScannerStream target("target", true);
    Put(stream, Text(3000));
    EXPECT_EQ(stream.spool_to_stream(&target), 0);
    EXPECT_EQ(ReadAll(target), Text(3000));
}

TEST_F(SpoolCopies, TakeExactlyTheBytesThatTheyWereToldOfHoweverThePeerCutsThem) {
    std::string const wire = Text(200) + "NEXT COMMAND\r\n";
    for (std::size_t cut = 1; cut < wire.size(); ++cut) {
        stream.reset();
        ScriptedStream peer({wire.substr(0, cut), wire.substr(cut)});
        ASSERT_EQ(stream.spool_from_stream(&peer, 200), 0) << cut;
        EXPECT_EQ(ReadAll(stream), Text(200)) << cut;
        EXPECT_EQ(peer.GetLine().text, "NEXT COMMAND") << cut;
    }
}

TEST_F(SpoolCopies, FailWhenThePeerEndsBefore) {
    ScriptedStream closes({Text(100)});
    EXPECT_EQ(stream.spool_from_stream(&closes, 101), -1);
    ScriptedStream fails({Text(100)}, EndsWith::reset);
    EXPECT_EQ(stream.spool_from_stream(&fails, 101), -1);
    EXPECT_EQ(stream.spool_from_stream(&fails, 0), 0);
}

TEST_F(SpoolCopies, FailWhenTheyCannotKeepWhatThePeerSends) {
    ASSERT_EQ(::mkdir(room.Spool("name.in").c_str(), 0700), 0);
    ScriptedStream peer({Text(100)});
    EXPECT_EQ(stream.spool_from_stream(&peer, 100), -1);
}

TEST_F(SpoolCopies, AreReadStraightIntoTheMemoryThatHasRoom) {
    ScriptedStream peer({"HEAD\n" + Text(10), Text(50).substr(10)});
    EXPECT_EQ(peer.GetLine().text, "HEAD");
    ASSERT_EQ(stream.take_from_stream(&peer, 50), 0);
    EXPECT_EQ(ReadAll(stream), Text(50));
    EXPECT_EQ(peer.asked().back(), 40u) << "what is still to come, and nothing that comes behind it";
    EXPECT_EQ(peer.reads(), 2);
}

TEST_F(SpoolCopies, AreTakenWholeHoweverTheyComeAndWhereverTheyLie) {
    for (unsigned size : {0u, 1u, kMemory - 1, kMemory, 200u}) {
        for (std::size_t cut = 0; cut <= size; ++cut) {
            stream.reset();
            ScriptedStream peer({"H\n" + Text(size).substr(0, cut), Text(size).substr(cut) + "NEXT\n"});
            EXPECT_EQ(peer.GetLine().text, "H");
            ASSERT_EQ(stream.take_from_stream(&peer, size), 0) << size << ' ' << cut;
            EXPECT_EQ(stream.get_spool_file().empty(), size < kMemory) << "the last byte of the memory stays free";
            EXPECT_EQ(ReadAll(stream), Text(size)) << cut;
            EXPECT_EQ(peer.GetLine().text, "NEXT") << size << ' ' << cut;
        }
    }
}

TEST_F(SpoolCopies, GoOnWhereTheCursorStands) {
    Put(stream, Text(kMemory - 1));  // which the memory goes on to hold
    stream.reset();
    Put(stream, "abc");
    ScriptedStream peer({"DEF"});
    ASSERT_EQ(stream.take_from_stream(&peer, 3), 0);
    EXPECT_EQ(ReadAll(stream), "abcDEF");
    stream.seek(8, 0);
    ScriptedStream more({"x"});
    ASSERT_EQ(stream.take_from_stream(&more, 1), 0);
    EXPECT_EQ(ReadAll(stream), std::string("abcDEF\0\0x", 9)) << "a gap is of zero bytes";
    stream.reset();
    Put(stream, Text(200));
    stream.seek(0, 0);
    ScriptedStream over({"xyz"});
    ASSERT_EQ(stream.take_from_stream(&over, 3), 0);
    EXPECT_EQ(ReadAll(stream), "xyz" + Text(200).substr(3)) << "on disk";
}

TEST_F(SpoolCopies, ThatTheMemoryHasRoomForFailAsOthersDo) {
    ScriptedStream closes({Text(10)});
    EXPECT_EQ(stream.take_from_stream(&closes, 11), -1);
    ScriptedStream fails({Text(10)}, EndsWith::reset);
    errno = 0;
    EXPECT_EQ(stream.take_from_stream(&fails, 11), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST_F(SpoolCopies, LoadAFileThatFitsAndUseALargerOneWhereItIs) {
    for (unsigned size = kMemory - 2; size <= kMemory + 2; ++size) {
        std::string const path = File(Text(size));
        ASSERT_EQ(stream.spool_from_disk(path.c_str()), 0);
        EXPECT_EQ(stream.size(), size);
        EXPECT_EQ(stream.get_spool_file(), "") << "the file is not ours";
        EXPECT_EQ(stream.seek(0, 1), 0);
        EXPECT_EQ(ReadRest(stream), Text(size));
        stream.seek(0, 0);
        bool const in_memory = Put(stream, "!") == 1;
        EXPECT_EQ(in_memory, size < kMemory) << "a file in place is read only";
        stream.reset();
        EXPECT_EQ(room.Read("file"), Text(size)) << size;
    }
}

TEST_F(SpoolCopies, DeleteTheirOwnFileAndNotTheOneThatIsUsedInPlace) {
    Put(stream, Text(200));
    std::string const path = File(Text(300));
    ASSERT_EQ(stream.spool_from_disk(path.c_str()), 0);
    EXPECT_TRUE(room.Spooled().empty()) << "the old content went with its file";
    stream.reset();
    EXPECT_TRUE(room.Exists("file"));
    Put(stream, Text(200));
    EXPECT_TRUE(room.Exists("spool/name.in"));
    stream.reset();
    EXPECT_FALSE(room.Exists("spool/name.in"));
}

TEST_F(SpoolCopies, LoadAnEmptyFileAndFailWithoutOne) {
    EXPECT_EQ(stream.spool_from_disk(File("").c_str()), 0);
    EXPECT_EQ(stream.size(), 0u);
    Put(stream, "old");
    errno = 0;
    EXPECT_EQ(stream.spool_from_disk((room / "missing").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(stream.size(), 0u);
    EXPECT_EQ(stream.set_disk_file((room / "missing").c_str()), -1);
}

TEST_F(SpoolCopies, GiveUpOnAFileThatCannotBeRead) {
    FileStream large(1 << 20);
    errno = 0;
    EXPECT_EQ(large.spool_from_disk((room / "spool").c_str()), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(large.size(), 0u);
}

// sysfs says that each of its files has a page.
TEST_F(SpoolCopies, RefuseAFileThatEndsBeforeItsSize) {
    std::string const path = File(Text(40));
    FileStream large(4096);
    ASSERT_EQ(large.spool_from_disk(path.c_str()), 0);
    struct stat status;
    char const* const shorter = "/sys/kernel/mm/transparent_hugepage/enabled";
    if (::stat(shorter, &status) != 0 || status.st_size != 4096) GTEST_SKIP() << "no such file here";
    FileStream larger(8192);
    EXPECT_EQ(larger.spool_from_disk(shorter), -1);
    EXPECT_LT(larger.size(), 4096u);
}

TEST_F(SpoolCopies, RefuseFilesWhoseSizeNoPositionCanTell) {
    std::string const path = File("");
    ASSERT_EQ(::truncate(path.c_str(), 0x100000000), 0);
    errno = 0;
    EXPECT_EQ(stream.spool_from_disk(path.c_str()), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(stream.set_disk_file(path.c_str()), -1);
    EXPECT_EQ(stream.size(), 0u);
    ASSERT_EQ(::truncate(path.c_str(), 0xFFFFFFFF), 0);
    EXPECT_EQ(stream.spool_from_disk(path.c_str()), 0);
    EXPECT_EQ(stream.size(), 0xFFFFFFFFu);
}

TEST_F(SpoolCopies, AdoptAFileToWriteToWithoutOwningIt) {
    std::string const path = File("small");
    ASSERT_EQ(stream.set_disk_file(path.c_str()), 0);
    EXPECT_EQ(stream.size(), 5u);
    EXPECT_EQ(stream.get_spool_file(), "");
    EXPECT_EQ(ReadRest(stream), "small");
    EXPECT_EQ(stream.seek(0, 0), 0);
    Put(stream, "SM");
    stream.reset();
    EXPECT_EQ(room.Read("file"), "SMall");
}

TEST_F(SpoolCopies, SeeWhatAnotherProcessMadeOfTheSpoolFile) {
    Put(stream, Text(200));
    stream.seek(0, 0);
    NextLine(stream);
    room.Write("spool/name.in", "disinfected\n");
    EXPECT_EQ(stream.reopen_disk_file(), 0);
    EXPECT_EQ(stream.size(), 12u);
    EXPECT_EQ(stream.seek(0, 1), 0);
    EXPECT_EQ(NextLine(stream).text, "disinfected");
    stream.reset();
    EXPECT_TRUE(room.Spooled().empty());
}

TEST_F(SpoolCopies, HaveNothingToReopenInMemory) {
    Put(stream, "abc");
    EXPECT_EQ(stream.reopen_disk_file(), 0);
    EXPECT_EQ(ReadAll(stream), "abc");
}

TEST_F(SpoolCopies, AreEmptyWhenTheSpoolFileCannotBeReopened) {
    Put(stream, Text(200));
    ::unlink(stream.get_spool_file().c_str());
    EXPECT_EQ(stream.reopen_disk_file(), -1);
    EXPECT_EQ(stream.size(), 0u);
    char data[256];
    EXPECT_EQ(stream.read(data, sizeof data), 0);
    EXPECT_EQ(NextLine(stream).state, LINE_CLOSED);
}

TEST_F(SpoolCopies, SaveWhatIsInMemoryWithItsStateAfterACrash) {
    Put(stream, "abcdef");
    stream.seek(2, 0);
    EXPECT_EQ(stream.emergency_dump((room / "dump").c_str()), 0);
    EXPECT_EQ(room.Read("dump"), "abcdef");
    EXPECT_EQ(room.Read("dump.info"), "FileType: In Memory\nPosn: 2\nEof : 6\n");
}

TEST_F(SpoolCopies, MoveTheSpoolFileAwayAfterACrash) {
    {
        ScannerStream crashed("crashed", false);
        Put(crashed, Text(200));
        EXPECT_EQ(crashed.emergency_dump((room / "dump").c_str()), 0);
        EXPECT_TRUE(room.Spooled().empty());
    }
    EXPECT_EQ(room.Read("dump"), Text(200));
    EXPECT_EQ(room.Read("dump.info"),
              "FileType: OffDisk\nFileName : " + room.Spool("crashed.in") + "\nPosn: 200\nEof : 200\n");
}

TEST_F(SpoolCopies, AnswerADumpThatCannotBeMadeAsOneThatCan) {
    Put(stream, "abc");
    EXPECT_EQ(stream.emergency_dump((room / "no/such/folder").c_str()), 0);
    for (std::size_t length : {4090u, 4091u, 4092u, 8000u}) {
        std::string const path = (room / "").append(length - (room / "").size(), 'x');
        EXPECT_EQ(stream.emergency_dump(path.c_str()), 0) << length;
    }
    Put(stream, Text(200));
    EXPECT_EQ(stream.emergency_dump((room / "no/such/folder").c_str()), 0);
    EXPECT_EQ(room.Spooled(), std::vector<std::string>{"name.in"});
}

}  // namespace
