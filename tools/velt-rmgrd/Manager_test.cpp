#include "Manager.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <system_error>
#include <thread>

#include <velt/scanning/RSMgr.h>
#include <velt/scanning/RSMgrBackends.h>
#include <velt/scanning/ScannerServer.h>
#include <velt/streams/BufferPool.h>
#include <velt/streams/TCPStream.h>

#include "ServersFile.h"
#include "testing/DocExample.h"
#include "testing/Sockets.h"
#include "testing/TempRoot.h"
#include "testing/Waiting.h"

using namespace rmgrd;
using namespace velt_testing;
using namespace VELT;

namespace {

// A manager on a socket below the test's root, whose servers are as healthy as the test says, and a process that asks
// it.
class ManagerTest : public testing::Test {
protected:
    ManagerTest() {
        settings.socketPath = root / manager::kSocketPath;
        std::filesystem::create_directories(std::filesystem::path(settings.socketPath).parent_path());
        manager::Choose(nullptr);
        static auto* const pool = new BufferPool(4096, 0);
        TCPStream::set_pool(pool);
        TCPStream::initialise(nullptr);
    }
    ~ManagerTest() override {
        for (int* const handle : {&first, &second, &announced}) RSMgrFreeResource(*handle);
        StopManager();
        manager::Choose(nullptr);
    }

    void Start(std::vector<ServerFacts> servers = {}) {
        managing = std::make_unique<Manager>(
            settings,
            [this](ServerFacts const& facts) {
                std::lock_guard const hold(lock);
                ++probes;
                return sick == facts.name ? "cannot be connected to" : "";
            },
            [this](std::string const& line) {
                std::lock_guard const hold(lock);
                lines.push_back(line);
            });
        managing->SetServers(servers);
        running = std::thread([this] { managing->Run(); });
        for (ServerFacts const& one : servers) EXPECT_TRUE(IsTold(one.name, "is up"));
    }
    void StopManager() {
        if (!managing) return;
        managing->Stop();
        running.join();
        managing.reset();
    }
    ServerFacts Facts(std::string const& name, int capacity = 0, unsigned short port = 4310) {
        return {name, Loopback(port), capacity};
    }
    bool IsTold(std::string const& name, std::string const& what) {
        return Eventually([&] {
            std::lock_guard const hold(lock);
            return std::any_of(lines.begin(), lines.end(), [&](std::string const& line) {
                return line.find("server " + name + " at ") == 0 && line.find(what) != line.npos;
            });
        });
    }
    void Sicken(std::string const& name) {
        std::lock_guard const hold(lock);
        sick = name;
        lines.clear();
    }
    // The resource, or -1.
    int Wait(int& handle, int seconds = 5) {
        if (handle < 0 && !RSMgrResourceHandle(handle, 0)) return -1;
        return RSMgrWaitForResource(handle, seconds, &where, &id, &sequence);
    }
    int WaitAnew(int& handle) {
        RSMgrFreeResource(handle);
        return Wait(handle);
    }
    int Announce(int& handle, char const* name, int capacity = 0, unsigned short port = 4310) {
        sockaddr_in address = Loopback(port);
        std::string text(name);
        if (!RSMgrResourceCtlHandle(handle)) return -1;
        return RSMgrSetupResource(handle, capacity, 0, 0, &address, text.data());
    }
    // A connection of the test's own, which says what it likes.
    Fd Raw() const {
        Fd fd(::socket(AF_UNIX, SOCK_SEQPACKET, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, settings.socketPath.c_str());
        EXPECT_EQ(::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return fd;
    }
    static void Ask(Fd const& fd, std::uint32_t request, int value = 0) {
        manager::Question question{};
        question.request = request;
        question.values[0] = value;
        EXPECT_EQ(::send(fd.get(), &question, sizeof question, MSG_NOSIGNAL), static_cast<ssize_t>(sizeof question));
    }
    Fd Waiting(int seconds) const {
        Fd fd = Raw();
        Ask(fd, manager::kWait, seconds);
        return fd;
    }
    // Of a wait: all zero where none comes.
    static manager::Answer Answered(Fd const& fd) {
        manager::Answer answer{};
        Eventually([&] { return ::recv(fd.get(), &answer, sizeof answer, MSG_DONTWAIT) == sizeof answer; });
        return answer;
    }
    static bool RunsOut(Fd const& fd) { return Answered(fd).error == EAGAIN; }
    static bool IsSilent(Fd const& fd) {
        char byte;
        return ::recv(fd.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && errno == EAGAIN;
    }
    static bool IsHungUp(Fd const& fd) {
        char rest[64];
        return Eventually([&] { return ::recv(fd.get(), rest, sizeof rest, MSG_DONTWAIT) == 0; });
    }

    TempRoot root;
    ManagerSettings settings;
    std::unique_ptr<Manager> managing;
    std::thread running;
    std::mutex lock;  // guards the next three
    std::string sick;
    std::vector<std::string> lines;
    int probes = 0;
    int first = -1, second = -1, announced = -1;
    sockaddr_in where{};
    int id = 0, sequence = 0;
};
std::string Hex(void const* bytes, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", static_cast<unsigned char const*>(bytes)[i]);
        text += two;
    }
    return text;
}
std::string Squeezed(std::string text) {
    std::erase_if(text, [](unsigned char c) { return std::isspace(c); });
    return text;
}

class ManagerChoice : public ManagerTest {};
class ManagerOccupation : public ManagerTest {};
class ManagerHealth : public ManagerTest {
protected:
    ManagerHealth() { settings.probeInterval = 1; }
};
class ManagerAnnouncements : public ManagerTest {};
class ManagerSocket : public ManagerTest {};

// A manager that has room for this many connections.
class ManagerThatIsFull : public ManagerTest {
protected:
    static constexpr int kRoom = 100;
    ManagerThatIsFull() {
        ::getrlimit(RLIMIT_NOFILE, &before);
        rlimit const low{2 * kRoom, before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &low);
        Start({Facts("a")});
        ::setrlimit(RLIMIT_NOFILE, &before);
        EXPECT_TRUE(RSMgrActive()) << "and is found from now on without a look";
    }
    Fd Resource() {
        Fd fd = Raw();
        Ask(fd, manager::kOpen, 1);
        manager::Answer answer;
        answered = ::recv(fd.get(), &answer, sizeof answer, 0) == sizeof answer;
        return fd;
    }
    bool IsToldOnce(std::string const& what) {
        std::lock_guard const hold(lock);
        return std::count_if(lines.begin(), lines.end(),
                             [&](auto const& line) { return line.find(what) != line.npos; }) == 1;
    }
    rlimit before{};
    bool answered = false;
};

}  // namespace

// --- which manager is asked ---

TEST_F(ManagerChoice, WithoutADeviceItIsTheSocketWhereItAnswers) {
    EXPECT_FALSE(RSMgrActive());
    EXPECT_FALSE(RSMgrResourceHandle(first, 0));
    Start({Facts("a")});
    EXPECT_TRUE(RSMgrActive()) << "it came later";
    EXPECT_EQ(Wait(first), 1);
}

// The number that stands for the control handle on the socket is none of a resource.
TEST_F(ManagerChoice, HasNoResourceOfANumberBelowZero) {
    Start({Facts("a")});
    EXPECT_EQ(Wait(first), 1);
    EXPECT_FALSE(RSMgrResourceHandle(second, -1));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(second, -1);
}

TEST_F(ManagerChoice, WithoutServersThereAreNone) {
    Start();
    EXPECT_FALSE(RSMgrActive());
    managing->SetServers({Facts("a")});
    EXPECT_TRUE(IsTold("a", "is up"));
    EXPECT_TRUE(RSMgrActive());
}

TEST_F(ManagerChoice, TheSettingsAreThoseOfTheManager) {
    int const told[4] = {1, 45, 6, 7};
    std::copy(std::begin(told), std::end(told), settings.connections);
    bool cache = false;
    int seconds = 0, connecting = 1, data = 2;
    RSMgrAttributes(cache, seconds, connecting, data);
    EXPECT_EQ(connecting * 10 + data, 12) << "nobody is asked yet";
    EXPECT_TRUE(cache);
    Start();
    RSMgrAttributes(cache, seconds, connecting, data);
    EXPECT_TRUE(cache);
    EXPECT_EQ(seconds, 45);
    EXPECT_EQ(connecting, 6);
    EXPECT_EQ(data, 7);
}

// --- occupation ---

TEST_F(ManagerOccupation, OffersTheServerWithItsPlaceAndName) {
    Start({Facts("scan-a", 0, 4311)});
    EXPECT_EQ(Wait(first), 1);
    EXPECT_EQ(id, 1);
    EXPECT_GT(sequence, 0);
    EXPECT_EQ(where.sin_family, AF_INET);
    EXPECT_EQ(where.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(ntohs(where.sin_port), 4311);
    EXPECT_TRUE(RSMgrResourceHandle(second, 1));
    char name[256] = {};
    EXPECT_EQ(RSMgrResourceAttributes(second, name), 0);
    EXPECT_STREQ(name, "scan-a");
    EXPECT_EQ(::fcntl(first, F_GETFD), FD_CLOEXEC);
}

TEST_F(ManagerOccupation, EndsWithTheLastCloseOfTheHandle) {
    Start({Facts("a", 1)});
    EXPECT_EQ(Wait(first), 1);
    EXPECT_EQ(Wait(second, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    Fd copy(::dup(first));
    RSMgrFreeResource(first);
    EXPECT_EQ(Wait(second, 0), -1) << "the copy holds it";
    copy.Close();
    EXPECT_EQ(Wait(second), 1);
}

TEST_F(ManagerOccupation, OfAProcessThatDiesEnds) {
    Start({Facts("a", 1)});
    pid_t const child = ::fork();
    if (child == 0) {
        int handle = -1;
        ::_exit(Wait(handle) == 1 ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Wait(first), 1);
}

TEST_F(ManagerOccupation, IsHadByAConnectionThatAsksForNothingElse) {
    Start({Facts("a", 1)});
    EXPECT_TRUE(IsTold("a", "is up"));
    Fd fd = Raw();
    Ask(fd, manager::kWait, 5);
    manager::Answer answer;
    EXPECT_EQ(::recv(fd.get(), &answer, sizeof answer, 0), static_cast<ssize_t>(sizeof answer));
    EXPECT_EQ(answer.result, 1);
    EXPECT_EQ(Wait(first, 0), -1) << "it is busy";
    fd.Close();
    EXPECT_EQ(WaitAnew(first), 1);
}

TEST_F(ManagerOccupation, IsGivenToTheFirstWhoWaited) {
    Start({Facts("a", 1)});
    EXPECT_EQ(Wait(first), 1);
    Fd const early = Raw(), late = Raw(), gone = Raw();
    manager::Answer answer;
    for (Fd const* const fd : {&gone, &early, &late}) {
        Ask(*fd, manager::kOpen, 0);
        EXPECT_EQ(::recv(fd->get(), &answer, sizeof answer, 0), static_cast<ssize_t>(sizeof answer));
        Ask(*fd, manager::kWait, 60);
    }
    ::shutdown(gone.get(), SHUT_RDWR);
    RSMgrFreeResource(first);
    EXPECT_EQ(::recv(early.get(), &answer, sizeof answer, 0), static_cast<ssize_t>(sizeof answer));
    EXPECT_EQ(answer.result, 1) << "who left the queue gets nothing";
    EXPECT_LT(::recv(late.get(), &answer, sizeof answer, MSG_DONTWAIT), 0);
}

// The end of an announcement is told while the test holds the lock: what comes meanwhile is seen in one look.
TEST_F(ManagerOccupation, GoesToNobodyWhoLeftInTheSameMoment) {
    Start({Facts("a", 1)});
    EXPECT_EQ(Announce(announced, "b", 0, 4311), 2);
    EXPECT_EQ(RSMgrUnAvailable(announced), 0);
    EXPECT_TRUE(IsTold("b", "is up"));
    EXPECT_EQ(Wait(first), 1);
    Fd gone = Raw();
    Ask(gone, manager::kOpen, 0);
    manager::Answer answer;
    EXPECT_EQ(::recv(gone.get(), &answer, sizeof answer, 0), static_cast<ssize_t>(sizeof answer));
    Ask(gone, manager::kWait, 60);
    EXPECT_TRUE(RSMgrActive()) << "what was asked before has been heard by now";
    {
        std::lock_guard const hold(lock);
        RSMgrFreeResource(announced);
        RSMgrFreeResource(first);
        gone.Close();
    }
    EXPECT_EQ(Wait(second), 1);
}

TEST_F(ManagerOccupation, IsGivenInTheirOrderToThoseWhoGoOnWaiting) {
    Start({Facts("a", 1)});
    EXPECT_EQ(Wait(first), 1);
    std::vector<Fd> waiting;
    for (int const seconds : {60, 60, 0, 60, 60}) waiting.push_back(Waiting(seconds));
    EXPECT_TRUE(RunsOut(waiting[2])) << "its time alone is over";
    waiting.erase(waiting.begin() + 1, waiting.begin() + 3);
    EXPECT_TRUE(RSMgrActive()) << "what was said before has been heard by now";
    RSMgrFreeResource(first);
    for (std::size_t next = 0; next < waiting.size(); ++next) {
        EXPECT_EQ(Answered(waiting[next]).result, 1) << next;
        for (std::size_t later = next + 1; later < waiting.size(); ++later) EXPECT_TRUE(IsSilent(waiting[later]));
        waiting[next].Close();
    }
    EXPECT_EQ(Wait(second), 1);
}

// A session waits in steps of a second.
TEST_F(ManagerOccupation, IsGivenFirstToWhoHasWaitedLongestInHoweverManySteps) {
    Start({Facts("a", 1)});
    EXPECT_EQ(Wait(first), 1);
    Fd const early = Waiting(0);
    EXPECT_TRUE(RunsOut(early));
    Fd const late = Waiting(60);
    EXPECT_TRUE(RSMgrActive()) << "it has been heard by now";
    Ask(early, manager::kWait, 60);
    EXPECT_TRUE(RSMgrActive());
    RSMgrFreeResource(first);
    EXPECT_EQ(Answered(early).result, 1);
    EXPECT_TRUE(IsSilent(late));
    Ask(early, manager::kWait, 60);
    EXPECT_EQ(Answered(late).result, 1);
    EXPECT_TRUE(IsSilent(early)) << "one that had a server waits behind the others";
}

TEST_F(ManagerOccupation, RunsOutForEachInItsOwnTime) {
    Start();
    Fd const longest = Waiting(60), second = Waiting(1), third = Waiting(2), gone = Waiting(1);
    ::shutdown(gone.get(), SHUT_RDWR);
    EXPECT_TRUE(RunsOut(second));
    EXPECT_TRUE(IsSilent(third));
    EXPECT_TRUE(RunsOut(third));
    EXPECT_TRUE(IsSilent(longest));
}

TEST_F(ManagerOccupation, IsLeftByAnotherWait) {
    Start({Facts("a", 1)});
    EXPECT_EQ(Wait(first), 1);
    EXPECT_EQ(Wait(first), 1) << "it left what it had";
    EXPECT_EQ(Wait(second, 0), -1);
}

TEST_F(ManagerOccupation, RunsOutInItsTime) {
    Start();
    auto const before = std::chrono::steady_clock::now();
    EXPECT_EQ(Wait(first, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
    EXPECT_EQ(Wait(first, -5), -1) << "at once";
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(ManagerOccupation, LeadsASearchToItsConnection) {
    Listener listener;
    Start({{"a", listener.address(), 0}});
    ScannerServer* server = nullptr;
    std::unique_ptr<TCPStream> const stream(ScannerServer::find_server(first, 1, 3, nullptr, server));
    ASSERT_NE(stream, nullptr);
    EXPECT_TRUE(listener.IsPending());
    EXPECT_STREQ(server->server_name(), "a");
    EXPECT_TRUE(server->Up());
    EXPECT_TRUE(server->IsLocal());
    Sicken("a");
    managing->SetServers({});
    EXPECT_TRUE(Eventually([&] { return !server->Up(); }));
}

// --- health ---

TEST_F(ManagerHealth, OfAServerThatIsSickTakesItsWorkAway) {
    Start({Facts("a", 1)});
    EXPECT_EQ(Wait(first), 1);
    int const before = sequence;
    EXPECT_TRUE(RSMgrResourceHandle(second, 1));
    EXPECT_TRUE(RSMgrResourceAvailable(second));
    Sicken("a");
    EXPECT_TRUE(IsTold("a", "gets no work: cannot be connected to"));
    EXPECT_TRUE(Eventually([&] { return !RSMgrResourceAvailable(second); })) << "those who use it learn it";
    RSMgrFreeResource(first);
    EXPECT_EQ(Wait(first, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(RSMgrResourceHandle(second, 1));
    EXPECT_EQ(errno, ENXIO);
    Sicken("");
    EXPECT_EQ(Wait(first, 20), 1) << "who waits is served as soon as it is well";
    EXPECT_NE(sequence, before);
}

TEST_F(ManagerHealth, IsFoundBeforeTheFirstWork) {
    Sicken("a");
    Start();
    managing->SetServers({Facts("a"), Facts("b", 0, 4311)});
    EXPECT_TRUE(IsTold("b", "is up"));
    EXPECT_TRUE(IsTold("a", "gets no work"));
    for (int i = 0; i < 5; ++i) EXPECT_EQ(Wait(first), 2);
}

TEST_F(ManagerHealth, IsLookedAtAgainAndAgain) {
    Start({Facts("a")});
    EXPECT_TRUE(Eventually([&] {
        std::lock_guard const hold(lock);
        return probes >= 3;
    }));
    std::lock_guard const hold(lock);
    EXPECT_EQ(lines.size(), 1u) << "what stays as it was is told once";
}

// --- the list ---

TEST_F(ManagerHealth, OfThoseThatStayInTheFileIsNotDisturbed) {
    Start({Facts("a"), Facts("b", 0, 4311)});
    EXPECT_TRUE(IsTold("a", "is up"));
    EXPECT_TRUE(RSMgrResourceHandle(first, 1) && RSMgrResourceHandle(second, 2));
    managing->SetServers({Facts("a"), Facts("c", 0, 4312)});
    EXPECT_TRUE(IsTold("b", "has gone"));
    EXPECT_TRUE(IsTold("c", "is up"));
    EXPECT_TRUE(RSMgrResourceAvailable(first));
    EXPECT_TRUE(Eventually([&] { return !RSMgrResourceAvailable(second); }));
}

// --- announcements ---

TEST_F(ManagerAnnouncements, MakeAServerUntilTheirHandleCloses) {
    Start();
    EXPECT_EQ(Announce(announced, "self"), 1);
    EXPECT_TRUE(IsTold("self", "is up"));
    EXPECT_EQ(Wait(first), 1);
    RSMgrFreeResource(announced);
    EXPECT_TRUE(IsTold("self", "has gone"));
    EXPECT_EQ(Wait(first, 0), -1);
    managing->SetServers({});
    EXPECT_EQ(Announce(announced, "self"), 2);
    EXPECT_EQ(Wait(first), 2);
    managing->SetServers({});
    EXPECT_EQ(Wait(first), 2) << "it is not the file's";
}

TEST_F(ManagerAnnouncements, SayWhetherTheyTakeWork) {
    Start();
    EXPECT_EQ(Announce(announced, "self", 1), 1);
    EXPECT_EQ(Wait(first), 1);
    EXPECT_TRUE(RSMgrResourceHandle(second, 1));
    EXPECT_EQ(RSMgrUnAvailable(announced), 0);
    RSMgrFreeResource(first);
    EXPECT_EQ(Wait(first, 0), -1);
    EXPECT_TRUE(RSMgrResourceAvailable(second)) << "who is there already may stay";
    EXPECT_EQ(RSMgrAvailable(announced), 0);
    EXPECT_EQ(Wait(first), 1);
}

TEST_F(ManagerAnnouncements, AreMadeOnceAndWithAPort) {
    Start();
    EXPECT_EQ(Announce(announced, "self", 0, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(RSMgrAvailable(announced), -1) << "there is none yet";
    EXPECT_EQ(errno, EINVAL);
    sockaddr_in anywhere = Loopback(4310, "0.0.0.0");
    char name[] = "on\nall";
    EXPECT_EQ(RSMgrSetupResource(announced, -1, 0, 0, &anywhere, name), 1);
    EXPECT_EQ(RSMgrSetupResource(announced, 0, 0, 0, &anywhere, name), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_TRUE(IsTold("on?all", "127.0.0.1:4310 is up"));
}

// --- the socket ---

TEST_F(ManagerSocket, IsThereForTheOwnerAndItsGroup) {
    Start();
    struct stat found {};
    ASSERT_EQ(::stat(settings.socketPath.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 0777, 0660u);
    StopManager();
    EXPECT_NE(::stat(settings.socketPath.c_str(), &found), 0);
}

TEST_F(ManagerSocket, IsTakenFromTheDeadAndNotFromTheLiving) {
    Start();
    auto const another = [&] {
        Manager other(
            settings, [](auto&) { return ""; }, [](auto&) {});
    };
    EXPECT_THROW(another(), std::system_error);
    EXPECT_FALSE(RSMgrActive()) << "the first goes on";
    StopManager();
    {
        Fd const left(::socket(AF_UNIX, SOCK_SEQPACKET, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, settings.socketPath.c_str());
        ASSERT_EQ(::bind(left.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    EXPECT_NO_THROW(another());
    settings.socketPath = std::string(200, 'x');
    EXPECT_THROW(another(), std::system_error);
    settings.socketPath = root / "no/such/folder";
    EXPECT_THROW(another(), std::system_error);
}

TEST_F(ManagerSocket, HangsUpOnWhatItDoesNotUnderstand) {
    Start({Facts("a")});
    {
        Fd const fd = Raw();
        Ask(fd, manager::kName, 0);
        EXPECT_TRUE(IsHungUp(fd)) << "nothing was opened";
    }
    struct {
        int resource;
        std::uint32_t request;
    } const cases[] = {{-1, 0}, {-1, 4}, {-1, 5}, {-1, 7}, {-1, 9}, {-1, 0xFFFFFFFF}, {0, 1}, {0, 2}, {0, 6}, {0, 7},
                       {0, 8},  {1, 1},  {1, 2},  {1, 3},  {1, 4},  {1, 6},           {1, 8}, {7, 7}, {-2, 6}};
    for (auto const& one : cases) {
        Fd const fd = Raw();
        Ask(fd, manager::kOpen, one.resource);
        manager::Answer answer;
        ::recv(fd.get(), &answer, sizeof answer, 0);
        manager::Question question{};
        question.request = one.request;
        ::send(fd.get(), &question, sizeof question, MSG_NOSIGNAL);
        EXPECT_TRUE(IsHungUp(fd)) << one.resource << ' ' << one.request;
    }
    for (std::size_t const size : {1u, 55u, 57u, 4000u}) {
        Fd const fd = Raw();
        std::string const packet(size, '\0');
        ::send(fd.get(), packet.data(), packet.size(), MSG_NOSIGNAL);
        EXPECT_TRUE(IsHungUp(fd)) << size;
    }
    EXPECT_EQ(Wait(first), 1) << "the others are served on";
}

TEST_F(ManagerSocket, HasTheBytesThatThePageShows) {
    std::string const page = std::string(DOCS) + "/formats/resource-manager.md";
    manager::Question question{};
    question.request = manager::kWait;
    question.values[0] = 1;
    EXPECT_EQ(Hex(&question, sizeof question), Squeezed(DocExample(page, "question")));
    manager::Answer answer{};
    answer.result = answer.values[0] = 3;
    answer.values[1] = 7;
    answer.values[2] = static_cast<int>(Loopback(0, "192.0.2.25").sin_addr.s_addr);
    answer.values[3] = htons(4310);
    EXPECT_EQ(Hex(&answer, sizeof answer), Squeezed(DocExample(page, "answer")));
    std::istringstream servers(DocExample(page, "servers"));
    ServersFile const file = ReadServers(servers);
    EXPECT_EQ(file.servers.size(), 2u);
    EXPECT_TRUE(file.complaints.empty());
}

TEST_F(ManagerSocket, HangsUpOnAQuestionDuringAWait) {
    Start();
    Fd const fd = Raw();
    Ask(fd, manager::kOpen, 0);
    Ask(fd, manager::kWait, 60);
    Ask(fd, manager::kWait, 60);
    manager::Answer answer;
    EXPECT_EQ(::recv(fd.get(), &answer, sizeof answer, 0), static_cast<ssize_t>(sizeof answer));
    EXPECT_TRUE(IsHungUp(fd));
}

TEST_F(ManagerSocket, ThatGoesAwayEndsSearchesAndResources) {
    Start({Facts("a")});
    EXPECT_EQ(Wait(first), 1);
    EXPECT_TRUE(RSMgrResourceHandle(second, 1));
    StopManager();
    EXPECT_FALSE(RSMgrResourceAvailable(second));
    EXPECT_EQ(Wait(first), -1);
    EXPECT_NE(errno, EAGAIN);
    EXPECT_FALSE(RSMgrResourceHandle(first, 0));
    EXPECT_FALSE(RSMgrActive());
    EXPECT_FALSE(RSMgrResourceCtlHandle(first));
    Start({Facts("a")});
    EXPECT_EQ(Wait(first), 1) << "who opens anew finds the next one";
}

// A client knows servers by their generation and id, and holds on to the manager that it asked about them.
TEST_F(ManagerSocket, OfTheNextManagerOffersServersThatNobodyKnows) {
    Start({Facts("a")});
    EXPECT_EQ(Wait(first), 1);
    ScannerServer* const before = ScannerServer::findserver(sequence, id, 1, &where);
    EXPECT_TRUE(before->Up());
    StopManager();
    RSMgrFreeResource(first);
    {
        std::lock_guard const hold(lock);
        lines.clear();
    }
    Start({Facts("a")});
    EXPECT_EQ(Wait(first), 1);
    ScannerServer* const after = ScannerServer::findserver(sequence, id, 1, &where);
    EXPECT_NE(after, before);
    EXPECT_TRUE(after->Up());
}

TEST_F(ManagerSocket, ServesManyAtOnce) {
    Start({Facts("a", 3), Facts("b", 3, 4311)});
    EXPECT_TRUE(IsTold("a", "is up"));
    std::atomic<int> busy{0}, most{0}, served{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 16; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20; ++i) {
                int handle = -1, server = 0, generation = 0;
                sockaddr_in place{};
                if (!RSMgrResourceHandle(handle, 0)) continue;
                if (RSMgrWaitForResource(handle, 20, &place, &server, &generation) > 0) {
                    int const now = ++busy;
                    for (int before = most; now > before && !most.compare_exchange_weak(before, now);) continue;
                    ++served;
                    --busy;
                }
                RSMgrFreeResource(handle);
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(served, 320);
    EXPECT_LE(most, 6);
}

// A process that has seen many lists holds a handle of each, for good.
TEST_F(ManagerThatIsFull, EndsTheOldestHandleOfAnEarlierList) {
    std::vector<Fd> old;
    for (int i = 0; i < kRoom; ++i) old.push_back(Resource());
    EXPECT_TRUE(answered);
    managing->SetServers({Facts("a"), Facts("b", 0, 4311)});
    EXPECT_TRUE(IsTold("b", "is up"));
    EXPECT_GT(Wait(first), 0);
    EXPECT_TRUE(IsHungUp(old[0]));
    EXPECT_TRUE(IsSilent(old[1]));
    EXPECT_GT(Wait(second), 0);
    EXPECT_TRUE(IsHungUp(old[1]));
    EXPECT_TRUE(IsSilent(old[2]));
}

TEST_F(ManagerThatIsFull, RefusesWhoComesWhereAllAreOfThisList) {
    std::vector<Fd> now;
    for (int i = 0; i < kRoom; ++i) now.push_back(Resource());
    for (int i = 0; i < 3; ++i) EXPECT_EQ(WaitAnew(first), -1);
    EXPECT_TRUE(IsToldOnce("too many connections"));
    for (Fd const& fd : now) EXPECT_TRUE(IsSilent(fd));
    now.pop_back();
    EXPECT_TRUE(Eventually([&] { return WaitAnew(first) == 1; }));
}

// A process keeps a handle for each server of each list that it has seen.
TEST_F(ManagerSocket, ServesASearchBesideThousandsWhoSayNothing) {
    constexpr std::size_t kSilent = 2000;
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    rlimit const high{3 * kSilent, before.rlim_max};
    if (::setrlimit(RLIMIT_NOFILE, &high) != 0) GTEST_SKIP() << "so many descriptors are not to be had";
    Start({Facts("a")});
    std::vector<Fd> silent;
    while (silent.size() < kSilent) {
        silent.push_back(Raw());
        Ask(silent.back(), manager::kOpen, 1);
        ASSERT_EQ(Answered(silent.back()).result, 0);
    }
    for (int i = 0; i < 20; ++i) EXPECT_EQ(WaitAnew(first), 1);
    EXPECT_TRUE(std::all_of(silent.begin(), silent.end(), IsSilent)) << "they are still connected";
    managing->SetServers({});
    EXPECT_TRUE(std::all_of(silent.begin(), silent.end(), IsHungUp)) << "and all learn that their server has gone";
    silent.clear();
    ::setrlimit(RLIMIT_NOFILE, &before);
}

// A manager that accepts and says nothing is given up, and its late answer is not taken for another's.
TEST_F(ManagerSocket, ThatHangsIsGivenUp) {
    Fd const hung(::socket(AF_UNIX, SOCK_SEQPACKET, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, settings.socketPath.c_str());
    ASSERT_EQ(::bind(hung.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(hung.get(), 4), 0);
    EXPECT_FALSE(RSMgrActive());
    EXPECT_EQ(errno, ENOENT) << "the device's, which is asked in the end";
}
