#include "RetryFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>

#include <testing/DocExample.h>
#include <testing/SpoolRoom.h>

#include "StoredFiles.h"

namespace {

// The calls of the system that a writer makes, counted; one of them fails, or is the last thing the process does. What
// a machine keeps when its power goes is noted beside: of a file what was flushed, of a directory the names that were.
struct Calls {
    static inline bool watched = false;
    static inline int made = 0;
    static inline int failing = 0;  // the n-th; 0: none
    static inline int error = EIO;
    static inline bool simple = false;         // one that cannot refuse a name that is there
    static inline std::function<void()> last;  // in place of the n-th call
    static inline std::map<ino_t, std::string> flushed;
    static inline std::map<std::string, ino_t> names;
    static inline std::string directory;

    static bool Fails() {
        if (!watched || ++made != failing) return false;
        if (last) last();
        errno = error;
        return true;
    }
};

std::string Slurp(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::map<std::string, ino_t> NamesIn(std::string const& directory) {
    std::map<std::string, ino_t> names;
    for (auto const& entry : std::filesystem::directory_iterator(directory)) {
        struct stat facts {};
        if (::lstat(entry.path().c_str(), &facts) == 0) names[entry.path().filename()] = facts.st_ino;
    }
    return names;
}

void NoteFlushed(int fd) {
    struct stat facts {};
    ::fstat(fd, &facts);
    if (S_ISDIR(facts.st_mode)) {
        Calls::names = NamesIn(Calls::directory);
    } else {
        Calls::flushed[facts.st_ino] = Slurp("/proc/self/fd/" + std::to_string(fd));
    }
}

}  // namespace

extern "C" {
ssize_t __real_pwrite(int fd, void const* data, size_t length, off_t at);
int __real_fsync(int fd);
int __real_futimens(int fd, timespec const* times);
int __real_rename(char const* from, char const* to);
int __real_renameat2(int fromFolder, char const* from, int toFolder, char const* to, unsigned flags);
int __real_unlink(char const* path);
int __real_close(int fd);

// Half of it at a time, so that a part is as likely to be the last as the whole.
ssize_t __wrap_pwrite(int fd, void const* data, size_t length, off_t at) {
    if (Calls::Fails()) return -1;
    return __real_pwrite(fd, data, Calls::watched && length > 1 ? length / 2 : length, at);
}
int __wrap_fsync(int fd) {
    if (Calls::Fails()) return -1;
    int const result = __real_fsync(fd);
    if (Calls::watched) NoteFlushed(fd);
    return result;
}
int __wrap_futimens(int fd, timespec const* times) { return Calls::Fails() ? -1 : __real_futimens(fd, times); }
int __wrap_rename(char const* from, char const* to) { return Calls::Fails() ? -1 : __real_rename(from, to); }
int __wrap_renameat2(int fromFolder, char const* from, int toFolder, char const* to, unsigned flags) {
    if (Calls::Fails()) return -1;
    if (Calls::simple) return errno = EINVAL, -1;
    return __real_renameat2(fromFolder, from, toFolder, to, flags);
}
int __wrap_unlink(char const* path) { return Calls::Fails() ? -1 : __real_unlink(path); }
int __wrap_close(int fd) {
    if (!Calls::Fails()) return __real_close(fd);
    __real_close(fd);
    return -1;
}
}

namespace smtp {
namespace {

namespace fs = std::filesystem;
using State = RetryStatus::Recipient;

class RetryFiles : public ::testing::Test {
protected:
    RetryFiles() : m_directory(m_room / "waiting/") {
        fs::create_directories(m_directory);
        m_envelope.auditId = "a1";
        m_envelope.sender = "alice@outside.example";
        m_envelope.taken = 1700000000;
        m_envelope.recipients = {{"bob@inside.example", "staff"}, {"carol@inside.example", ""}};
        m_status.recipients = {State::Waiting, State::Waiting};
        m_status.tries = 1;
        m_status.reason = "451 4.4.1 next server cannot be reached";
        for (int i = 0; i < 300; ++i) m_message += "Line " + std::to_string(i) + " of the message.\r\n";
        Calls::directory = m_directory;
    }
    ~RetryFiles() override {
        Calls::watched = false;
        Calls::last = nullptr;
        Calls::failing = 0;
        Calls::simple = false;
    }

    bool Store(std::string const& name = "a1") {
        Content content;
        content.text = m_message;
        return StoreRetryFiles(m_directory, {{name, m_envelope, m_status, content}});
    }
    std::string Path(std::string const& name = "a1") const { return m_directory + name + ".rmd"; }
    std::unique_ptr<RetryFile> Open(std::string const& path) const {
        return std::make_unique<RetryFile>(::open(path.c_str(), O_RDWR | O_CLOEXEC), path);
    }

    // What is wrong with a file, its message too.
    RetryFault Fault(std::string const& path) const {
        auto const file = Open(path);
        RetryFault const fault = file->Read();
        VELT::ScannerStream message("reader", false);
        return fault == RetryFault::None ? file->ReadMessage(message) : fault;
    }
    std::string Message(std::string const& path) const {
        auto const file = Open(path);
        VELT::ScannerStream message("reader", false);
        if (file->Read() != RetryFault::None || file->ReadMessage(message) != RetryFault::None) return "";
        return velt_testing::ReadAll(message);
    }

    void Number(std::array<std::uint64_t, 2> const& sequences) const {
        std::fstream file(Path(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(RetryLayout::kFirstLine + WriteEnvelope(m_envelope).size()));
        for (std::uint64_t const sequence : sequences) {
            RetryStatus status = m_status;
            status.sequence = sequence;
            file << WriteSlot(status);
        }
    }

    std::string Other(std::string const& name = "") const { return m_room / ("other/" + name); }

    // Runs `what` in a process that dies at its n-th call; false: it made fewer. The directory is then as a killed
    // process leaves it; `after` as a machine does whose power went.
    bool DiesAt(int n, std::function<bool()> const& what);
    std::string After(std::string const& name = "") const { return m_room / ("after/" + name); }

    velt_testing::SpoolRoom m_room{4096};
    std::string m_directory, m_message;
    RetryEnvelope m_envelope;
    RetryStatus m_status;
};

bool RetryFiles::DiesAt(int n, std::function<bool()> const& what) {
    fs::remove_all(After());
    fs::create_directories(After());
    pid_t const child = ::fork();
    if (child == 0) {
        Calls::flushed.clear();
        Calls::names = NamesIn(m_directory);
        for (auto const& [name, inode] : Calls::names) Calls::flushed[inode] = Slurp(m_directory + name);
        auto const leave = [&](int code) {
            Calls::watched = false;
            for (auto const& [name, inode] : Calls::names) {
                std::ofstream(After(name), std::ios::binary) << Calls::flushed[inode];
            }
            ::_exit(code);
        };
        Calls::made = 0;
        Calls::failing = n;
        Calls::last = [&] { leave(1); };
        Calls::watched = true;
        leave(what() ? 0 : 2);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_NE(WEXITSTATUS(status), 2) << "a call that goes through failed";
    return WEXITSTATUS(status) == 1;
}

TEST_F(RetryFiles, LieInADirectoryThatNobodyElseLooksInto) {
    bool const superuser = ::geteuid() == 0;
    mode_t const before = ::umask(0);
    Calls::directory = m_room / "";
    Calls::watched = true;
    bool const made = MakeRetryDirectory(m_room / "queue/smtp/", superuser ? 12345 : -1, superuser ? 12346 : -1);
    Calls::watched = false;
    ::umask(before);
    ASSERT_TRUE(made);
    struct stat facts {};
    ASSERT_EQ(::stat((m_room / "queue/smtp").c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777, 0700u);
    EXPECT_EQ(facts.st_uid, superuser ? 12345 : ::geteuid());
    EXPECT_EQ(facts.st_gid, superuser ? 12346 : ::getegid());
    ASSERT_EQ(::stat((m_room / "queue").c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777, 0755u);
    EXPECT_EQ(facts.st_uid, ::geteuid());
    EXPECT_EQ(Calls::names.count("queue"), 1u) << "the folder above was flushed";
}

TEST_F(RetryFiles, LieInTheDirectoryThatIsThereAsItIs) {
    ASSERT_EQ(::chmod(m_directory.c_str(), 0750), 0);
    EXPECT_TRUE(MakeRetryDirectory(m_directory, 12345, 12345));
    struct stat facts {};
    ASSERT_EQ(::stat(m_directory.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777, 0750u);
    EXPECT_EQ(facts.st_uid, ::geteuid());
    std::ofstream(m_room / "file") << "in the way";
    EXPECT_FALSE(MakeRetryDirectory(m_room / "file/", -1, -1));
    EXPECT_FALSE(MakeRetryDirectory(m_room / "file/smtp/", -1, -1));
}

TEST_F(RetryFiles, OfOthersAreNotRead) {
    ASSERT_TRUE(Store());
    ASSERT_EQ(::chmod(Path().c_str(), 0602), 0);
    EXPECT_EQ(Fault(Path()), RetryFault::NotOurs);
    ASSERT_EQ(::chmod(Path().c_str(), 0660), 0);
    EXPECT_EQ(Fault(Path()), RetryFault::None);
    if (::geteuid() != 0) GTEST_SKIP() << "needs the right to give files away";
    ASSERT_EQ(::chown(Path().c_str(), 12345, 12345), 0);
    EXPECT_EQ(Fault(Path()), RetryFault::NotOurs);
    ASSERT_EQ(::chown(m_directory.c_str(), 12345, 12345), 0);
    EXPECT_EQ(Fault(Path()), RetryFault::None) << "the directory's owner may have files in it";
}

TEST_F(RetryFiles, AreReadAsTheyWereWritten) {
    ASSERT_TRUE(Store());
    auto const file = Open(Path());
    ASSERT_EQ(file->Read(), RetryFault::None);
    EXPECT_EQ(WriteEnvelope(file->envelope()), WriteEnvelope(m_envelope));
    EXPECT_EQ(WriteSlot(file->status()), WriteSlot(m_status));
    EXPECT_EQ(Message(Path()), m_message);
    EXPECT_EQ(NamesIn(m_directory).size(), 1u);
    struct stat facts {};
    ASSERT_EQ(::stat(Path().c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 0777, 0600u);
}

TEST_F(RetryFiles, HoldMessagesOfASpoolInMemoryAndOnDisk) {
    for (std::size_t size : {std::size_t{0}, std::size_t{100}, m_message.size()}) {
        VELT::ScannerStream spool("writer", false);
        m_message.resize(size);
        ASSERT_EQ(velt_testing::Put(spool, m_message), static_cast<long>(size));
        Content content;
        content.spool = &spool;
        ASSERT_TRUE(StoreRetryFiles(m_directory, {{"a1", m_envelope, m_status, content}}));
        EXPECT_EQ(Fault(Path()), RetryFault::None);
        EXPECT_EQ(Message(Path()), m_message);
    }
}

// What was tried already begins with a rest; what never was is due at the next walk.
TEST_F(RetryFiles, HaveTheTimesByWhichAWalkJudgesThem) {
    for (unsigned tries : {0u, 1u}) {
        m_status.tries = tries;
        ASSERT_TRUE(Store());
        struct stat facts {};
        ASSERT_EQ(::stat(Path().c_str(), &facts), 0);
        EXPECT_EQ(facts.st_ctime - facts.st_mtime >= 65535, tries == 1) << tries;
    }
    auto const file = Open(Path());
    ASSERT_EQ(file->Read(), RetryFault::None);
    for (auto const& act : {std::function<bool()>([&] { return file->Rest(); }),
                            std::function<bool()>([&] { return file->Note(file->status()); })}) {
        ASSERT_TRUE(act());
        struct stat facts {};
        ASSERT_EQ(::stat(Path().c_str(), &facts), 0);
        EXPECT_GE(facts.st_ctime - facts.st_mtime, 65535);
        EXPECT_LE(::time(nullptr) - facts.st_ctime, 60);
    }
}

TEST_F(RetryFiles, ChangeTheirStatusInPlaceAsOftenAsOneLikes) {
    ASSERT_TRUE(Store());
    auto const before = NamesIn(m_directory);
    auto const file = Open(Path());
    ASSERT_EQ(file->Read(), RetryFault::None);
    for (unsigned tries = 2; tries < 8; ++tries) {
        RetryStatus status = file->status();
        status.tries = tries;
        status.unsure = tries % 2;
        ASSERT_TRUE(file->Note(status));
        auto const other = Open(Path());
        ASSERT_EQ(other->Read(), RetryFault::None);
        EXPECT_EQ(other->status().tries, tries);
        EXPECT_EQ(other->status().unsure, tries % 2);
    }
    EXPECT_EQ(NamesIn(m_directory), before);
    EXPECT_EQ(Message(Path()), m_message);
}

// Whatever numbers somebody gave the slots: the next status holds, and until it is flushed the one before.
TEST_F(RetryFiles, HoldTheStatusThatWasWrittenLastWhateverTheirSlotsSay) {
    std::uint64_t const numbers[] = {
        0, 1, 2, 3, RetryLayout::kMaxSequence - 1, RetryLayout::kMaxSequence, UINT64_MAX - 1, UINT64_MAX};
    for (std::uint64_t const first : numbers) {
        for (std::uint64_t const second : numbers) {
            ASSERT_TRUE(Store());
            Number({first, second});
            auto const file = Open(Path());
            RetryFault const fault = file->Read();
            bool const bothMadeUp = std::min(first, second) > RetryLayout::kMaxSequence;
            ASSERT_EQ(fault, bothMadeUp ? RetryFault::StatusDamaged : RetryFault::None) << first << ' ' << second;
            if (bothMadeUp) continue;
            RetryStatus status = file->status();
            std::string const before = WriteSlot(status);
            status.tries = 77;
            bool const noted = file->Note(status);
            EXPECT_EQ(noted, status.sequence < RetryLayout::kMaxSequence) << "none comes behind that";
            auto const again = Open(Path());
            ASSERT_EQ(again->Read(), RetryFault::None);
            EXPECT_EQ(again->status().tries, noted ? 77u : m_status.tries) << first << ' ' << second;
            EXPECT_NE(Slurp(Path()).find(before), std::string::npos) << first << ' ' << second;
        }
    }
}

TEST_F(RetryFiles, CutAtAnyPlaceAreKnownForIt) {
    m_message = "Subject: x\r\n\r\nshort\r\n";
    ASSERT_TRUE(Store());
    std::string const whole = Slurp(Path());
    for (std::size_t cut = 0; cut < whole.size(); ++cut) {
        std::ofstream(Path("cut"), std::ios::binary) << whole.substr(0, cut);
        EXPECT_EQ(Fault(Path("cut")), RetryFault::Truncated) << cut;
    }
    std::ofstream(Path("cut"), std::ios::binary) << whole << "x";
    EXPECT_EQ(Fault(Path("cut")), RetryFault::Truncated);
}

// Each slot stands in for the other; all else is missed.
TEST_F(RetryFiles, ChangedAtAnyByteAreKnownForItOrReadAsBefore) {
    m_message = "Subject: x\r\n\r\nshort\r\n";
    ASSERT_TRUE(Store());
    std::string const whole = Slurp(Path());
    std::size_t const slots = 80 + WriteEnvelope(m_envelope).size();
    std::size_t const message = slots + 2 * SlotLength(2);
    for (std::size_t at = 0; at < whole.size(); ++at) {
        std::string changed = whole;
        changed[at] = static_cast<char>(changed[at] ^ 1);
        std::ofstream(Path("changed"), std::ios::binary) << changed;
        RetryFault const fault = Fault(Path("changed"));
        if (at >= message) {
            EXPECT_EQ(fault, RetryFault::MessageDamaged) << at;
        } else if (at >= slots) {
            EXPECT_EQ(fault, RetryFault::None) << at;
        } else {
            EXPECT_NE(fault, RetryFault::None) << at;
        }
    }
    std::string changed = whole;
    changed[slots] = changed[slots + SlotLength(2)] = 'x';
    std::ofstream(Path("changed"), std::ios::binary) << changed;
    EXPECT_EQ(Fault(Path("changed")), RetryFault::StatusDamaged);
}

TEST_F(RetryFiles, ThatCannotBeReadSaySo) {
    RetryFile none(-1, "none");
    EXPECT_EQ(none.Read(), RetryFault::Unreadable);
    fs::create_directory(m_directory + "folder.rmd");
    auto folder = std::make_unique<RetryFile>(::open(Path("folder").c_str(), O_RDONLY), Path("folder"));
    EXPECT_EQ(folder->Read(), RetryFault::Unreadable);
}

TEST_F(RetryFiles, ThatHaveTwoNamesAreNotReadByEither) {
    ASSERT_TRUE(Store());
    fs::create_hard_link(Path(), Path("b1"));
    for (char const* const name : {"a1", "b1"}) {
        EXPECT_EQ(Fault(Path(name)), RetryFault::MoreNames);
        EXPECT_TRUE(Open(Path(name))->HasOtherName());
    }
    fs::remove(Path());
    EXPECT_EQ(Fault(Path("b1")), RetryFault::None);
    EXPECT_FALSE(Open(Path("b1"))->HasOtherName());
    auto const moved = Open(Path("b1"));
    fs::rename(Path("b1"), Path());
    EXPECT_TRUE(moved->HasOtherName());
    fs::remove(Path());
    EXPECT_FALSE(moved->HasOtherName());
}

TEST_F(RetryFiles, AreNotSaidToBeGoneWhereTheFolderCannotBeFlushed) {
    ASSERT_TRUE(Store());
    auto const file = Open(Path());
    Calls::made = 0;
    Calls::failing = 2;
    Calls::error = EIO;
    Calls::watched = true;
    bool const removed = file->Remove();
    Calls::watched = false;
    EXPECT_FALSE(removed);
    EXPECT_FALSE(fs::exists(Path()));
}

TEST_F(RetryFiles, AreNotSaidToBeGoneWhereNobodyCanLook) {
    ASSERT_TRUE(Store());
    auto const file = Open(Path());
    fs::rename(m_directory, Other());
    EXPECT_TRUE(file->Remove()) << "it is somewhere else";
    fs::create_symlink("waiting", m_room / "waiting");
    EXPECT_FALSE(file->Remove());
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(RetryFiles, TakeNoLinkForAPlaceToWriteTo) {
    std::ofstream(m_directory + "victim") << "precious";
    fs::create_symlink(m_directory + "victim", m_directory + "a1.rmd.tmp");
    EXPECT_FALSE(Store());
    EXPECT_EQ(Slurp(m_directory + "victim"), "precious");
}

TEST_F(RetryFiles, AreNotTakenAwayFromWhoeverCameToTheirPlace) {
    ASSERT_TRUE(Store());
    auto const file = Open(Path());
    ASSERT_TRUE(Store());
    EXPECT_TRUE(file->Remove());
    EXPECT_EQ(Fault(Path()), RetryFault::None);
    EXPECT_TRUE(Open(Path())->Remove());
    EXPECT_FALSE(fs::exists(Path()));
    EXPECT_TRUE(file->Remove()) << "gone is gone";
}

// True is said only of what is there, false only where nothing is.
TEST_F(RetryFiles, AreThereOrNotAsTheWriterSaysWhateverCallFails) {
    for (int error : {ENOSPC, EIO, EDQUOT}) {
        for (int n = 1;; ++n) {
            fs::remove(Path());
            Calls::made = 0;
            Calls::failing = n;
            Calls::error = error;
            Calls::watched = true;
            bool const stored = Store();
            Calls::watched = false;
            bool const allMade = Calls::made < n;
            EXPECT_EQ(stored, fs::exists(Path())) << n;
            if (stored) {
                EXPECT_EQ(Fault(Path()), RetryFault::None) << n;
            }
            if (!stored) {
                EXPECT_TRUE(NamesIn(m_directory).empty()) << n;
            }
            if (allMade) break;
            ASSERT_LT(n, 1000);
        }
        EXPECT_TRUE(fs::exists(Path()));
    }
}

// One mail in two files: its client is told one thing of both.
TEST_F(RetryFiles, OfOneMailAreAllThereOrNoneWhateverCallFails) {
    Content content;
    content.text = m_message;
    bool stored = false;
    for (int n = 1; !stored; ++n) {
        Calls::made = 0;
        Calls::failing = n;
        Calls::watched = true;
        stored = StoreRetryFiles(m_directory,
                                 {{"a1", m_envelope, m_status, content}, {"a1.2", m_envelope, m_status, content}});
        Calls::watched = false;
        EXPECT_EQ(NamesIn(m_directory).size(), stored ? 2u : 0u) << n;
        ASSERT_LT(n, 1000);
    }
    for (char const* const name : {"a1", "a1.2"}) EXPECT_EQ(Fault(Path(name)), RetryFault::None) << name;
}

// So that whoever may take them back is the first who can.
TEST_F(RetryFiles, AreLockedUntilTheirWriterLetsGoOfThemAlsoForHisOwnProcess) {
    Content content;
    content.text = m_message;
    auto stored = std::make_unique<StoredFiles>(m_directory);
    ASSERT_TRUE(stored->Store({{"a1", m_envelope, m_status, content}, {"a1.2", m_envelope, m_status, content}}));
    for (bool const free : {false, true}) {
        for (char const* const name : {"a1", "a1.2"}) {
            int const fd = ::open(Path(name).c_str(), O_RDWR | O_CLOEXEC);
            EXPECT_EQ(::lockf(fd, F_TLOCK, 0) == 0, free) << name;
            ::close(fd);
        }
        stored.reset();
    }
}

TEST_F(RetryFiles, AreUndoneAlsoForAMachineThatEnds) {
    int n = 1;
    auto const change = [&] {
        Content content;
        content.text = m_message;
        StoredFiles stored(m_directory);
        return stored.Store({{"a1", m_envelope, m_status, content}}) && stored.Undo();
    };
    for (; DiesAt(n, change); ++n) {
        for (auto const& entry : fs::directory_iterator(m_directory)) fs::remove(entry);
    }
    EXPECT_GT(n, 10);
    EXPECT_TRUE(NamesIn(m_directory).empty());
    EXPECT_TRUE(NamesIn(After()).empty());
}

// One that cannot be taken away, for sure or at all, is one that nobody waits for.
TEST_F(RetryFiles, AreUndoneWhateverCallFails) {
    Content content;
    content.text = m_message;
    bool allMade = false;
    for (int n = 1; !allMade; ++n) {
        StoredFiles stored(m_directory);
        ASSERT_TRUE(stored.Store({{"a1", m_envelope, m_status, content}, {"a1.2", m_envelope, m_status, content}}));
        Calls::made = 0;
        Calls::failing = n;
        Calls::watched = true;
        EXPECT_TRUE(stored.Undo()) << n;
        Calls::watched = false;
        allMade = Calls::made < n;
        for (auto const& entry : fs::directory_iterator(m_directory)) {
            auto const file = Open(entry.path());
            ASSERT_EQ(file->Read(), RetryFault::None);
            EXPECT_FALSE(file->status().waits() || file->status().isHeld()) << n;
        }
    }
}

TEST_F(RetryFiles, ThatCanNeitherBeUndoneNorWrittenToAreToldOf) {
    Content content;
    content.text = m_message;
    StoredFiles stored(m_directory);
    ASSERT_TRUE(stored.Store({{"a1", m_envelope, m_status, content}}));
    Calls::made = 0;
    Calls::failing = 1;
    Calls::error = EIO;
    Calls::last = [] { Calls::failing = 2; };
    Calls::watched = true;
    bool const undone = stored.Undo();
    int const error = errno;
    Calls::watched = false;
    EXPECT_FALSE(undone);
    EXPECT_EQ(error, EIO);
    EXPECT_TRUE(fs::exists(Path()));
}

// From one call on all fail, or that one alone.
TEST_F(RetryFiles, ThatAreNotStoredAndMayBeTakenAllTheSameAreToldOf) {
    Content content;
    content.text = m_message;
    for (bool const forGood : {true, false}) {
        bool stored = false;
        int taken = 0;
        for (int n = 1; !stored; ++n) {
            for (auto const& entry : fs::directory_iterator(m_directory)) fs::remove(entry);
            Calls::made = 0;
            Calls::failing = n;
            Calls::last = [forGood] { Calls::failing += forGood; };
            Calls::watched = true;
            int left = -1;
            stored = StoreRetryFiles(m_directory, {{"a1", m_envelope, m_status, content}}, &left);
            Calls::watched = false;
            bool const isTaken = !stored && fs::exists(Path());
            taken += isTaken;
            if (!forGood || stored) {
                EXPECT_EQ(left, 0) << n;
            }
            if (isTaken) {
                EXPECT_EQ(left, EIO) << n;
            }
            ASSERT_LT(n, 1000);
        }
        EXPECT_EQ(taken != 0, forGood);
    }
}

TEST_F(RetryFiles, AreNotThereWhereTheirWriterHasTooFewDescriptors) {
    Content content;
    content.text = m_message;
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    int const next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(next);
    rlimit const few{static_cast<rlim_t>(next) + 1, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    bool const stored =
        StoreRetryFiles(m_directory, {{"a1", m_envelope, m_status, content}, {"a1.2", m_envelope, m_status, content}});
    int const error = errno;
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_FALSE(stored);
    EXPECT_EQ(error, EMFILE);
    EXPECT_TRUE(NamesIn(m_directory).empty());
}

TEST_F(RetryFiles, InterruptedCallsAreMadeAgain) {
    Calls::error = EINTR;
    for (int n = 1; n < 30; ++n) {
        fs::remove(Path());
        Calls::made = 0;
        Calls::failing = n;
        Calls::watched = true;
        bool const stored = Store();
        Calls::watched = false;
        EXPECT_EQ(stored, fs::exists(Path())) << n;
    }
}

TEST_F(RetryFiles, OldStatusHoldsUntilTheNewOneIsFlushedWhateverCallFails) {
    ASSERT_TRUE(Store());
    for (int n = 1;; ++n) {
        auto const file = Open(Path());
        ASSERT_EQ(file->Read(), RetryFault::None);
        RetryStatus status = file->status();
        unsigned const before = status.tries++;
        Calls::error = EIO;
        Calls::made = 0;
        Calls::failing = n;
        Calls::watched = true;
        bool const noted = file->Note(status);
        Calls::watched = false;
        EXPECT_EQ(file->status().tries, noted ? before + 1 : before) << n;
        auto const other = Open(Path());
        ASSERT_EQ(other->Read(), RetryFault::None) << n;
        if (noted) {
            EXPECT_EQ(other->status().tries, before + 1);
        }
        EXPECT_EQ(Message(Path()), m_message);
        if (Calls::made < n) break;
    }
}

// Killed, or without power: whatever bears the name of a waiting mail is one, whole.
TEST_F(RetryFiles, AWriterThatDiesLeavesAWholeFileOrNone) {
    int n = 1;
    for (; DiesAt(n, [&] { return Store(); }); ++n) {
        for (std::string const& path : {Path(), After("a1.rmd")}) {
            if (fs::exists(path)) {
                EXPECT_EQ(Fault(path), RetryFault::None) << n << ' ' << path;
            }
        }
        for (auto const& entry : fs::directory_iterator(m_directory)) fs::remove(entry);
    }
    EXPECT_GT(n, 10);
    for (std::string const& path : {Path(), After("a1.rmd")}) EXPECT_EQ(Message(path), m_message) << path;
}

TEST_F(RetryFiles, AStatusWriterThatDiesLeavesTheOldOrTheNewStatus) {
    ASSERT_TRUE(Store());
    std::string const whole = Slurp(Path());
    auto const note = [&] {
        auto const file = Open(Path());
        RetryStatus status;
        if (file->Read() != RetryFault::None) return false;
        status = file->status();
        status.tries = 2;
        return file->Note(status);
    };
    auto const tries = [&](std::string const& path) {
        auto const file = Open(path);
        EXPECT_EQ(file->Read(), RetryFault::None) << path;
        return file->status().tries;
    };
    int n = 1;
    for (; DiesAt(n, note); ++n) {
        for (std::string const& path : {Path(), After("a1.rmd")}) {
            EXPECT_EQ(Message(path), m_message) << n;
            EXPECT_TRUE(tries(path) == 1 || tries(path) == 2) << n;
        }
        std::ofstream(Path(), std::ios::binary) << whole;
    }
    EXPECT_GT(n, 3);
    EXPECT_EQ(tries(Path()), 2u);
    EXPECT_EQ(tries(After("a1.rmd")), 2u);
}

TEST_F(RetryFiles, ARemovalThatWasSaidToBeDoneIsNotUndoneByTheEndOfTheMachine) {
    int n = 1;
    for (;; ++n) {
        ASSERT_TRUE(Store());
        if (!DiesAt(n, [&] { return Open(Path())->Remove(); })) break;
        for (std::string const& path : {Path(), After("a1.rmd")}) {
            if (fs::exists(path)) {
                EXPECT_EQ(Message(path), m_message) << n;
            }
        }
    }
    EXPECT_FALSE(fs::exists(Path()));
    EXPECT_FALSE(fs::exists(After("a1.rmd")));
}

// --- moved ---

TEST_F(RetryFiles, MoveWithTheirStatusTheirTimesAndTheirLock) {
    fs::create_directories(Other());
    ASSERT_TRUE(Store());
    auto const file = Open(Path());
    ASSERT_EQ(file->Read(), RetryFault::None);
    ASSERT_TRUE(file->Wake());
    ASSERT_TRUE(file->Move(Other()));
    EXPECT_EQ(file->path(), Other("a1.rmd"));
    EXPECT_TRUE(file->IsStillNamed());
    EXPECT_FALSE(fs::exists(Path()));
    EXPECT_EQ(NamesIn(Other()).size(), 1u);
    EXPECT_EQ(Message(Other("a1.rmd")), m_message);
    struct stat facts {};
    ASSERT_EQ(::stat(Other("a1.rmd").c_str(), &facts), 0);
    EXPECT_LE(facts.st_ctime - facts.st_mtime, 5) << "due at the next walk";
    EXPECT_EQ(facts.st_mode & 0777, 0600u);
}

TEST_F(RetryFiles, MoveOverNobodyWhateverTheFileSystemCan) {
    fs::create_directories(Other());
    std::ofstream(Other("a1.rmd")) << "precious";
    for (bool const simple : {false, true}) {
        Calls::simple = simple;
        ASSERT_TRUE(Store());
        EXPECT_FALSE(Open(Path())->Move(Other()));
        EXPECT_EQ(errno, EEXIST);
        auto const file = Open(Path());
        ASSERT_EQ(file->Read(), RetryFault::None);
        EXPECT_EQ(file->CopyInto(Other()), nullptr);
        EXPECT_EQ(errno, EEXIST);
        EXPECT_EQ(Message(Path()), m_message);
        EXPECT_EQ(Slurp(Other("a1.rmd")), "precious");
        EXPECT_EQ(NamesIn(Other()).size(), 1u);
    }
}

// True: it is in the new place alone. False: it is whole in one place.
TEST_F(RetryFiles, MoveOrAreWhereTheyWereWhateverCallFails) {
    for (int n = 1;; ++n) {
        fs::remove_all(Other());
        fs::create_directories(Other());
        ASSERT_TRUE(Store());
        auto file = Open(Path());
        Calls::made = 0;
        Calls::failing = n;
        Calls::watched = true;
        bool const moved = file->Move(Other());
        Calls::watched = false;
        bool const allMade = Calls::made < n;
        bool const there = fs::exists(Other("a1.rmd")), here = fs::exists(Path());
        EXPECT_TRUE(moved ? there && !here : there != here) << n;
        EXPECT_EQ(Message(there ? Other("a1.rmd") : Path()), m_message) << n;
        if (allMade) break;
        ASSERT_LT(n, 1000);
    }
}

TEST_F(RetryFiles, CopyWithTheirModeAndTheirStatusAndNothingIsLeftOfACopyThatFails) {
    int n = 1;
    for (;; ++n) {
        fs::remove_all(Other());
        fs::create_directories(Other());
        ASSERT_TRUE(Store());
        auto const file = Open(Path());
        ASSERT_EQ(file->Read(), RetryFault::None);
        Calls::made = 0;
        Calls::failing = n;
        Calls::watched = true;
        auto const copy = file->CopyInto(Other());
        Calls::watched = false;
        EXPECT_EQ(Message(Path()), m_message);
        EXPECT_EQ(NamesIn(Other()).size(), copy ? 1u : 0u) << n;
        if (Calls::made >= n) continue;
        ASSERT_NE(copy, nullptr);
        EXPECT_TRUE(copy->IsCopyOf(*file));
        EXPECT_TRUE(copy->IsStillNamed());
        break;
    }
    EXPECT_GT(n, 5);
    auto const copy = Open(Other("a1.rmd"));
    ASSERT_EQ(copy->Read(), RetryFault::None);
    EXPECT_EQ(copy->status().tries, 1u);
    EXPECT_EQ(Message(Other("a1.rmd")), m_message);
    struct stat facts {};
    ASSERT_EQ(::stat(Other("a1.rmd").c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 0777, 0600u);
}

TEST_F(RetryFiles, UnfinishedOnesAreSweptWhenTheyAreOldAndNothingElseIs) {
    ASSERT_TRUE(Store());
    for (char const* name : {"young.rmd.tmp", "other.tmp"}) std::ofstream(m_directory + name) << "x";
    EXPECT_EQ(SweepUnfinished(m_directory), 0u);
    EXPECT_EQ(NamesIn(m_directory).size(), 3u);
    EXPECT_EQ(SweepUnfinished(m_directory + "none/"), 0u);
}

TEST_F(RetryFiles, LookAsTheirPageShowsThem) {
    m_envelope.conversationId = "c1";
    m_envelope.helloName = "client.example";
    m_envelope.clientAddress = "127.0.0.2";
    m_envelope.engines = "1.0.0 built-in";
    m_envelope.inbound = m_envelope.plain = true;
    m_envelope.recipients[1].address = "\"c d\"@inside.example";
    m_status.recipients[1] = State::Delivered;
    m_status.last = 1700000001;
    m_status.due = 1700000301;
    m_message = "Subject: x\r\n\r\nshort\r\n";
    ASSERT_TRUE(Store());
    std::string const whole = Slurp(Path());
    std::size_t const slots = 80 + WriteEnvelope(m_envelope).size();
    EXPECT_EQ(velt_testing::DocExample(RMD_PAGE, "rmd"), whole.substr(0, slots));
    std::string slot = whole.substr(slots, SlotLength(2));
    slot.resize(slot.find_last_not_of(" \n") + 1);
    EXPECT_EQ(velt_testing::DocExample(RMD_PAGE, "slot"), slot + '\n');
}

}  // namespace
}  // namespace smtp
