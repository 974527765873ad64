#include "Keeping.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>

#include <testing/EventCapture.h>
#include <testing/FakePolicyStore.h>
#include <testing/SpoolRoom.h>
#include <velt/runtime/Proxy.h>

#include "Quarantine.h"
#include "RetryFile.h"
#include "SmtpCounters.h"
#include "SmtpEvents.h"

namespace {

// The disk of a test: which of its calls fail by now. Statuses are written behind the file's name, what they are part
// of before.
struct Disk {
    static inline bool flushes = true;  // of directories
    static inline bool removes = true;
    static inline bool writesStatus = true;
    static inline bool named = false;
    static inline unsigned flushed = 0;  // directories
    static inline bool marked = false;   // a file that is executable, which is on disk
    static inline bool early = false;    // its status was written before

    static void Mend() {
        flushes = removes = writesStatus = true;
        flushed = 0;
        marked = early = false;
    }
    static mode_t ModeOf(int fd) {
        struct stat facts {};
        return ::fstat(fd, &facts) == 0 ? facts.st_mode : 0;
    }
    static int Fail() { return errno = EIO, -1; }
};

}  // namespace

extern "C" {
ssize_t __real_pwrite(int fd, void const* data, size_t length, off_t at);
int __real_fsync(int fd);
int __real_rename(char const* from, char const* to);
int __real_unlink(char const* path);

ssize_t __wrap_pwrite(int fd, void const* data, size_t length, off_t at) {
    Disk::early |= (Disk::ModeOf(fd) & S_IXUSR) != 0 && !Disk::marked;
    return Disk::named && !Disk::writesStatus ? Disk::Fail() : __real_pwrite(fd, data, length, at);
}
int __wrap_fsync(int fd) {
    mode_t const mode = Disk::ModeOf(fd);
    Disk::marked |= S_ISREG(mode) && (mode & S_IXUSR) != 0;
    if (!S_ISDIR(mode)) return __real_fsync(fd);
    ++Disk::flushed;
    return Disk::flushes ? __real_fsync(fd) : Disk::Fail();
}
int __wrap_rename(char const* from, char const* to) {
    Disk::named = true;
    return __real_rename(from, to);
}
int __wrap_unlink(char const* path) { return Disk::removes ? __real_unlink(path) : Disk::Fail(); }
}

namespace smtp {
namespace {

namespace fs = std::filesystem;

// A session that has a message for Bob from Alice.
class KeepingSession : public ReportingSession {
public:
    KeepingSession() { m_id = "a1"; }
};

class Keepings : public ::testing::Test {
protected:
    Keepings() {
        VELT::Config::initialise(&m_store);
        m_settings.emplace(m_session.GetConfig());
        m_settings->keep.directory = Folder("deferred");
        m_settings->keep.quarantine = Folder("quarantine");
        m_message.sender.local = "alice";
        m_message.sender.domain = "outside.example";
        m_message.recipients = {{"bob@inside.example", "inside.example", {}}};
        m_message.spool = std::make_unique<VELT::ScannerStream>("message", false);
        m_events.AllowAll();
        Disk::named = false;
    }
    ~Keepings() override {
        Disk::Mend();
        VELT::Config::initialise(nullptr);
    }

    std::string Folder(std::string const& name) {
        fs::create_directories(m_room / name);
        return m_room / (name + "/");
    }
    KeptFrom From() { return {m_session, *m_settings, m_id, m_conversationId, m_hello, true}; }

    bool Tell() { return KeepNotification(From(), m_message, "Subject: sorry\r\n\r\n", "a1.report", false); }
    std::string Told() const { return m_settings->keep.directory + "a1.report.rmd"; }

    static std::unique_ptr<RetryFile> Open(std::string const& path) {
        return std::make_unique<RetryFile>(::open(path.c_str(), O_RDWR | O_CLOEXEC), path);
    }

    bool Hold() {
        std::vector<Verdict> verdicts(1);
        verdicts.front().fate = Verdict::Fate::Hold;
        verdicts.front().quarantine = true;
        m_held.emplace(From(), "a1");
        return m_held->Keep(m_message, verdicts);
    }

    // What the one event says that something was left behind, and of which file.
    void ExpectLeft(std::string const& path) {
        ASSERT_EQ(m_events.Count(events::UNDO_FAILED), 1u);
        KORlog::InfoBag const bag = m_events.Bag(events::UNDO_FAILED);
        EXPECT_EQ(velt_testing::TextAt(bag, "smtp_file"), path);
        EXPECT_EQ(velt_testing::TextAt(bag, "smtp_finding"), std::strerror(EIO));
    }

    velt_testing::SpoolRoom m_room{4096};
    velt_testing::EventCapture m_events;
    velt_testing::FakePolicyStore m_store;
    std::unique_ptr<VELT::Proxy> m_proxy = std::make_unique<VELT::Proxy>();
    std::string const m_id = "a1", m_conversationId = "c1", m_hello = "client.example";
    KeepingSession m_session;
    std::optional<SessionSettings> m_settings;
    Message m_message;
    std::optional<Quarantine> m_held;
};

TEST_F(Keepings, WhatIsNotKeptAndMayBeLeftIsToldOf) {
    Disk::flushes = Disk::removes = Disk::writesStatus = false;
    unsigned long const failed = Count().storesFailed.value();
    EXPECT_FALSE(Tell());
    EXPECT_TRUE(fs::exists(Told()));
    EXPECT_EQ(m_events.Count(events::STORE_FAILED), 1u);
    ExpectLeft(Told());
    EXPECT_EQ(Count().storesFailed.value() - failed, 1u);
}

TEST_F(Keepings, WhatIsLeftAsNobodysIsNotToldOf) {
    Disk::flushes = Disk::removes = false;
    EXPECT_FALSE(Tell());
    EXPECT_TRUE(fs::exists(Told()));
    EXPECT_EQ(m_events.Count(events::UNDO_FAILED), 0u);
}

TEST_F(Keepings, WhatIsNotHeldAndMayBeLeftIsToldOf) {
    Disk::flushes = Disk::removes = Disk::writesStatus = false;
    EXPECT_FALSE(Hold());
    EXPECT_EQ(m_events.Count(events::STORE_FAILED), 1u);
    ExpectLeft(m_settings->keep.quarantine + "a1.rmd");
}

TEST_F(Keepings, WhatIsHeldAndCannotBeTakenBackIsToldOf) {
    ASSERT_TRUE(Hold());
    unsigned long const failed = Count().storesFailed.value();
    Disk::removes = Disk::writesStatus = false;
    m_held->Undo();
    ExpectLeft(m_settings->keep.quarantine + "a1.rmd");
    EXPECT_EQ(Count().storesFailed.value() - failed, 1u);
    EXPECT_EQ(m_events.Count(events::STORE_FAILED), 0u) << "it was kept";
}

TEST_F(Keepings, ANotificationThatIsThereIsNotWrittenAgainAndIsFlushedBeforeItCountsAsTold) {
    ASSERT_TRUE(Tell());
    std::ofstream(Told()) << "as somebody has it locked";
    Disk::flushed = 0;
    EXPECT_TRUE(Tell());
    EXPECT_EQ(Disk::flushed, 1u);
    EXPECT_EQ(fs::file_size(Told()), 25u);
    Disk::flushes = false;
    EXPECT_FALSE(Tell()) << "a loss of power may take its name";
    EXPECT_TRUE(fs::exists(Told()));
    EXPECT_EQ(m_events.Count(events::STORE_FAILED), 1u);
}

// It says that nobody waits, as one does that was delivered.
TEST_F(Keepings, ANotificationThatWasTakenBackDoesNotCountAsTold) {
    Disk::flushes = Disk::removes = false;
    EXPECT_FALSE(Tell());
    EXPECT_TRUE(Disk::marked);
    EXPECT_FALSE(Disk::early) << "a loss of power in between leaves one that counts as told and goes";
    Disk::Mend();
    ASSERT_TRUE(fs::exists(Told()));
    EXPECT_FALSE(Tell());
    EXPECT_EQ(m_events.Count(events::STORE_FAILED), 2u);
    {
        auto const left = Open(Told());
        ASSERT_EQ(left->Read(), RetryFault::None);
        EXPECT_FALSE(left->status().waits());
        EXPECT_TRUE(left->Remove()) << "as a retryer does";
    }
    EXPECT_TRUE(Tell());
    auto const file = Open(Told());
    ASSERT_EQ(file->Read(), RetryFault::None);
    EXPECT_TRUE(file->status().waits());
}

TEST_F(Keepings, ANotificationThatCouldNotBeTakenBackWaitsAndCountsAsTold) {
    Disk::flushes = Disk::removes = Disk::writesStatus = false;
    EXPECT_FALSE(Tell());
    EXPECT_EQ(m_events.Count(events::UNDO_FAILED), 1u);
    Disk::Mend();
    EXPECT_TRUE(Tell());
    auto const file = Open(Told());
    ASSERT_EQ(file->Read(), RetryFault::None);
    EXPECT_TRUE(file->status().waits());
}

TEST_F(Keepings, ANotificationThatWasSentAndIsStillThereCountsAsTold) {
    ASSERT_TRUE(Tell());
    {
        auto const file = Open(Told());
        ASSERT_EQ(file->Read(), RetryFault::None);
        RetryStatus status = file->status();
        status.tries = 1;
        status.recipients = {RetryStatus::Recipient::Delivered};
        ASSERT_TRUE(file->Note(status));
    }
    EXPECT_TRUE(Tell());
}

}  // namespace
}  // namespace smtp
