// The daemon as a process, with its file of servers, its signals and its options.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <velt/scanning/RSMgr.h>
#include <velt/scanning/RSMgrBackends.h>

#include "ScriptedScanner.h"
#include "testing/Sockets.h"
#include "testing/TempRoot.h"
#include "testing/Waiting.h"

using namespace VELT;
using namespace velt_testing;

namespace {

class RmgrdProcess : public testing::Test {
protected:
    RmgrdProcess() {
        std::filesystem::create_directories(root / "run/velt");
        manager::Choose(nullptr);
    }
    ~RmgrdProcess() override {
        RSMgrFreeResource(handle);
        if (process > 0) End(SIGKILL);
        manager::Choose(nullptr);
    }
    void Start(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), VELT_RMGRD);
        std::vector<char*> words;
        for (std::string& one : arguments) words.push_back(one.data());
        words.push_back(nullptr);
        process = ::fork();
        if (process != 0) return;
        ::setsid();
        if (!std::freopen((root / "log").c_str(), "w", stderr)) ::_exit(126);
        if (!std::freopen((root / "out").c_str(), "w", stdout)) ::_exit(126);
        ::execv(words[0], words.data());
        ::_exit(127);
    }
    void Run(std::vector<std::string> arguments) {
        Start(std::move(arguments));
        EXPECT_TRUE(Logs("listens at"));
    }
    // What it exits with, or -1.
    int End(int signal) {
        if (signal) ::kill(process, signal);
        int status = 0;
        EXPECT_EQ(::waitpid(process, &status, 0), process);
        process = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    int ExitOf(std::vector<std::string> arguments) {
        Start(std::move(arguments));
        return End(0);
    }
    bool Logs(std::string const& text) {
        return Eventually([&] { return root.Read("log").find(text) != std::string::npos; });
    }
    int Wait() {
        if (handle < 0 && !RSMgrResourceHandle(handle, 0)) return -1;
        sockaddr_in where{};
        int id = 0, sequence = 0;
        int const resource = RSMgrWaitForResource(handle, 5, &where, &id, &sequence);
        port = ntohs(where.sin_port);
        return resource;
    }

    TempRoot root;
    pid_t process = -1;
    int handle = -1;
    unsigned short port = 0;
};

std::string Line(std::string const& name, unsigned short port) {
    return name + " 127.0.0.1 " + std::to_string(port) + "\n";
}

}  // namespace

TEST_F(RmgrdProcess, GivesWorkToServersThatFindTheTestFile) {
    ScriptedScanner good(true), bad(false);
    root.Write("servers", Line("bad", bad.port()) + "nonsense\n" + Line("good", good.port()));
    Run({"--servers", root / "servers", "--probe", "1", "--slow-start", "0", "--connections", "1 45 6 7"});
    EXPECT_TRUE(Logs("server good at"));
    EXPECT_TRUE(Logs("gets no work: does not find the test file"));
    EXPECT_TRUE(Logs("line 2: no address of four numbers"));
    for (int i = 0; i < 4; ++i) {
        EXPECT_GT(Wait(), 0);
        EXPECT_EQ(port, good.port());
    }
    EXPECT_TRUE(RSMgrActive());
    bool cache = false;
    int seconds = 0, connecting = 0, data = 0;
    RSMgrAttributes(cache, seconds, connecting, data);
    EXPECT_EQ(seconds, 45);
    EXPECT_EQ(End(SIGTERM), 0);
    EXPECT_FALSE(root.Exists("run/velt/rmgrd.socket"));
}

#ifdef VELT_WITH_SYSTEMD
TEST_F(RmgrdProcess, SaysWhenItListens) {
    Fd const told(::socket(AF_UNIX, SOCK_DGRAM, 0));
    std::string const path = root / "notify";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    ASSERT_EQ(::bind(told.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    Start({});
    ::unsetenv("NOTIFY_SOCKET");
    char text[64] = "";
    EXPECT_TRUE(Eventually([&] { return ::recv(told.get(), text, sizeof text - 1, MSG_DONTWAIT) > 0; }));
    EXPECT_STREQ(text, "READY=1");
    EXPECT_TRUE(RSMgrResourceCtlHandle(handle));
}
#endif

TEST_F(RmgrdProcess, TakesAServerOutOfRotationThatNoLongerFindsTheTestFile) {
    ScriptedScanner scanner(true);
    root.Write("servers", Line("a", scanner.port()));
    Run({"--servers", root / "servers", "--probe", "1"});
    EXPECT_GT(Wait(), 0);
    scanner.Finds(false);
    EXPECT_TRUE(Logs("a at 127.0.0.1:" + std::to_string(scanner.port()) + " gets no work"));
    EXPECT_EQ(End(SIGINT), 0);
}

TEST_F(RmgrdProcess, ReadsItsFileAgainWhenTold) {
    ScriptedScanner first(true), second(true);
    root.Write("servers", Line("a", first.port()));
    Run({"--servers", root / "servers", "--probe", "1"});
    EXPECT_GT(Wait(), 0);
    EXPECT_EQ(port, first.port());
    root.Write("servers", Line("b", second.port()));
    ::kill(process, SIGHUP);
    EXPECT_TRUE(Logs("server a at"));
    EXPECT_TRUE(Logs("has gone"));
    EXPECT_GT(Wait(), 0);
    EXPECT_EQ(port, second.port());
    std::filesystem::remove(root / "servers");
    ::kill(process, SIGHUP);
    EXPECT_TRUE(Logs("cannot be read"));
    EXPECT_GT(Wait(), 0) << "and the servers stay";
    EXPECT_EQ(End(SIGTERM), 0);
}

TEST_F(RmgrdProcess, EndsThoughAServerHangs) {
    Listener silent;
    root.Write("servers", Line("a", silent.port()));
    Run({"--servers", root / "servers"});
    EXPECT_TRUE(Eventually([&] { return silent.IsPending(); }));
    EXPECT_EQ(End(SIGTERM), 0);
    EXPECT_FALSE(root.Exists("run/velt/rmgrd.socket"));
}

TEST_F(RmgrdProcess, RefusesWhatItDoesNotUnderstand) {
    std::vector<std::vector<std::string>> const cases = {
        {"--unknown"},
        {"word"},
        {"--probe", "0"},
        {"--probe", "x"},
        {"--probe", ""},
        {"--probe"},
        {"--policy", "a\nb"},
        {"--connections", "1 2 3"},
        {"--connections", "1 2 3 4 5"},
    };
    for (auto const& arguments : cases) EXPECT_EQ(ExitOf(arguments), 2) << arguments[0];
    EXPECT_EQ(ExitOf({"--help"}), 0);
    EXPECT_NE(root.Read("out").find("--slow-start"), std::string::npos);
}

TEST_F(RmgrdProcess, SaysWhyItCannotListen) {
    EXPECT_EQ(ExitOf({"--socket", root / "no/such/folder/socket"}), 1);
    EXPECT_NE(root.Read("log").find("No such file"), std::string::npos);
}
