// The tool as its users run it, over files as a gateway writes them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>

#include <gateways/smtp/RetryFile.h>
#include <gateways/smtp/StoredFiles.h>

#include "testing/TempRoot.h"

namespace {

using Json = nlohmann::json;
using smtp::RetryDraft;
using smtp::RetryFile;
using State = smtp::RetryStatus::Recipient;

constexpr char kMessage[] = "Subject: hello \x1b[31mred\r\nTo: bob\r\n\tand carol\r\n\r\nThe text.\r\n";

class VeltQueue : public ::testing::Test {
protected:
    VeltQueue() {
        m_root.Write("/config/qxxmlconf/rules.xml", "<rules/>");
        for (std::string const& directory : {Deferred(), Quarantine()}) std::filesystem::create_directories(directory);
    }
    std::string Deferred() const { return m_root / "/deferred/smtp/"; }
    std::string Quarantine() const { return m_root / "/quarantine/smtp/"; }

    void Store(std::string const& directory, RetryDraft draft, std::string const& name, std::time_t age) {
        draft.name = name;
        draft.envelope.auditId = name.substr(0, name.find('.'));
        draft.envelope.taken = std::time(nullptr) - age;
        draft.content.text = kMessage;
        ASSERT_TRUE(smtp::StoreRetryFiles(directory, {draft}));
    }
    void Wait(std::string const& name, std::time_t age = 60) {
        RetryDraft draft;
        draft.envelope.sender = "alice@outside.example";
        draft.envelope.recipients = {{"bob@inside.example", "staff"}, {"carol@inside.example", ""}};
        draft.status.recipients = {State::Waiting, State::Delivered};
        draft.status.tries = 3;
        draft.status.due = std::time(nullptr) + 4000;
        draft.status.reason = "451 4.4.1 next server cannot be reached";
        Store(Deferred(), draft, name, age);
    }
    void Hold(std::string const& name, std::time_t age = 60, std::string const& directory = "") {
        RetryDraft draft;
        draft.envelope.recipients = {{"bob@inside.example", "staff"}};
        draft.envelope.action = "QUARANTINE";
        draft.envelope.finding = "KORAVScanner: EICAR-Test-File";
        draft.status.recipients = {State::Held};
        Store(directory.empty() ? Quarantine() : directory, draft, name, age);
    }
    // As one between two file systems that was cut off.
    void HalveRelease(std::string const& name) {
        Hold(name);
        std::filesystem::copy(Quarantine() + name + ".rmd", Deferred() + name + ".rmd");
        for (auto const& [directory, state] : {std::pair(Quarantine(), State::Waiting), {Deferred(), State::Held}}) {
            RetryFile file(::open((directory + name + ".rmd").c_str(), O_RDWR), directory + name + ".rmd");
            ASSERT_EQ(file.Read(), smtp::RetryFault::None);
            smtp::RetryStatus status = file.status();
            status.recipients = {state};
            status.released = 1700000000;
            ASSERT_TRUE(file.Note(status));
        }
    }
    bool IsDeferred(std::string const& name) const { return m_root.Exists("/deferred/smtp/" + name + ".rmd"); }
    bool IsHeld(std::string const& name) const { return m_root.Exists("/quarantine/smtp/" + name + ".rmd"); }

    // The exit status.
    int Run(std::string const& arguments) {
        std::string const command = std::string(VELT_QUEUE) + " --root " + m_root.path() + ' ' + arguments;
        FILE* const pipe = ::popen((command + " 2>" + (m_root / "/error")).c_str(), "r");
        m_out.clear();
        char block[4096];
        while (std::size_t const n = std::fread(block, 1, sizeof block, pipe)) m_out.append(block, n);
        int const status = ::pclose(pipe);
        m_error = m_root.Read("/error");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::vector<Json> Lines() const {
        std::vector<Json> lines;
        for (std::size_t at = 0, end; at < m_out.size(); at = end + 1) {
            end = m_out.find('\n', at);
            lines.push_back(Json::parse(m_out.substr(at, end - at)));
        }
        return lines;
    }
    static smtp::RetryStatus StatusOf(std::string const& path) {
        RetryFile file(::open(path.c_str(), O_RDONLY | O_CLOEXEC), path);
        EXPECT_EQ(file.Read(), smtp::RetryFault::None);
        VELT::ScannerStream message("queue", false);
        EXPECT_EQ(file.ReadMessage(message), smtp::RetryFault::None);
        return file.status();
    }
    static bool IsDue(std::string const& path) {  // by the default of "NewFileDelta"
        struct stat facts {};
        return ::stat(path.c_str(), &facts) == 0 && facts.st_ctime - facts.st_mtime < 5;
    }

    velt_testing::TempRoot m_root;
    std::string m_out, m_error;
};

// Another process that works on a file while the object lives.
class Holder {
public:
    explicit Holder(std::string const& path) {
        int ready[2];
        EXPECT_EQ(::pipe(ready), 0);
        m_child = ::fork();
        if (m_child == 0) {
            int const fd = ::open(path.c_str(), O_RDWR);
            char const answer = ::lockf(fd, F_TLOCK, 0) == 0 ? 'y' : 'n';
            if (::write(ready[1], &answer, 1) != 1) ::_exit(1);
            ::pause();
        }
        char answer = 'n';
        EXPECT_EQ(::read(ready[0], &answer, 1), 1);
        EXPECT_EQ(answer, 'y');
        ::close(ready[0]);
        ::close(ready[1]);
    }
    ~Holder() {
        ::kill(m_child, SIGKILL);
        ::waitpid(m_child, nullptr, 0);
    }

private:
    pid_t m_child;
};

}  // namespace

TEST_F(VeltQueue, ListsBothQueuesTheOldestFirst) {
    Wait("b1", 120);
    Wait("a1", 7300);
    Hold("c1.q1");
    EXPECT_EQ(Run("list"), 0);
    EXPECT_EQ(m_out,
              "a1  deferred  2h 1m  0.1 KiB  <alice@outside.example>\n"
              "    to <bob@inside.example> by inside.example\n"
              "    3 tries, the next one in 1h 6m: 451 4.4.1 next server cannot be reached\n"
              "b1  deferred  2m  0.1 KiB  <alice@outside.example>\n"
              "    to <bob@inside.example> by inside.example\n"
              "    3 tries, the next one in 1h 6m: 451 4.4.1 next server cannot be reached\n"
              "c1.q1  quarantine  1m  0.1 KiB  <>\n"
              "    to <bob@inside.example> by inside.example\n"
              "    held: QUARANTINE, KORAVScanner: EICAR-Test-File\n"
              "3 mails, 0.2 KiB, 1 held\n");
    EXPECT_EQ(Run("--queue quarantine list --from ''"), 0);
    EXPECT_NE(m_out.find("\n1 mail, "), std::string::npos) << m_out;
}

TEST_F(VeltQueue, HasNothingToTellOfDirectoriesThatAreNotThere) {
    std::filesystem::remove_all(m_root / "/deferred");
    EXPECT_EQ(Run("list"), 0);
    EXPECT_EQ(m_out, "0 mails, 0.0 KiB\n");
}

TEST_F(VeltQueue, ReadsTheDirectoriesAndTheServerFromTheConfiguration) {
    std::string const other = m_root / "/elsewhere/";
    std::filesystem::create_directories(other);
    m_root.Write("/config/qxxmlconf/rules.xml",
                 "<rules><policy name=\"base\"><settings section=\"quarantineretryer\"><set name=\"ScanDir\">" + other +
                     "</set></settings><settings section=\"smtp\"><set name=\"RelayHost\">mx.example</set></settings>"
                     "</policy></rules>");
    Hold("a1.q1", 60, other);
    EXPECT_EQ(Run("list --json"), 0);
    ASSERT_EQ(Lines().size(), 1u);
    EXPECT_EQ(Lines()[0]["destination"], "mx.example:25");
    EXPECT_EQ(Lines()[0]["file"], other + "a1.q1.rmd");
}

TEST_F(VeltQueue, TellsProgramsEverythingOnALine) {
    Hold("a1.q1", 7300);
    EXPECT_EQ(Run("list --json"), 0);
    ASSERT_EQ(Lines().size(), 1u);
    Json const mail = Lines()[0];
    EXPECT_EQ(mail["id"], "a1.q1");
    EXPECT_EQ(mail["audit_id"], "a1");
    EXPECT_EQ(mail["queue"], "quarantine");
    EXPECT_EQ(mail["sender"], "");
    EXPECT_EQ(mail["recipients"][0]["address"], "bob@inside.example");
    EXPECT_EQ(mail["recipients"][0]["state"], "held");
    EXPECT_EQ(mail["action"], "QUARANTINE");
    EXPECT_EQ(mail["finding"], "KORAVScanner: EICAR-Test-File");
    EXPECT_GE(mail["age"], 7300);
    EXPECT_EQ(mail["size"], sizeof kMessage - 1);
    EXPECT_TRUE(mail["held"]);
    EXPECT_TRUE(mail["released"].is_null() && mail["problem"].is_null());
}

TEST_F(VeltQueue, ShowsTheHeaderWithoutWhatATerminalCouldObey) {
    Hold("a1.q1");
    EXPECT_EQ(Run("show a1.q1"), 0);
    EXPECT_NE(m_out.find("verdict     QUARANTINE, KORAVScanner: EICAR-Test-File\n"), std::string::npos) << m_out;
    EXPECT_NE(m_out.find("recipient   <bob@inside.example>, held, identity staff\n"), std::string::npos) << m_out;
    EXPECT_NE(m_out.find("\n\nSubject: hello ?[31mred\nTo: bob\n    and carol\n"), std::string::npos) << m_out;
    EXPECT_EQ(m_out.find("The text."), std::string::npos);
    EXPECT_EQ(Run("show --body a1.q1"), 0);
    EXPECT_EQ(m_out, kMessage);
}

TEST_F(VeltQueue, KnowsAMailByItsAuditIdWithAllItsFiles) {
    Hold("a1.q1");
    Hold("a1.q2");
    Hold("a11.q1");
    EXPECT_EQ(Run("show --json a1"), 0);
    EXPECT_EQ(Lines().size(), 2u);
    EXPECT_EQ(Run("show a2"), 1);
    EXPECT_EQ(m_error, "velt-queue: a2: there is no such mail\n");
}

TEST_F(VeltQueue, ReleasesToTheDeferredDirectoryWhereItIsDueAtOnce) {
    Hold("a1.q1");
    struct stat before {};
    ASSERT_EQ(::stat((Quarantine() + "a1.q1.rmd").c_str(), &before), 0);
    EXPECT_EQ(Run("release a1.q1"), 0);
    EXPECT_EQ(m_out, "a1.q1: released\n");
    EXPECT_FALSE(IsHeld("a1.q1"));
    std::string const path = Deferred() + "a1.q1.rmd";
    smtp::RetryStatus const status = StatusOf(path);
    EXPECT_TRUE(status.waits());
    EXPECT_FALSE(status.isHeld());
    EXPECT_LE(std::time(nullptr) - status.released, 60);
    EXPECT_EQ(status.reason.find("released by "), 0u);
    EXPECT_TRUE(IsDue(path));
    EXPECT_EQ(Run("release a1.q1"), 1);
    EXPECT_EQ(m_error, "velt-queue: a1.q1: it is not held\n");
}

TEST_F(VeltQueue, FinishesAReleaseThatWasCutOff) {
    Hold("a1.q1");
    std::filesystem::remove(Deferred());
    m_root.Write("/deferred/smtp", "a file in the way");
    EXPECT_EQ(Run("release a1.q1"), 1);
    EXPECT_TRUE(StatusOf(Quarantine() + "a1.q1.rmd").isHeld()) << "nothing was done";
    std::filesystem::remove(m_root / "/deferred/smtp");
    RetryFile file(::open((Quarantine() + "a1.q1.rmd").c_str(), O_RDWR), Quarantine() + "a1.q1.rmd");
    ASSERT_EQ(file.Read(), smtp::RetryFault::None);
    smtp::RetryStatus status = file.status();
    status.recipients = {State::Waiting};
    status.released = 1700000000;
    ASSERT_TRUE(file.Note(status));
    EXPECT_EQ(Run("list"), 0);
    EXPECT_NE(m_out.find("released, and not moved; release it again"), std::string::npos) << m_out;
    EXPECT_EQ(Run("retry a1.q1"), 1);
    EXPECT_EQ(Run("release a1.q1"), 0);
    EXPECT_LE(std::time(nullptr) - StatusOf(Deferred() + "a1.q1.rmd").released, 60) << "its age counts from here";
}

TEST_F(VeltQueue, FinishesWhateverItIsAskedAReleaseThatStoodAlready) {
    for (char const* const command : {"list", "show --all", "retry --all", "release --all"}) {
        HalveRelease("a1.q1");
        EXPECT_EQ(Run(std::string(command) + " --json"), 0) << command << m_error;
        EXPECT_TRUE(StatusOf(Deferred() + "a1.q1.rmd").waits());
        EXPECT_TRUE(IsDue(Deferred() + "a1.q1.rmd"));
        EXPECT_FALSE(IsHeld("a1.q1"));
        ASSERT_EQ(Lines().size(), 1u);
        EXPECT_EQ(Lines()[0]["queue"], "deferred");
        std::filesystem::remove(Deferred() + "a1.q1.rmd");
    }
}

TEST_F(VeltQueue, SaysOfAReleaseThatItFinishedThatItIsDone) {
    for (char const* const id : {"a1.q1", "a1"}) {
        HalveRelease("a1.q1");
        EXPECT_EQ(Run(std::string("release ") + id), 0) << m_error;
        EXPECT_EQ(m_out, "a1.q1: released\n");
        EXPECT_LE(std::time(nullptr) - StatusOf(Deferred() + "a1.q1.rmd").released, 60) << "its age counts from here";
        std::filesystem::remove(Deferred() + "a1.q1.rmd");
    }
}

TEST_F(VeltQueue, DeletesAMailWhoseReleaseWasCutOffBeforeSomebodyDeliversIt) {
    HalveRelease("a1.q1");
    EXPECT_EQ(Run("delete a1.q1"), 0);
    EXPECT_FALSE(IsDeferred("a1.q1") || IsHeld("a1.q1"));
    HalveRelease("a1.q1");
    std::filesystem::rename(Quarantine() + "a1.q1.rmd", Quarantine() + "a1.q1.rmd.released");
    EXPECT_EQ(Run("delete --queue deferred --all"), 0);
    EXPECT_TRUE(std::filesystem::is_empty(Deferred()) && std::filesystem::is_empty(Quarantine()));
}

// Nobody would ever finish what is left of it.
TEST_F(VeltQueue, DeletesTheHeldCopyOfAReleaseThatWasCutOffAlsoByAFilter) {
    HalveRelease("a1.q1");
    EXPECT_EQ(Run("delete --older 1s"), 0) << m_error;
    EXPECT_FALSE(IsDeferred("a1.q1") || IsHeld("a1.q1"));
    HalveRelease("a1.q1");
    Holder const worker(Deferred() + "a1.q1.rmd");
    EXPECT_EQ(Run("delete --older 1s"), 1);
    EXPECT_TRUE(IsDeferred("a1.q1") && IsHeld("a1.q1"));
}

// As after the deferred directory was another one for a while.
TEST_F(VeltQueue, CountsAsASecondCopyWhatIsReleasedAgainAfterItsCopyLeft) {
    for (bool const before : {true, false}) {
        if (before) HalveRelease("a1.q1");
        if (!before) Hold("a1.q1");
        if (before) std::filesystem::rename(Deferred() + "a1.q1.rmd", Quarantine() + "a1.q1.rmd");
        EXPECT_EQ(Run("release a1.q1"), 0) << m_error;
        EXPECT_EQ(StatusOf(Deferred() + "a1.q1.rmd").unsure, before);
        std::filesystem::remove(Deferred() + "a1.q1.rmd");
    }
}

TEST_F(VeltQueue, TellsOfAReleaseThatCannotBeFinishedYet) {
    HalveRelease("a1.q1");
    EXPECT_EQ(Run("release --all --dry-run"), 0);
    EXPECT_TRUE(IsHeld("a1.q1")) << "nothing was to be done";
    Holder const worker(Deferred() + "a1.q1.rmd");
    EXPECT_EQ(Run("list --queue deferred"), 0);
    EXPECT_NE(m_out.find("released, and not moved; release it again"), std::string::npos) << m_out;
    EXPECT_EQ(Run("--queue deferred release a1.q1"), 1);
    EXPECT_NE(m_error.find("somebody works on it; try again"), std::string::npos) << m_error;
}

TEST_F(VeltQueue, ReleasesHeldMailThatSomebodyMovedByHand) {
    Hold("a1.q1", 60, Deferred());
    EXPECT_EQ(Run("retry a1.q1"), 1);
    EXPECT_EQ(m_error, "velt-queue: a1.q1: it is held; release it\n");
    EXPECT_EQ(Run("release a1.q1"), 0);
    EXPECT_TRUE(StatusOf(Deferred() + "a1.q1.rmd").waits());
}

TEST_F(VeltQueue, OverwritesNoMailOfTheSameName) {
    Hold("a1");
    Wait("a1");
    EXPECT_EQ(Run("--queue quarantine release a1"), 1);
    EXPECT_NE(m_error.find("cannot be moved; release it again: File exists"), std::string::npos) << m_error;
    EXPECT_TRUE(IsHeld("a1"));
    EXPECT_EQ(StatusOf(Deferred() + "a1.rmd").tries, 3u);
}

TEST_F(VeltQueue, HasAMailTriedAtOnce) {
    Wait("a1");
    std::string const path = Deferred() + "a1.rmd";
    EXPECT_FALSE(IsDue(path));
    EXPECT_EQ(Run("retry a1"), 0);
    EXPECT_TRUE(IsDue(path));
    smtp::RetryStatus const status = StatusOf(path);
    EXPECT_LE(std::time(nullptr) - status.asked(), 60);
    EXPECT_EQ(status.tries, 3u);
    EXPECT_EQ(status.reason, "451 4.4.1 next server cannot be reached");
    EXPECT_EQ(Run("list"), 0);
    EXPECT_NE(m_out.find("3 tries, the next one at once: 451"), std::string::npos) << m_out;
}

TEST_F(VeltQueue, DeletesWhatAFilterChoosesFromTheQuarantineAlone) {
    Hold("old.q1", 31 * 86400);
    Hold("new.q1");
    Wait("waits", 31 * 86400);
    EXPECT_EQ(Run("delete --older 30d --dry-run"), 0);
    EXPECT_EQ(m_out, "old.q1: would be deleted\n");
    EXPECT_TRUE(IsHeld("old.q1"));
    EXPECT_EQ(Run("delete --older 30d"), 0);
    EXPECT_EQ(m_out, "old.q1: deleted\n");
    EXPECT_FALSE(IsHeld("old.q1"));
    EXPECT_TRUE(IsHeld("new.q1") && IsDeferred("waits"));
    EXPECT_EQ(Run("delete --older 30d"), 0) << "none is no failure";
    EXPECT_EQ(Run("delete --older 30d --queue deferred"), 0);
    EXPECT_FALSE(IsDeferred("waits"));
}

TEST_F(VeltQueue, LeavesAloneWhatSomebodyWorksOn) {
    Wait("a1");
    Hold("b1.q1");
    Holder const first(Deferred() + "a1.rmd");
    Holder const second(Quarantine() + "b1.q1.rmd");
    for (char const* const command : {"retry a1", "delete a1", "release b1.q1", "delete b1.q1"}) {
        EXPECT_EQ(Run(command), 1) << command;
        EXPECT_NE(m_error.find(": somebody works on it; try again\n"), std::string::npos) << m_error;
    }
    EXPECT_TRUE(IsDeferred("a1") && IsHeld("b1.q1"));
    EXPECT_EQ(Run("list"), 0);
    EXPECT_NE(m_out.find("    being tried now\n"), std::string::npos) << m_out;
}

TEST_F(VeltQueue, TellsOfDamagedFilesAndDeletesThemByName) {
    Wait("a1");
    m_root.Write("/deferred/smtp/bad.rmd", "not a mail");
    m_root.Write("/deferred/smtp/young.rmd.tmp", "unfinished");
    EXPECT_EQ(Run("list"), 0);
    EXPECT_NE(m_out.find("bad  deferred  damaged: not a file of this kind\n"), std::string::npos) << m_out;
    EXPECT_NE(m_out.find("2 mails, 0.1 KiB, 1 damaged\n"), std::string::npos) << m_out;
    EXPECT_EQ(Run("show bad"), 1);
    EXPECT_EQ(Run("retry --all"), 1);
    EXPECT_EQ(m_error, "velt-queue: bad: not a file of this kind\n");
    EXPECT_EQ(Run("delete --json bad"), 0);
    EXPECT_EQ(Lines()[0]["done"], "deleted");
    EXPECT_FALSE(IsDeferred("bad"));
}

TEST_F(VeltQueue, FollowsNoLink) {
    Wait("a1");
    std::filesystem::rename(Deferred() + "a1.rmd", m_root / "/precious");
    std::filesystem::create_symlink(m_root / "/precious", Deferred() + "a1.rmd");
    EXPECT_EQ(Run("retry a1"), 1);
    EXPECT_EQ(Run("delete a1"), 1);
    EXPECT_TRUE(m_root.Exists("/precious"));
}

TEST_F(VeltQueue, SaysWhatIsWrongWithItsCallAndItsConfiguration) {
    EXPECT_EQ(Run("purge"), 2);
    EXPECT_EQ(m_error.find("velt-queue: no such command: purge\nusage: velt-queue list"), 0u) << m_error;
    m_root.Write("/config/qxxmlconf/rules.xml", "<rules>");
    EXPECT_EQ(Run("list"), 2);
    EXPECT_NE(m_error.find("rules.xml"), std::string::npos) << m_error;
    EXPECT_EQ(Run("--help"), 0);
    EXPECT_EQ(m_out.find("NAME\n    velt-queue"), 0u);
    std::filesystem::remove_all(m_root / "/config");
    EXPECT_EQ(Run("list"), 2);
    EXPECT_NE(m_error.find("No such file or directory"), std::string::npos) << m_error;
}
