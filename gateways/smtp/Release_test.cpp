#include "Release.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>

#include <testing/SpoolRoom.h>

#include "StoredFiles.h"

namespace {

// The calls that change what is on disk, counted; the n-th fails, or is the last of its process. Each directory is a
// file system of its own.
struct Changes {
    static inline bool watched = false;
    static inline int made = 0;
    static inline int hit = 0;  // 0: none
    static inline bool dies = false;

    static bool Fails() {
        if (!watched || ++made != hit) return false;
        if (dies) ::_exit(1);
        errno = EIO;
        return true;
    }
};

}  // namespace

extern "C" {
ssize_t __real_pwrite(int fd, void const* data, size_t length, off_t at);
int __real_fsync(int fd);
int __real_futimens(int fd, timespec const* times);
int __real_rename(char const* from, char const* to);
int __real_renameat2(int fromFolder, char const* from, int toFolder, char const* to, unsigned flags);
int __real_unlink(char const* path);

ssize_t __wrap_pwrite(int fd, void const* data, size_t length, off_t at) {
    return Changes::Fails() ? -1 : __real_pwrite(fd, data, length, at);
}
int __wrap_fsync(int fd) { return Changes::Fails() ? -1 : __real_fsync(fd); }
int __wrap_futimens(int fd, timespec const* times) { return Changes::Fails() ? -1 : __real_futimens(fd, times); }
int __wrap_rename(char const* from, char const* to) { return Changes::Fails() ? -1 : __real_rename(from, to); }
int __wrap_renameat2(int fromFolder, char const* from, int toFolder, char const* to, unsigned flags) {
    if (Changes::Fails()) return -1;
    bool const apart = std::filesystem::path(from).parent_path() != std::filesystem::path(to).parent_path();
    return apart ? (errno = EXDEV, -1) : __real_renameat2(fromFolder, from, toFolder, to, flags);
}
int __wrap_unlink(char const* path) { return Changes::Fails() ? -1 : __real_unlink(path); }
}

namespace smtp {
namespace {

namespace fs = std::filesystem;
using State = RetryStatus::Recipient;

class Releases : public ::testing::Test {
protected:
    Releases() { Clear(); }
    ~Releases() override { Changes::watched = false; }

    void Clear() {
        for (std::string const& directory : {m_quarantine, m_deferred}) {
            fs::remove_all(directory);
            fs::create_directories(directory);
        }
        m_delivered = 0;
        m_told.clear();
    }
    void Hold(std::string const& directory, std::string const& sender = "alice@outside.example") {
        RetryDraft draft{"a1", {}, {}, {}};
        draft.envelope.auditId = "a1";
        draft.envelope.sender = sender;
        draft.envelope.taken = 1700000000;
        draft.envelope.recipients = {{"bob@inside.example", "staff"}};
        draft.envelope.action = "QUARANTINE";
        draft.status.recipients = {State::Held};
        draft.content.text = "Subject: x\r\n\r\nThe text.\r\n";
        ASSERT_TRUE(StoreRetryFiles(directory, {draft}));
    }
    static std::unique_ptr<RetryFile> Open(std::string const& path) {
        auto file = std::make_unique<RetryFile>(::open(path.c_str(), O_RDWR | O_CLOEXEC), path);
        bool const taken = file->Lock() && file->Read() == RetryFault::None;
        return taken ? std::move(file) : nullptr;
    }
    static RetryStatus Waiting(RetryStatus status) {
        status.recipients = {State::Waiting};
        status.released = 1700000009;
        return status;
    }
    static bool Mark(std::string const& path, State state, std::int64_t released) {
        auto const file = Open(path);
        RetryStatus status = file->status();
        status.recipients = {state};
        status.released = released;
        return file->Note(status);
    }

    // As velt-queue does.
    bool Release() {
        auto const file = Open(m_held);
        if (!file) return false;
        if (file->status().isHeld() && !file->Note(Waiting(file->status()))) return false;
        return file->Wake() && MoveReleased(*file, m_deferred);
    }
    bool Finish() {
        FinishReleases(m_quarantine, m_deferred, [&](std::string const& name, int error) { m_told[name] = error; });
        return true;
    }
    // As retryers do, one of them for the quarantine.
    void Deliver() {
        for (std::string const& path : {m_waits, m_held}) Deliver(path);
    }
    void Deliver(std::string const& path) {
        auto const file = fs::exists(path) ? Open(path) : nullptr;
        if (!file || file->status().isHeld()) return;
        std::string message;
        EXPECT_EQ(file->ReadMessage([&](std::string_view block) { return message += block, true; }), RetryFault::None);
        EXPECT_EQ(message, "Subject: x\r\n\r\nThe text.\r\n");
        EXPECT_TRUE(file->status().released);
        ++m_delivered;
        EXPECT_TRUE(file->Remove());
    }
    // By a process whose n-th call is its last; false: it made fewer.
    bool DiesAt(int n, std::function<bool()> const& what) const {
        pid_t const child = ::fork();
        if (child == 0) {
            Watch(n, true);
            ::_exit(what() ? 0 : 2);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != 2) << n;
        return WEXITSTATUS(status) == 1;
    }
    static void Watch(int n, bool dies = false) {
        Changes::made = 0;
        Changes::hit = n;
        Changes::dies = dies;
        Changes::watched = true;
    }
    std::set<std::string> Left() const {
        std::set<std::string> names;
        for (std::string const& directory : {m_quarantine, m_deferred}) {
            for (auto const& entry : fs::directory_iterator(directory)) {
                std::string const name = entry.path().filename();
                if (!name.ends_with(kUnfinishedSuffix)) names.insert(name);  // which is swept
            }
        }
        return names;
    }
    // Whatever was cut off: it is finished, or as if it had not been begun. It is delivered once in all.
    void ExpectDeliveredOnceByWhoeverComes() {
        Finish();
        Deliver();
        if (m_delivered == 0 && Release()) Deliver();
        EXPECT_EQ(m_delivered, 1);
        Finish();
        EXPECT_EQ(Left(), std::set<std::string>{});
    }

    velt_testing::SpoolRoom m_room{4096};
    std::string const m_quarantine = m_room / "quarantine/", m_deferred = m_room / "deferred/";
    std::string const m_held = m_quarantine + "a1.rmd", m_marked = m_quarantine + "a1.rmd.released",
                      m_waits = m_deferred + "a1.rmd";
    int m_delivered = 0;
    std::map<std::string, int> m_told;
};

// Another process that works on a file while the object lives, or finds that it cannot.
class Worker {
public:
    explicit Worker(std::string const& path, bool works = true) {
        int ready[2];
        EXPECT_EQ(::pipe(ready), 0);
        m_child = ::fork();
        if (m_child == 0) {
            bool const locked = ::lockf(::open(path.c_str(), O_RDWR), F_TLOCK, 0) == 0;
            if (locked != works || ::write(ready[1], "y", 1) != 1) ::_exit(1);
            ::alarm(60);  // should the test not come to its end
            ::pause();
        }
        ::close(ready[1]);
        char answer = 'n';
        EXPECT_EQ(::read(ready[0], &answer, 1), 1);
        ::close(ready[0]);
    }
    ~Worker() {
        ::kill(m_child, SIGKILL);
        ::waitpid(m_child, nullptr, 0);
    }

private:
    pid_t m_child;
};

}  // namespace

TEST_F(Releases, LeaveTheMailInTheDeferredDirectoryAloneWhereItIsDue) {
    Hold(m_quarantine);
    ASSERT_TRUE(Release());
    EXPECT_EQ(Left(), std::set<std::string>{"a1.rmd"});
    struct stat facts {};
    ASSERT_EQ(::stat(m_waits.c_str(), &facts), 0);
    EXPECT_LE(facts.st_ctime - facts.st_mtime, 5) << "at the next walk";
    EXPECT_EQ(facts.st_mode & 0777, 0600u);
    Deliver();
    EXPECT_EQ(m_delivered, 1);
}

TEST_F(Releases, DeliverOnceWhereverOneIsCutOffAndWhereverItsCompletionIs) {
    int deaths = 0;
    for (int n = 1, m = 1, retryers = 0; n; ++m) {
        Clear();
        Hold(m_quarantine);
        bool const cut = DiesAt(n, [&] { return Release(); });
        if (retryers & 1) Deliver();
        bool const again = DiesAt(m, [&] { return Finish(); });
        if (retryers & 2) Deliver();
        ExpectDeliveredOnceByWhoeverComes();
        if (::testing::Test::HasFailure()) FAIL() << "call " << n << ", then " << m << ", retryers " << retryers;
        deaths += cut;
        if (again) continue;
        m = 0;
        retryers = (retryers + 1) % 4;
        if (retryers == 0) n = cut ? n + 1 : 0;
    }
    EXPECT_GT(deaths, 40);
}

TEST_F(Releases, DeliverOnceWhicheverCallFails) {
    int n = 1;
    for (;; ++n) {
        Clear();
        Hold(m_quarantine);
        Watch(n);
        bool const released = Release();
        Changes::watched = false;
        EXPECT_TRUE(released || Changes::made >= n) << n;
        if (released) {
            EXPECT_FALSE(fs::exists(m_held)) << n;
            Deliver();
            EXPECT_EQ(m_delivered, 1) << n;
        }
        ExpectDeliveredOnceByWhoeverComes();
        if (Changes::made < n) break;
    }
    EXPECT_GT(n, 10);
}

// Its name may have been in memory only.
TEST_F(Releases, AreNotFinishedBeforeTheCopyIsFlushed) {
    Hold(m_quarantine);
    Hold(m_deferred);
    ASSERT_TRUE(Mark(m_held, State::Waiting, 1700000009) && Mark(m_waits, State::Held, 1700000009));
    Watch(1);
    Finish();
    Changes::watched = false;
    EXPECT_EQ(m_told, (std::map<std::string, int>{{"a1", EIO}}));
    EXPECT_TRUE(fs::exists(m_held));
    EXPECT_TRUE(Open(m_waits)->status().isHeld());
}

// Nor may what it says: a process that wrote it and could not flush it is gone.
TEST_F(Releases, AreNotForgottenBeforeTheStatusOfTheCopyIsFlushed) {
    Hold(m_quarantine);
    Hold(m_deferred);
    fs::rename(m_held, m_marked);
    ASSERT_TRUE(Mark(m_waits, State::Waiting, 1700000009));
    for (int const call : {1, 2}) {  // the flush, and the removal
        Watch(call);
        Finish();
        Changes::watched = false;
        EXPECT_EQ(m_told, (std::map<std::string, int>{{"a1", EIO}}));
        EXPECT_TRUE(fs::exists(m_marked)) << call;
    }
    Finish();
    EXPECT_EQ(Left(), std::set<std::string>{"a1.rmd"});
}

TEST_F(Releases, AreFinishedByNobodyWhileSomebodyWorksOnOneOfTheFiles) {
    Hold(m_quarantine);
    Hold(m_deferred);
    ASSERT_TRUE(Mark(m_held, State::Waiting, 1700000009) && Mark(m_waits, State::Held, 1700000009));
    for (std::string const& path : {m_held, m_waits}) {
        Worker const worker(path);
        Finish();
        EXPECT_TRUE(m_told.empty() && fs::exists(m_held) && fs::exists(m_waits));
    }
    Finish();
    EXPECT_EQ(m_told, (std::map<std::string, int>{{"a1", 0}}));
    EXPECT_FALSE(fs::exists(m_held));
    RetryStatus const status = Open(m_waits)->status();
    EXPECT_TRUE(status.waits());
    EXPECT_LE(std::time(nullptr) - status.released, 60) << "or a late one is too old to be tried";
}

// A directory may be another one for a while: one that is not mounted has nothing in it.
TEST_F(Releases, AreNotFinishedByThemselvesWhereTheQuarantineHasNothingOfThem) {
    Hold(m_deferred);
    ASSERT_TRUE(Mark(m_waits, State::Held, 1700000009));
    Finish();
    auto const file = Open(m_waits);
    EXPECT_TRUE(m_told.empty() && file->status().isHeld());
    EXPECT_TRUE(ReleaseThere(*file, m_quarantine, Waiting(file->status()))) << "somebody who knows may do it";
    EXPECT_TRUE(file->status().waits());
}

TEST_F(Releases, LoseNothingWhereTheDeferredDirectoryWasAnotherOneForAWhile) {
    for (int n = 1; !fs::exists(m_marked); ++n) {
        Clear();
        Hold(m_quarantine);
        ASSERT_TRUE(DiesAt(n, [&] { return Release(); }));
    }
    fs::rename(m_deferred, m_room / "elsewhere");
    fs::create_directories(m_deferred);
    Finish();
    Deliver();
    EXPECT_EQ(m_delivered, 0);
    fs::remove_all(m_deferred);
    fs::rename(m_room / "elsewhere", m_deferred);
    Finish();
    auto const file = Open(m_waits);
    ASSERT_TRUE(file && file->status().isHeld()) << "as each walk tells";
    EXPECT_TRUE(ReleaseThere(*file, m_quarantine, Waiting(file->status())));
}

TEST_F(Releases, AreNotBegunForMailThatSomebodyMovedOrCopiedByHand) {
    Hold(m_quarantine);
    Hold(m_deferred);
    Finish();
    EXPECT_TRUE(Open(m_held)->status().isHeld() && Open(m_waits)->status().isHeld());
    auto const file = Open(m_waits);
    EXPECT_TRUE(ReleaseThere(*file, m_quarantine, Waiting(file->status())));
    EXPECT_FALSE(fs::exists(m_held)) << "or it would be released a second time";
}

TEST_F(Releases, LeaveAnotherMailOfTheSameNameAlone) {
    Hold(m_quarantine);
    Hold(m_deferred, "carol@outside.example");
    ASSERT_TRUE(Mark(m_waits, State::Held, 1700000009));
    EXPECT_FALSE(Release());
    EXPECT_EQ(errno, EEXIST);
    Finish();
    EXPECT_TRUE(m_told.empty() && fs::exists(m_held));
    auto const file = Open(m_waits);
    EXPECT_TRUE(ReleaseThere(*file, m_quarantine, Waiting(file->status())));
    EXPECT_EQ(Open(m_held)->envelope().sender, "alice@outside.example");
}

// As some installations have it, by its one name, by a link, or mounted a second time.
TEST_F(Releases, StayWhereTheyAreWhereBothDirectoriesAreOne) {
    fs::remove_all(m_deferred);
    fs::create_directory_symlink(m_quarantine, m_room / "deferred");
    for (std::string const& quarantine : {m_quarantine, m_deferred}) {
        for (bool const moves : {true, false}) {
            Hold(m_quarantine);
            ASSERT_TRUE(Mark(m_held, State::Held, 1700000009)) << "or the finisher would not look at it";
            FinishReleases(quarantine, m_deferred, [&](std::string const& name, int error) { m_told[name] = error; });
            EXPECT_TRUE(m_told.empty());
            auto file = Open(quarantine + "a1.rmd");
            ASSERT_TRUE(file && file->status().isHeld());
            RetryStatus const waits = Waiting(file->status());
            EXPECT_TRUE(moves ? file->Note(waits) && MoveReleased(*file, m_deferred)
                              : ReleaseThere(*file, quarantine, waits));
            { Worker const nobody(m_held, false); }
            file.reset();
            EXPECT_EQ(Left(), std::set<std::string>{"a1.rmd"});
            Deliver(m_held);
        }
    }
    EXPECT_EQ(m_delivered, 4);
}

TEST_F(Releases, AreLookedForWhereThereIsNoDirectoryYet) {
    fs::remove_all(m_quarantine);
    fs::remove_all(m_deferred);
    Finish();
    EXPECT_TRUE(m_told.empty());
}

}  // namespace smtp
