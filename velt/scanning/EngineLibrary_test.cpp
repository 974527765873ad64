// The framework's library: how it is loaded, its words in syslog, the file that it keeps open across fork, and what is
// kept of an item whose scan crashed.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "testing/Child.h"
#include "testing/FakePolicyStore.h"
#include "testing/ScriptedFramework.h"
#include "testing/SessionWorld.h"
#include "velt/Config.h"
#include "velt/scanning/EFabricLibrary.h"
#include "velt/scanning/EFabricScanAgent.h"
#include "velt/scanning/Scanner.h"

using namespace VELT;
using namespace velt_testing;

namespace {

struct Said {
    int priority;
    std::string text;
};

std::vector<Said> said;         // what went to syslog
std::vector<unsigned> alarms;   // what alarm was asked for
bool recordAlarms = false;      // and not set
void (*onAlarm)() = nullptr;    // the first that is asked for does this
char const* instead = nullptr;  // the library that dlopen gives; empty: none

void Say(int priority, char const* format, va_list arguments) {
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    said.push_back({priority, text});
}

template <class Function>
Function Next(char const* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

class Error final : public IKORError {
public:
    bool IsSet() const override { return set; }
    unsigned long GetCode() const override { return 4000000000ul; }
    int GetLevel() const override { return level; }
    wchar_t const* GetText() const override { return L"first \x141"; }
    wchar_t const* GetDetail() const override { return L"second"; }
    char const* GetAttribute(char const* name) const override { return std::strcmp(name, "a") == 0 ? "1" : nullptr; }
    char const* FirstAttribute(long& pos) const override { return pos = 0, "a"; }
    char const* NextAttribute(long& pos) const override { return ++pos == 1 ? "b" : nullptr; }

    bool set = true;
    int level = 0;
};

class LibraryTest : public testing::Test {
protected:
    LibraryTest() {
        said.clear();
        alarms.clear();
        world.proxy().SetProxyName("gateway");
        body.write("one message", 11u);
        context.data = &body;
        context.identities = {InternedString()};
    }
    ~LibraryTest() override {
        recordAlarms = false;
        script.scan = nullptr;
        script.giveThread = script.giveObject = true;
        delete output;
    }
    void Load() {
        ASSERT_TRUE(EFabricScanAgent::load("product.xml", "gateway", false, nullptr));
        context.policy = EFabricScanContext::get()->getPolicyLoader()->internAttribute("content_in");
        said.clear();
    }
    int Scan() {
        std::unique_ptr<ScanAgent> const agent(EFabricScanAgent::get());
        unsigned count = 0;
        if (agent->setup_scan(&context, count, 0) != 0) return -2;
        return agent->scan(0, output, false);
    }
    std::vector<std::string> KeptFiles() {
        std::vector<std::string> kept;
        std::string const folder = world.proxy().m_scanDir + "/segv";
        for (auto const& entry : std::filesystem::directory_iterator(folder)) kept.push_back(entry.path());
        return kept;
    }

    ScriptedFramework& script = ScriptedFramework::get();
    SessionWorld world;
    ScannerStream body{4096u};
    ScanContext context;
    ScanOutput* output = nullptr;
};

using FrameworkErrors = LibraryTest;
using FrameworkLibrary = LibraryTest;
using SharedScanFile = LibraryTest;
using CrashedScan = LibraryTest;

// The position of a file that several descriptors may share.
long Position(int fd) { return ::lseek(fd, 0, SEEK_CUR); }

}  // namespace

// In the place of the system's: the program's own definitions go first.
extern "C" {
void syslog(int priority, char const* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Say(priority, format, arguments);
    va_end(arguments);
}

void __syslog_chk(int priority, int, char const* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Say(priority, format, arguments);
    va_end(arguments);
}

void* dlopen(char const* file, int mode) noexcept {
    static auto* const real = Next<void* (*)(char const*, int)>("dlopen");
    if (!instead) return real(file, mode);
    return *instead ? real(instead, RTLD_NOW) : nullptr;
}

unsigned alarm(unsigned seconds) noexcept {
    if (recordAlarms) {
        alarms.push_back(seconds);
        if (auto* const once = std::exchange(onAlarm, nullptr)) once();
        return 0;
    }
    static auto* const real = Next<unsigned (*)(unsigned)>("alarm");
    return real(seconds);
}
}

// --- errors ---

TEST_F(FrameworkErrors, AreOneLineAndOneForEachAttribute) {
    write_efabric_error("here", 12, "Cannot do it", Error());
    ASSERT_EQ(said.size(), 3u);
    EXPECT_EQ(said[0].text, "here:12 Cannot do it INFO:4000000000 first A second");  // the low byte of each character
    EXPECT_EQ(said[1].text, "here:12 Attr a:1");
    EXPECT_EQ(said[2].text, "here:12 Attr b:");
    for (Said const& line : said) EXPECT_EQ(line.priority, 0x1E);
}

TEST_F(FrameworkErrors, NameTheirLevel) {
    char const* const names[] = {"INFO", "WARN", "ERROR", "FATAL", "?", "?"};
    for (int level = 0; level < 6; ++level) {
        Error error;
        error.level = level;
        said.clear();
        write_efabric_error("f", 1, "t", error);
        EXPECT_EQ(said.at(0).text.find(std::string("f:1 t ") + names[level] + ":"), 0u) << level;
    }
}

TEST_F(FrameworkErrors, ThatAreNotSetSaySo) {
    Error error;
    error.set = false;
    write_efabric_error("here", 12, "Cannot do it", error);
    ASSERT_EQ(said.size(), 1u);
    EXPECT_EQ(said[0].text, "here:12 Cannot do it Error structure not set");
    EXPECT_EQ(said[0].priority, 0x1E);
}

TEST_F(FrameworkErrors, OfWideTextAloneAreOneLine) {
    debug_wide_log("here", 12, L"text \x141");
    ASSERT_EQ(said.size(), 1u);
    EXPECT_EQ(said[0].text, "here:12 ERROR text A");
    EXPECT_EQ(said[0].priority, 0x1E);
}

TEST_F(FrameworkErrors, TellWhyNothingCouldBeScanned) {
    Load();
    script.giveThread = false;
    EXPECT_EQ(Scan(), -2);
    ASSERT_FALSE(said.empty());
    EXPECT_NE(said[0].text.find(" Cannot Create ScanThreadObject ERROR:7 scripted failure"), std::string::npos);
    script.giveThread = true;
    script.giveObject = false;
    said.clear();
    EXPECT_EQ(Scan(), -1);
    ASSERT_FALSE(said.empty());
    EXPECT_NE(said[0].text.find(" Cannot Create Scanner  ERROR:7 scripted failure"), std::string::npos);
}

TEST_F(FrameworkErrors, TellWhyItDidNotStart) {
    script.initialises = false;
    EXPECT_FALSE(EFabricScanAgent::load("product.xml", "gateway", false, nullptr));
    script.initialises = true;
    ASSERT_EQ(said.size(), 2u);
    EXPECT_NE(said[0].text.find(" Cannot initialise eFabric ERROR:7 scripted failure"), std::string::npos);
    EXPECT_NE(EFabricScanContext::get(), nullptr);  // the context is there on either outcome
    said.clear();
    script.giveLoader = false;
    EXPECT_FALSE(EFabricScanAgent::load("product.xml", "gateway", false, nullptr));
    script.giveLoader = true;
    EXPECT_TRUE(said.empty());
}

// --- the library ---

TEST_F(FrameworkLibrary, ThatIsMissingIsAFailureThatSaysSo) {
    if (EFabricScanContext::get()) GTEST_SKIP() << "this process has loaded it already";
    EXPECT_TRUE(InChild([&] {
        instead = "";
        bool const loaded = EFabricScanAgent::load("product.xml", "gateway", false, nullptr);
        EFabricScanAgent::finish();
        return !loaded && EFabricScanContext::get() && !EFabricScanAgent::getPolicyLoader() && said.size() == 1 &&
               said[0].priority == 0x1E && said[0].text.find(" Cannot load the policy loader") != std::string::npos;
    }));
}

TEST_F(FrameworkLibrary, WithoutItsFunctionsIsAFailureThatSaysSo) {
    if (EFabricScanContext::get()) GTEST_SKIP() << "this process has loaded it already";
    EXPECT_TRUE(InChild([&] {
        instead = "libm.so.6";
        bool const loaded = EFabricScanAgent::load("product.xml", "gateway", false, nullptr);
        EFabricScanAgent::finish();
        return !loaded && said.size() == 1 &&
               said[0].text.find(" Cannot find function CreatePolicyLoader") != std::string::npos;
    }));
}

// --- threads ---

TEST_F(FrameworkLibrary, ThatThrowsWhileItMakesAnObjectHoldsUpNoOtherThread) {
    Load();
    script.makingThread = [] { throw std::runtime_error("scripted"); };
    std::thread([&] { EXPECT_THROW(Scan(), std::runtime_error); }).join();
    script.makingThread = nullptr;
    std::thread([&] { EXPECT_EQ(Scan(), 0); }).join();
}

TEST_F(FrameworkLibrary, AThreadsScanThreadObjectEndsWithTheThread) {
    Load();
    script.Forget();
    std::thread([&] { EXPECT_EQ(Scan(), 0); }).join();
    auto const calls = script.Calls();
    EXPECT_EQ(calls.front(), "thread content_in");
    EXPECT_EQ(calls.back(), "release thread");
    delete std::exchange(output, nullptr);
    script.Forget();
    std::thread([&] { EXPECT_EQ(Scan(), 0); }).join();
    EXPECT_EQ(script.Calls().front(), "thread content_in");  // nothing is handed from thread to thread
}

TEST_F(FrameworkLibrary, AThreadThatGotNoneIsAskedForAgainAtTheNextScan) {
    Load();
    std::thread([&] {
        script.giveThread = false;
        EXPECT_EQ(Scan(), -2);
        script.giveThread = true;
        EXPECT_EQ(Scan(), 0);
    }).join();
}

TEST_F(FrameworkLibrary, AnotherContextTakesThePlaceOfTheProcesssOwn) {
    Load();
    auto* const first = EFabricScanContext::get();
    Load();
    ASSERT_NE(EFabricScanContext::get(), first);
    std::unique_ptr<ScanAgent> const agent(EFabricScanAgent::get());
    unsigned count = 0;
    agent->set_protocol(nullptr);
    EXPECT_EQ(agent->setup_scan(&context, count, 0), -1);
    agent->set_protocol(first);
    EXPECT_EQ(agent->setup_scan(&context, count, 0), 0);
    EXPECT_EQ(count, 1u);
}

TEST_F(FrameworkLibrary, WithoutAContextNothingIsSetUp) {
    Load();
    std::unique_ptr<ScanAgent> const agent(EFabricScanAgent::get());
    unsigned count = 7;
    EXPECT_EQ(agent->setup_scan(nullptr, count, 0), -1);
    EXPECT_EQ(count, 0u);
    EXPECT_FALSE(agent->is_streaming_media());
}

TEST_F(FrameworkLibrary, ScansAtTheTimeThatItIsToldOrElseAtThatOfTheClock) {
    Load();
    ScanAgent::set_time(1000);
    for (long const when : {0l, 12345l}) {
        std::unique_ptr<ScanAgent> const agent(EFabricScanAgent::get());
        unsigned count = 0;
        ASSERT_EQ(agent->setup_scan(&context, count, when), 0);
        delete std::exchange(output, nullptr);
        ASSERT_EQ(agent->scan(0, output, false), 0);
        EXPECT_EQ(script.when, when != 0 ? when : 1000);
        agent->is_av_scan_enabled(&context, when * 2);
        EXPECT_EQ(script.when, when != 0 ? 2 * when : 1000);
    }
}

TEST_F(FrameworkLibrary, WithoutAClockThreadTheTimeIsRefreshedByWhoReadsIt) {
    FakePolicyStore store;
    Config::initialise(&store);
    for (bool const threads : {false, true}) {
        store.Put("base", "process", "ForkedModelThreads", FakeValue::Flag(threads));
        EFabricScanAgent::initialise(&world.proxy().m_config);
        EFabricScanAgent::set_time(1000);
        if (threads)
            EXPECT_EQ(EFabricScanAgent::get_time(), 1000);
        else
            EXPECT_GT(EFabricScanAgent::get_time(), 1000);
    }
    Config::initialise(nullptr);
}

// --- the file that is open across fork ---

TEST_F(SharedScanFile, IsOpenedAnewUnderItsNumberByEachProcessThatStarts) {
    world.root().Write("opt/scan.dat", "0123456789");
    int const fd = ::open((world.root() / "opt/scan.dat").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_LT(fd, 32);
    ASSERT_EQ(::lseek(fd, 4, SEEK_SET), 4);
    Load();
    EXPECT_EQ(Position(fd), 4);
    EXPECT_TRUE(InChild([&] {
        EFabricScanAgent::start();
        bool const fresh = Position(fd) == 0;
        ::lseek(fd, 9, SEEK_SET);
        return fresh;
    }));
    EXPECT_EQ(Position(fd), 4);  // a child's position is its own
    // What is away by then leaves the descriptor as it is.
    EXPECT_TRUE(InChild([&] {
        std::filesystem::remove(world.root() / "opt/scan.dat");
        EFabricScanAgent::start();
        return Position(fd) == 4;
    }));
    ::close(fd);
}

TEST_F(SharedScanFile, LeavesOtherFilesAlone) {
    world.root().Write("opt/xscan.dat", "0123456789");
    int const fd = ::open((world.root() / "opt/xscan.dat").c_str(), O_RDONLY);
    ASSERT_EQ(::lseek(fd, 4, SEEK_SET), 4);
    Load();
    EXPECT_TRUE(InChild([&] {
        EFabricScanAgent::start();
        return Position(fd) == 4;
    }));
    ::close(fd);
}

// --- crashes ---

TEST_F(CrashedScan, KeepsItsItemForTheOperatorAlone) {
    Load();
    EFabricScanAgent::start();
    std::filesystem::create_directories(world.proxy().m_scanDir + "/segv");
    script.scan = [](eFabric::IStreamTransport&, eFabric::IStreamTransport*) -> IScanResultHandler const* {
        ScanAgent::segv();
        return nullptr;
    };
    mode_t const before = ::umask(0);
    ASSERT_EQ(Scan(), 0);
    EXPECT_EQ(::umask(before), 0u);
    auto const kept = KeptFiles();
    ASSERT_EQ(kept.size(), 1u);
    struct stat status;
    ASSERT_EQ(::stat(kept[0].c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(CrashedScan, HasTenSecondsToKeepItsItem) {
    Load();
    EFabricScanAgent::start();
    std::filesystem::create_directories(world.proxy().m_scanDir + "/segv");
    bool ignored = false;
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGALRM);
    ::signal(SIGALRM, SIG_IGN);
    ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    script.scan = [&](eFabric::IStreamTransport&, eFabric::IStreamTransport*) -> IScanResultHandler const* {
        recordAlarms = true;
        ScanAgent::segv();
        recordAlarms = false;
        struct sigaction now;
        ::sigaction(SIGALRM, nullptr, &now);
        ignored = now.sa_handler == SIG_IGN;
        return nullptr;
    };
    ASSERT_EQ(Scan(), 0);
    ::pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
    EXPECT_EQ(alarms, (std::vector<unsigned>{10, 0}));
    EXPECT_FALSE(ignored);
    EXPECT_EQ(KeptFiles().size(), 1u);
}

TEST_F(CrashedScan, ThatCrashesInItsLastWorkIsTurnedAway) {
    Load();
    EFabricScanAgent::start();
    std::filesystem::create_directories(world.proxy().m_scanDir + "/segv");
    script.scan = [](eFabric::IStreamTransport&, eFabric::IStreamTransport*) -> IScanResultHandler const* {
        recordAlarms = true;
        onAlarm = [] { ScanAgent::segv(); };
        ScanAgent::segv();
        recordAlarms = false;
        return nullptr;
    };
    ASSERT_EQ(Scan(), 0);
    EXPECT_EQ(alarms, (std::vector<unsigned>{10, 0}));
    EXPECT_EQ(KeptFiles().size(), 1u);
}

TEST_F(CrashedScan, OutsideOfAScanOrOnAnotherThreadKeepsNothing) {
    Load();
    EFabricScanAgent::start();
    std::filesystem::create_directories(world.proxy().m_scanDir + "/segv");
    recordAlarms = true;
    ScanAgent::segv();
    script.scan = [](eFabric::IStreamTransport&, eFabric::IStreamTransport*) -> IScanResultHandler const* {
        std::thread([] { ScanAgent::segv(); }).join();
        return nullptr;
    };
    ASSERT_EQ(Scan(), 0);
    ScanAgent::segv();
    EXPECT_TRUE(alarms.empty());
    EXPECT_TRUE(KeptFiles().empty());
}

TEST_F(CrashedScan, BeforeTheStartTouchesNobodysRecord) {
    Load();
    // The first key of a process is somebody else's. Its value must not be taken for a record of a scan.
    static char value[4096];
    std::memset(value, 1, sizeof value);  // a flag that is 1, pointers that lead nowhere
    EXPECT_TRUE(InChild([&] {
        void* const others = ::pthread_getspecific(0);
        ::pthread_setspecific(0, value);
        ScanAgent::segv();
        ::pthread_setspecific(0, others);
        return true;
    }));
}
