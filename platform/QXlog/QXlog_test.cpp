// The whole way from a report to its sink. syslog and the journal are caught at their calls.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <KORtk/Exception.h>
#include <QXStats/QXCounter.h>
#include <QXlog/Names.h>
#include <QXlog/Prepared.h>
#include <QXlog/QXlog.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "testing/TempRoot.h"

namespace {
std::vector<std::string>& Syslog() {
    static std::vector<std::string> lines;
    return lines;
}
std::vector<std::string>& Journal() {
    static std::vector<std::string> fields;
    return fields;
}
bool s_journalRuns = false;
std::string& LogDaemon() {  // the socket in the place of those of the log daemons; empty: they are as they are
    static std::string path;
    return path;
}
std::atomic<unsigned long> s_allocations{0};
}  // namespace

extern "C" {
void openlog(char const* ident, int option, int facility) {
    Syslog().push_back("open " + std::string(ident) + ' ' + std::to_string(option) + ' ' + std::to_string(facility));
}
int access(char const* path, int mode) noexcept {
    if (std::string(path) == "/run/systemd/journal/socket") return s_journalRuns ? 0 : -1;
    return ::faccessat(AT_FDCWD, path, mode, 0);
}
int sd_journal_sendv(iovec const* rows, int count) {
    for (int i = 0; i < count; ++i) Journal().emplace_back(static_cast<char const*>(rows[i].iov_base), rows[i].iov_len);
    return 0;
}
int connect(int socket, sockaddr const* address, socklen_t length) {
    sockaddr_un name{};
    if (address->sa_family == AF_UNIX && !LogDaemon().empty()) {
        name.sun_family = AF_UNIX;
        LogDaemon().copy(name.sun_path, sizeof name.sun_path - 1);
        address = reinterpret_cast<sockaddr const*>(&name);
        length = sizeof name;
    }
    return static_cast<int>(::syscall(SYS_connect, socket, address, length));
}
void closelog() {}
void syslog(int priority, char const* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char text[65536];
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    Syslog().push_back(std::to_string(priority) + ' ' + format + ' ' + text);
}
}

#ifndef VELT_SANITIZED
__attribute__((noinline)) void* operator new(std::size_t size) {
    ++s_allocations;
    if (void* const memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* memory) noexcept { std::free(memory); }
__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
#endif

namespace {

using namespace QXlog::names;
using Begins = QXlog::EventT<991003, QXlog::ReasonT<68>>;
using Queued = QXlog::EventT<991003, QXlog::ReasonT<66>>;

void Report(QXlog::Event const& event, KORlog::InfoBag const& bag = {}) {
    if (QXlog::detail::is_loggable(event))
        QXlog::detail::get_qxtarget().sendlog(KORlog::sev::no_sev, KORtk::Here(), event, "", bag);
}

std::size_t Threads() {
    std::size_t count = 0;
    for ([[maybe_unused]] auto const& entry : std::filesystem::directory_iterator("/proc/self/task")) ++count;
    return count;
}

class Logging : public ::testing::Test {
protected:
    ~Logging() override { QXlog::shutdownEvRep(); }
    void Configure(std::string const& text) {
        m_root.Write("l.xml", text);
        QXlog::init("smtp", m_root / "l.xml");
        QXlog::initEvRep(0, 0);
    }
    void ToFile(std::string const& more = "") {
        Configure("<logging><sink type='json' file='" + (m_root / "out.json") + "'/>" + more + "</logging>");
    }
    std::vector<std::string> Lines(std::string const& file = "out.json") {
        std::istringstream in(m_root.Read(file));
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }
    velt_testing::TempRoot m_root;
};

TEST_F(Logging, AMissingFileSendsEverythingToSyslog) {
    Syslog().clear();
    QXlog::init("smtp", m_root / "none.xml");
    QXlog::initEvRep(0, 0);
    Report(Begins::value, QXPROP_SOURCE_HOSTNAME("a%s%n\nb"));
    ASSERT_EQ(Syslog().size(), 2u);
    EXPECT_EQ(Syslog()[0], "open smtp " + std::to_string(LOG_PID | LOG_NDELAY) + ' ' + std::to_string(LOG_DAEMON));
    EXPECT_EQ(Syslog()[1], std::to_string(LOG_DAEMON | LOG_INFO) + " %s 991003:68: source_hostname=\"a%s%n\\nb\"");
}

#ifdef VELT_WITH_SYSTEMD
TEST_F(Logging, TheJournalTakesARecordAsFields) {
    Journal().clear();
    s_journalRuns = true;
    Configure("<logging><sink type='journal'/></logging>");
    Report(Begins::value, QXPROP_SOURCE_IP("192.0.2.1"));
    ASSERT_FALSE(Journal().empty());
    EXPECT_EQ(Journal().front(), "MESSAGE=991003:68: source_ip=192.0.2.1");
    EXPECT_EQ(Journal().back(), "VELT_SOURCE_IP=192.0.2.1");
}
#endif

TEST_F(Logging, WhereNoJournalRunsItsRecordsGoToSyslog) {
    Syslog().clear();
    Journal().clear();
    s_journalRuns = false;
    Configure("<logging><sink type='journal'/></logging>");
    Report(Begins::value);
    EXPECT_TRUE(Journal().empty());
    EXPECT_EQ(Syslog().size(), 2u);
}

TEST_F(Logging, AMalformedFileThrowsAndLeavesWhatWas) {
    ToFile();
    m_root.Write("bad.xml", "<logging>\n<sink type='nothing'/></logging>");
    try {
        QXlog::init("other", m_root / "bad.xml");
        FAIL() << "no exception";
    } catch (KORtk::Exception const& failure) {
        EXPECT_EQ(failure.text(), (m_root / "bad.xml") + ":2:2: type is journal, syslog, json or text");
    }
    Report(Begins::value);
    ASSERT_EQ(Lines().size(), 1u);
    EXPECT_NE(Lines()[0].find("\"identity\":\"smtp\""), std::string::npos);
}

TEST_F(Logging, ASinkThatCannotBeOpenedIsToldAtTheStart) {
    m_root.Write("l.xml", "<logging><sink type='json' file='" + (m_root / "no/such/folder.json") + "'/></logging>");
    QXlog::init("smtp", m_root / "l.xml");
    EXPECT_THROW(QXlog::initEvRep(0, 0), KORtk::Exception);
}

TEST_F(Logging, ARecordIsOneJsonLine) {
    ToFile();
    Report(Begins::value, QXPROP_VELT_PID(7));
    ASSERT_EQ(Lines().size(), 1u);
    EXPECT_NE(Lines()[0].find("\"identity\":\"smtp\",\"pid\":" + std::to_string(::getpid()) +
                              ",\"event\":991003,\"reason\":68"),
              std::string::npos)
        << Lines()[0];
    EXPECT_NE(Lines()[0].find("\"values\":{\"velt_pid\":7}"), std::string::npos);
    EXPECT_NE(Lines()[0].find("QXlog_test.cpp"), std::string::npos);
}

TEST_F(Logging, TheFileSwitchesEventsOff) {
    ToFile("<events><event number='991003' reason='66' switch='off'/></events>");
    Report(Queued::value);
    Report(Begins::value);
    ASSERT_EQ(Lines().size(), 1u);
    EXPECT_NE(Lines()[0].find("\"reason\":68"), std::string::npos);
}

TEST_F(Logging, SwitchesHoldFromInitOnBeforeTheSinksAreOpen) {
    m_root.Write("l.xml",
                 "<logging><sink type='json' file='" + (m_root / "out.json") +
                     "'/><events default='off'><event number='991003' reason='68' switch='on'/></events></logging>");
    QXlog::init("smtp", m_root / "l.xml");
    EXPECT_TRUE(QXlog::detail::is_loggable(Begins::value));
    EXPECT_FALSE(QXlog::detail::is_loggable(Queued::value));
    Report(Begins::value);
    EXPECT_EQ(Lines().size(), 1u);
}

TEST_F(Logging, NoLoggingWritesNothingMoreAndInitUndoesIt) {
    ToFile();
    QXlog::detail::noLogging();
    Report(Begins::value);
    EXPECT_TRUE(Lines().empty());
    ToFile();
    Report(Begins::value);
    EXPECT_EQ(Lines().size(), 1u);
}

TEST_F(Logging, StandardErrorTakesTextBesideTheOtherSinks) {
    ToFile();
    ::testing::internal::CaptureStderr();
    QXlog::detail::stdErrLogging(true);
    Report(Begins::value);
    QXlog::detail::stdErrLogging(false);
    Report(Begins::value);
    std::string const seen = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(seen.find(" smtp[" + std::to_string(::getpid()) + "]: 991003:68\n"), std::string::npos) << seen;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), '\n'), 1);
    EXPECT_EQ(Lines().size(), 2u);
}

TEST_F(Logging, StandardErrorIsNotWrittenTwice) {
    Configure("<logging><sink type='text'/></logging>");
    ::testing::internal::CaptureStderr();
    QXlog::detail::stdErrLogging(true);
    Report(Begins::value);
    std::string const seen = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), '\n'), 1) << seen;
}

TEST_F(Logging, NoThreadIsStartedBeforeItIsAskedFor) {
    std::size_t const before = Threads();
    ToFile();
    Report(Begins::value);
    EXPECT_EQ(Threads(), before);
    QXlog::goAsyncEvRep(0);
    std::size_t const with = Threads();  // a sanitizer may have started one of its own beside it
    EXPECT_GT(with, before);
    QXlog::goAsyncEvRep(0);
    EXPECT_EQ(Threads(), with);
    QXlog::shutdownEvRep();
    EXPECT_EQ(Threads(), with - 1);
}

TEST_F(Logging, ShutdownLosesNoRecord) {
    ToFile("<queue size='16'/>");
    QXlog::goAsyncEvRep(0);
    std::vector<std::thread> reporters;
    for (int t = 0; t < 4; ++t)
        reporters.emplace_back([] {
            for (int i = 0; i < 200; ++i) Report(Begins::value, QXPROP_VALUE(i));
        });
    for (std::thread& reporter : reporters) reporter.join();
    QXlog::shutdownEvRep();
    EXPECT_EQ(Lines().size(), 800u);
}

TEST_F(Logging, AfterShutdownReportsGoNowhere) {
    ToFile();
    QXlog::shutdownEvRep();
    EXPECT_FALSE(QXlog::detail::is_loggable(Begins::value));
    QXlog::detail::get_qxtarget().sendlog(KORlog::sev::no_sev, KORtk::Here(), Begins::value, "", {});
    EXPECT_TRUE(Lines().empty());
}

TEST_F(Logging, AChildOfAThreadedProcessWritesItself) {
    ToFile();
    QXlog::goAsyncEvRep(0);
    Report(Begins::value);
    pid_t const child = ::fork();
    if (child == 0) {
        Report(Queued::value);
        ::_exit(0);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    QXlog::shutdownEvRep();
    EXPECT_EQ(Lines().size(), 2u);
}

TEST_F(Logging, AFileThatWasMovedAwayIsMadeAnew) {
    ToFile();
    std::filesystem::rename(m_root / "out.json", m_root / "old.json");
    Report(Begins::value);  // the first record looks
    EXPECT_EQ(Lines().size(), 1u);
    EXPECT_TRUE(Lines("old.json").empty());
}

TEST_F(Logging, AFailingSinkIsCountedAndHarmsNobody) {
    Configure("<logging><sink type='json' file='/dev/full'/></logging>");
    QXStats::QXCounter const errors("logging.sink.errors");
    unsigned long const before = errors.value();
    Report(Begins::value);
    EXPECT_EQ(errors.value(), before + 1);
}

TEST_F(Logging, AnEventThatIsOffAllocatesNothing) {
    ToFile("<events default='off'/>");
    unsigned long const before = s_allocations;
    for (int i = 0; i < 1000; ++i) Report(Begins::value);
    EXPECT_EQ(s_allocations, before);
}

TEST_F(Logging, WordsOfTheCatalogueAreInTheRecord) {
    static constexpr QXlog::EventText kRow{991003, 66, "session queued"};
    QXlog::RegisterTexts(&kRow, 1);
    ToFile();
    Report(Queued::value);
    ASSERT_EQ(Lines().size(), 1u);
    EXPECT_NE(Lines()[0].find("\"words\":\"session queued\""), std::string::npos);
}

// --- Reports that are formatted in advance ---

class PreparedLogging : public Logging {
protected:
    std::unique_ptr<QXlog::detail::PreparedReport> Prepare() {
        return QXlog::detail::prepare(Begins::value, KORtk::Here(), "", QXPROP_VELT_PID(7));
    }
};

// A socket that a log daemon would have; gives what is sent to it.
class Daemon {
public:
    explicit Daemon(std::string const& path) : m_socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un name{};
        name.sun_family = AF_UNIX;
        path.copy(name.sun_path, sizeof name.sun_path - 1);
        if (::bind(m_socket, reinterpret_cast<sockaddr const*>(&name), sizeof name) == 0) LogDaemon() = path;
    }
    ~Daemon() {
        LogDaemon().clear();
        ::close(m_socket);
    }
    std::string Take() {
        char text[4096];
        ssize_t const length = ::recv(m_socket, text, sizeof text, MSG_DONTWAIT);
        return std::string(text, length < 0 ? 0 : static_cast<std::size_t>(length));
    }

private:
    int m_socket;
};

TEST_F(PreparedLogging, AreWrittenAsOthersWithTheTimeAtWhichTheyAreMade) {
    ToFile();
    auto const report = Prepare();
    EXPECT_TRUE(Lines().empty());
    Report(Queued::value);
    QXlog::detail::emit_prepared(*report);
    QXlog::detail::emit_prepared(*report);
    ASSERT_EQ(Lines().size(), 3u);
    EXPECT_NE(Lines()[1].find("\"event\":991003,\"reason\":68"), std::string::npos);
    EXPECT_NE(Lines()[1].find("\"values\":{\"velt_pid\":7}}"), std::string::npos);
    auto const time = [&](std::size_t line) { return Lines()[line].substr(0, 37); };
    EXPECT_LE(time(0), time(1)) << "made after the one before it";
    EXPECT_LT(time(1), time(2));
    EXPECT_EQ(Lines()[1].substr(37), Lines()[2].substr(37));
}

TEST_F(PreparedLogging, TakeNoMemoryToMake) {
    ToFile();
    auto const report = Prepare();
    unsigned long const before = s_allocations;
    QXlog::detail::emit_prepared(*report);
    EXPECT_EQ(s_allocations, before);
}

TEST_F(PreparedLogging, ArePastTheQueue) {
    ToFile();
    QXlog::goAsyncEvRep(0);
    auto const report = Prepare();
    QXlog::detail::emit_prepared(*report);
    EXPECT_EQ(Lines().size(), 1u);
}

TEST_F(PreparedLogging, AreDroppedWhereTheSinksAreOthersByNow) {
    ToFile();
    auto const report = Prepare();
    QXlog::shutdownEvRep();
    QXlog::detail::emit_prepared(*report);
    ToFile();
    QXlog::detail::emit_prepared(*report);
    EXPECT_TRUE(Lines().empty());
    QXlog::detail::emit_prepared(*Prepare());
    EXPECT_EQ(Lines().size(), 1u);
    QXlog::detail::noLogging();
    QXlog::detail::emit_prepared(*Prepare());
    EXPECT_EQ(Lines().size(), 1u);
}

TEST_F(PreparedLogging, GoToStandardErrorToo) {
    Configure("<logging><sink type='text'/></logging>");
    ::testing::internal::CaptureStderr();
    QXlog::detail::emit_prepared(*Prepare());
    std::string const seen = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(seen.find(" smtp[" + std::to_string(::getpid()) + "]: 991003:68"), std::string::npos) << seen;
}

TEST_F(PreparedLogging, GoToSyslogBesideTheLibrarysLock) {
    Daemon daemon(m_root / "log");
    Syslog().clear();
    Configure("<logging><sink type='syslog'/></logging>");
    auto const report = Prepare();
    EXPECT_EQ(daemon.Take(), "");
    QXlog::detail::emit_prepared(*report);
    std::string const seen = daemon.Take();
    std::string const head =
        "<" + std::to_string(LOG_DAEMON | LOG_INFO) + ">smtp[" + std::to_string(::getpid()) + "]: ";
    EXPECT_EQ(seen.substr(0, head.size() + 9), head + "991003:68");
    EXPECT_EQ(Syslog().size(), 1u) << "opened, and not written by";
}

#ifdef VELT_WITH_SYSTEMD
TEST_F(PreparedLogging, GoToTheJournalAsFields) {
    Daemon daemon(m_root / "journal");
    s_journalRuns = true;
    Configure("<logging><sink type='journal'/></logging>");
    QXlog::detail::emit_prepared(*Prepare());
    std::string const seen = daemon.Take();
    s_journalRuns = false;
    EXPECT_EQ(seen.rfind("MESSAGE=991003:68", 0), 0u) << seen;
    EXPECT_NE(seen.find("\nVELT_VELT_PID=7\n"), std::string::npos) << seen;
}
#endif

TEST_F(PreparedLogging, ThatASinkCannotTakeAreCounted) {
    Configure("<logging><sink type='json' file='/dev/full'/></logging>");
    QXStats::QXCounter const errors("logging.sink.errors");
    unsigned long const before = errors.value();
    QXlog::detail::emit_prepared(*Prepare());
    EXPECT_EQ(errors.value(), before + 1);
}

}  // namespace
