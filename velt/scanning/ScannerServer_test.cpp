#include <velt/scanning/ScannerServer.h>

#include <climits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <QXStats/QXCounter.h>

#include "velt/scanning/RSMgrBackends.h"
#include "velt/scanning/ScannerConn.h"
#include "velt/scanning/ServerTest.h"
#include "velt/scanning/StreamRequest.h"

using namespace VELT;
using namespace velt_testing;

namespace {

// A counter from the test's start on.
class Counted {
public:
    explicit Counted(std::string const& name) : m_counter("scanner.servers." + name), m_before(m_counter.value()) {}
    unsigned long times() const { return m_counter.value() - m_before; }

private:
    QXStats::QXCounter m_counter;
    unsigned long m_before;
};

class ServerList : public ServerTest {};
class ServerFacts : public ServerTest {};
class ServerConnects : public ServerTest {};
class IdleConnections : public ServerTest {
protected:
    IdleConnections() { ScannerServer::initialise(); }

    // Every connection that the server still has and that wakes up.
    unsigned AwakeOf(ScannerServer& server) {
        unsigned count = 0;
        while (std::unique_ptr<TCPStream> const stream{server.cached_server()}) ++count;
        return count;
    }
    Counted reused{"reused"}, lostIdle{"lostidle"}, notKept{"notkept"}, noThread{"nothread"};
};
class EndedConnections : public IdleConnections {
protected:
    // Ends a connection whose peer has said this, and gives the far end.
    Fd End(ScannerServer& server, std::string const& answer, bool cacheable = true) {
        Wire wire = Connected(answer);
        wire.stream->set_timeout(1);
        RSMgrResourceHandle(handle, 0);
        server.end_connection(handle, wire.stream, cacheable);
        EXPECT_EQ(wire.stream, nullptr);
        EXPECT_EQ(handle, -1);
        EXPECT_EQ(manager.held(0), 0u);
        return std::move(wire.peer);
    }
    int handle = -1;
};
class ServersInUse : public ServerTest {
protected:
    ServersInUse() {
        ScannerProcesses::active_set = false;
        ScannerProcesses::active = true;
    }
    ~ServersInUse() override { ScannerProcesses::active_set = false; }
};
#define LIMITS(fixture) \
    INSTANTIATE_TEST_SUITE_P(Limits, fixture, testing::Values(1024, 4096), testing::PrintToStringParamName())
LIMITS(ServerList);
LIMITS(ServerFacts);
LIMITS(ServerConnects);
LIMITS(IdleConnections);
LIMITS(EndedConnections);
LIMITS(ServersInUse);

// A scanner process that answers whatever it is told by a header, on as many connections as come.
class AnsweringProcess {
public:
    explicit AnsweringProcess(Listener& listener) : m_listener(listener), m_accepting([this] { Accept(); }) {}
    ~AnsweringProcess() {
        ::shutdown(m_listener.fd(), SHUT_RDWR);
        m_accepting.join();
        for (std::thread& one : m_serving) one.join();
    }

private:
    void Accept() {
        for (;;) {
            int const fd = ::accept4(m_listener.fd(), nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return;
            m_serving.emplace_back([fd] {
                Fd const peer(fd);
                char request[12];
                while (::recv(fd, request, sizeof request, MSG_WAITALL) == sizeof request)
                    if (::send(fd, "State OK\n\n", 10, MSG_NOSIGNAL) != 10) return;
            });
        }
    }
    Listener& m_listener;
    std::vector<std::thread> m_serving;  // of the accepting thread, until that has ended
    std::thread m_accepting;
};

}  // namespace

// --- the list ---

TEST_P(ServerList, KnowsAServerByItsIdAlone) {
    ScannerServer& first = Server(1);
    EXPECT_EQ(&Server(1), &first);
    sockaddr_in other = Loopback(9, "192.0.2.9");
    EXPECT_EQ(ScannerServer::findserver(sequence, 1, 8, &other), &first) << "the rest is not looked at";
    ScannerServer& second = Server(2);
    EXPECT_NE(&second, &first);
    EXPECT_EQ(&Server(1), &first);
    EXPECT_EQ(&Server(2), &second);
    EXPECT_EQ(manager.opens(8), 0u);
}

TEST_P(ServerList, AnotherSequenceEmptiesItAndAKnownIdGetsANewObject) {
    ScannerServer& before = Server(1);
    Server(2);
    NewList();
    ScannerServer& after = Server(1);
    EXPECT_NE(&after, &before);
    EXPECT_EQ(&Server(1), &after);
    sequence -= 1;
    EXPECT_NE(&Server(1), &before) << "nothing comes back to the list";
}

TEST_P(ServerList, AServerThatLeftItKeepsItsConnectionsUntilItsThreadClosesThem) {
    ScannerServer& before = Server(1);
    Fd const peer = Kept(before), second = Kept(before);
    NewList();
    ScannerServer& after = Server(1);
    EXPECT_EQ(std::unique_ptr<TCPStream>(after.cached_server()), nullptr) << "they are not the new object's";
    time.Pass(30);
    LetCacheThreadsLook();
    EXPECT_FALSE(IsClosed(peer));
    Say(peer, good);
    EXPECT_NE(std::unique_ptr<TCPStream>(before.cached_server()), nullptr) << "who has it still uses it";
    time.Pass(31);
    LetCacheThreadsLook();
    EXPECT_TRUE(IsClosed(second));
    EXPECT_EQ(manager.held(1), 2u) << "both objects stay";
}

TEST_P(ServerList, GivesAllThreadsTheSameObject) {
    std::vector<ScannerServer*> found(16);
    std::vector<std::thread> threads;
    for (ScannerServer*& one : found) threads.emplace_back([&] { one = &Server(1); });
    for (std::thread& thread : threads) thread.join();
    for (ScannerServer* const one : found) EXPECT_EQ(one, found[0]);
    EXPECT_EQ(manager.opens(1), 1u);
}

TEST_P(ServerList, TakesAnyNumberForASequenceOrAnId) {
    for (int const list : {0, -1, INT_MAX, INT_MIN, 0}) {
        std::vector<ScannerServer*> made;
        for (int const id : {0, -1, INT_MIN})
            made.push_back(ScannerServer::findserver(list, id, 1, &listener.address()));
        EXPECT_NE(made[0], made[1]);
        EXPECT_NE(made[1], made[2]);
        EXPECT_EQ(ScannerServer::findserver(list, 0, 1, &listener.address()), made[0]);
        EXPECT_EQ(ScannerServer::findserver(list, INT_MIN, 1, &listener.address()), made[2]);
    }
}

// --- what a server knows of itself ---

TEST_P(ServerFacts, HoldsItsResourceOpenAsLongAsItLives) {
    ScannerServer::s_usethreads = false;
    {
        ScannerServer const server(&listener.address(), 1, 6);
        EXPECT_EQ(manager.held(6), 1u);
    }
    EXPECT_EQ(manager.held(6), 0u);
}

TEST_P(ServerFacts, IsCalledAsTheManagerSays) {
    EXPECT_STREQ(Server(1).server_name(), "?") << "the manager knows no name";
    manager.SetName(2, "scan-b");
    EXPECT_STREQ(Server(2).server_name(), "scan-b");
    manager.SetName(3, std::string(34, 'c'));
    EXPECT_STREQ(Server(3).server_name(), std::string(34, 'c').c_str());
    for (std::size_t const length : {35, 36, 60, 256}) {
        manager.SetName(4, std::string(length, 'd'));
        NewList();
        EXPECT_STREQ(Server(4).server_name(), std::string(34, 'd').c_str()) << length;
    }
}

TEST_P(ServerFacts, IsLocalAtOneAddressAlone) {
    int id = 0;
    for (char const* const dotted : {"127.0.0.2", "127.0.0.0", "1.0.0.127", "0.0.0.0", "192.0.2.1"}) {
        sockaddr_in where = Loopback(25, dotted);
        EXPECT_FALSE(ScannerServer::findserver(sequence, ++id, 1, &where)->IsLocal()) << dotted;
    }
    EXPECT_TRUE(Server(++id).IsLocal());
}

TEST_P(ServerFacts, TheServerMadeLastDecidesTheTimeoutsOfAll) {
    Server(1);
    EXPECT_EQ(ScannerServer::LsConnTimeout, 5);
    EXPECT_EQ(ScannerServer::get_data_timeout(), 20);
    manager.WriteSettings("1 45 6 7");
    Server(2);
    EXPECT_EQ(ScannerServer::LsConnTimeout, 6);
    EXPECT_EQ(ScannerServer::get_data_timeout(), 7);
    manager.WriteSettings("0 45 8 9");
    Server(3);
    EXPECT_EQ(ScannerServer::LsConnTimeout, 8);
    EXPECT_EQ(ScannerServer::get_data_timeout(), 9);
    Server(1);
    EXPECT_EQ(ScannerServer::LsConnTimeout, 8) << "only a new one reads";
}

TEST_P(ServerFacts, IsUpAsItsOwnResourceIs) {
    ScannerServer& server = Server(1);
    manager.SetUp(2, false);
    EXPECT_TRUE(server.Up());
    manager.SetUp(1, false);
    EXPECT_FALSE(server.Up());
    EXPECT_EQ(manager.calls().back().device, 1);
    manager.SetUp(1, true);
    EXPECT_TRUE(server.Up());
}

TEST_P(ServerFacts, WithoutItsResourceItIsNeverUp) {
    manager.RefuseOpens(ENXIO);
    ScannerServer& server = Server(1);
    EXPECT_STREQ(server.server_name(), "?");
    manager.RefuseOpens(0);
    EXPECT_FALSE(server.Up());
}

// --- connecting ---

TEST_P(ServerConnects, ToItsAddressWithTheStandardTimeout) {
    std::unique_ptr<TCPStream> const stream(Server().connect_server());
    ASSERT_NE(stream, nullptr);
    EXPECT_TRUE(listener.IsPending());
    EXPECT_EQ(stream->set_timeout(0), 10000u) << "the process's; LsDataTimeout is for kept ones";
}

TEST_P(ServerConnects, TellsByErrnoWhyItCannot) {
    listener.Close();
    EXPECT_EQ(std::unique_ptr<TCPStream>(Server().connect_server()), nullptr);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_P(ServerConnects, TakesWhateverTheSettingsSayForATimeout) {
    Listener full(0);
    sockaddr_in& where = full.address();
    std::vector<Fd> waiting;
    for (int i = 0; i < 3; ++i) {
        waiting.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        ::connect(waiting.back().get(), Generic(where), sizeof where);
    }
    ScannerServer& server = *ScannerServer::findserver(sequence, 1, 1, &where);
    for (int const timeout : {0, -1, INT_MIN, -2097152}) {
        ScannerServer::LsConnTimeout = timeout;
        EXPECT_EQ(std::unique_ptr<TCPStream>(server.connect_server()), nullptr) << timeout;
        EXPECT_EQ(errno, ETIMEDOUT);
    }
}

TEST_P(ServerConnects, TakesAnIdleConnectionFirst) {
    ScannerServer& server = Server();
    Fd const peer = Kept(server);
    Say(peer, good);
    std::unique_ptr<TCPStream> const idle(server.connect_to_server());
    EXPECT_EQ(Heard(peer), wakeup);
    EXPECT_FALSE(listener.IsPending());
    std::unique_ptr<TCPStream> const fresh(server.connect_to_server());
    EXPECT_NE(fresh, nullptr);
    EXPECT_TRUE(listener.IsPending());
}

// --- idle connections ---

TEST_P(IdleConnections, AreUsedInTheOrderInWhichTheyCame) {
    ScannerServer& server = Server();
    std::vector<Fd> peers;
    for (int i = 0; i < 3; ++i) peers.push_back(Kept(server));
    for (Fd const& peer : peers) {
        Say(peer, good);
        std::unique_ptr<TCPStream> const stream(server.cached_server());
        ASSERT_NE(stream, nullptr);
        EXPECT_EQ(Heard(peer), wakeup);
    }
    EXPECT_EQ(std::unique_ptr<TCPStream>(server.cached_server()), nullptr);
    EXPECT_EQ(reused.times(), 3u);
}

TEST_P(IdleConnections, GetTheTimeoutOfTheSettings) {
    ScannerServer& server = Server();
    struct {
        int setting;
        unsigned milliseconds;
    } const cases[] = {{20, 20480},          {0, 0}, {-1, 0}, {2097151, 2147482624}, {2097152, 2147482624},
                       {INT_MAX, 2147482624}};
    for (auto const& one : cases) {
        Fd const peer = Kept(server);
        Say(peer, good);
        ScannerServer::LsDataTimeout = one.setting;
        std::unique_ptr<TCPStream> const stream(server.cached_server());
        ASSERT_NE(stream, nullptr) << one.setting;  // what is there already is in time
        EXPECT_EQ(stream->set_timeout(0), one.milliseconds) << one.setting;
    }
}

TEST_P(IdleConnections, ThatDoNotWakeUpAreDroppedWithoutAWord) {
    EventCapture const events;
    ScannerServer& server = Server();
    Fd closed = Kept(server), empty = Kept(server), nonsense = Kept(server), silent = Kept(server), fine = Kept(server);
    ScannerServer::LsDataTimeout = 0;
    closed.Close();
    Say(empty, "\n");
    Say(nonsense, "nonsense\n\n");
    Say(fine, "State NO\n\n");  // a header is all that is asked for
    std::unique_ptr<TCPStream> const stream(server.cached_server());
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(Heard(fine), wakeup);
    for (Fd const* const peer : {&empty, &nonsense, &silent}) {
        EXPECT_EQ(Heard(*peer), wakeup);
        EXPECT_TRUE(IsClosed(*peer));
    }
    EXPECT_EQ(lostIdle.times(), 4u);
}

// What it says beyond the answer would be taken for the next one.
TEST_P(IdleConnections, ThatSayMoreThanTheyWereAskedAreDropped) {
    ScannerServer& server = Server();
    Fd const talks = Kept(server), fine = Kept(server);
    Say(talks, std::string(good) + good);
    Say(fine, good);
    EXPECT_NE(std::unique_ptr<TCPStream>(server.cached_server()), nullptr);
    EXPECT_EQ(Heard(fine), wakeup);
    EXPECT_EQ(Heard(talks), wakeup);
    EXPECT_TRUE(IsClosed(talks));
    EXPECT_EQ(lostIdle.times(), 1u);
}

TEST_P(IdleConnections, AreAllClosedWhenTheirServerHasGone) {
    ScannerServer& server = Server();
    Fd const first = Kept(server), second = Kept(server);
    manager.SetUp(1, false);
    EXPECT_EQ(std::unique_ptr<TCPStream>(server.cached_server()), nullptr);
    EXPECT_TRUE(IsClosed(first) && IsClosed(second));
    EXPECT_EQ(Heard(first) + Heard(second), "");
    manager.SetUp(1, true);
    EXPECT_EQ(AwakeOf(server), 0u);
}

TEST_P(IdleConnections, AreAllClosedByALookAtAServerThatHasGone) {
    ScannerServer &server = Server(1), &other = Server(2);
    Fd const first = Kept(server), second = Kept(server), others = Kept(other);
    EXPECT_TRUE(server.Up());
    EXPECT_FALSE(IsClosed(first));
    manager.SetUp(1, false);
    EXPECT_FALSE(server.Up());
    EXPECT_TRUE(IsClosed(first) && IsClosed(second));
    EXPECT_FALSE(IsClosed(others));
}

TEST_P(IdleConnections, AreClosedTogetherWhenNoneWasUsedForTheirTime) {
    manager.WriteSettings("1 45 5 20");
    ScannerServer& server = Server();
    Fd const first = Kept(server), second = Kept(server), third = Kept(server);
    time.Pass(45);
    LetCacheThreadsLook();
    EXPECT_FALSE(IsClosed(first)) << "not before the next second";
    Say(first, good);
    EXPECT_NE(std::unique_ptr<TCPStream>(server.cached_server()), nullptr);
    time.Pass(45);
    LetCacheThreadsLook();
    EXPECT_FALSE(IsClosed(second)) << "the use of the first put it off for all";
    Fd const fourth = Kept(server);
    time.Pass(45);
    LetCacheThreadsLook();
    EXPECT_FALSE(IsClosed(second)) << "and so did the return of another";
    time.Pass(1);
    LetCacheThreadsLook();
    EXPECT_TRUE(IsClosed(second) && IsClosed(third) && IsClosed(fourth));
}

TEST_P(IdleConnections, OfATimeBelowZeroAreClosedAtTheNextLook) {
    manager.WriteSettings("1 -2000000000 5 20");
    Fd const peer = Kept(Server());
    LetCacheThreadsLook();
    EXPECT_FALSE(IsClosed(peer)) << "it is taken as 0";
    time.Pass(1);
    LetCacheThreadsLook();
    EXPECT_TRUE(IsClosed(peer));
}

TEST_P(IdleConnections, HaveAThreadOnlyWhereTheyAreKept) {
    unsigned const before = CacheThreadsStarted();
    manager.WriteSettings("0 45 5 20");
    Server(1);
    EXPECT_EQ(CacheThreadsStarted(), before);
    manager.WriteSettings("1 45 5 20");
    ScannerServer::s_usethreads = false;
    Server(2);
    EXPECT_EQ(CacheThreadsStarted(), before);
    ScannerServer::s_usethreads = true;
    Server(3);
    EXPECT_EQ(CacheThreadsStarted(), before + 1);
    EXPECT_EQ(CacheThreadStackBytes(), 0x10000u);
    LetCacheThreadsLook();  // it looks, and sleeps again
}

TEST_P(IdleConnections, AreClosedWithTheirServer) {
    ScannerServer::s_usethreads = false;
    auto server = std::make_unique<ScannerServer>(&listener.address(), 1, 1);
    ScannerServer::s_usethreads = true;
    Fd const peer = Kept(*server);
    server.reset();
    EXPECT_TRUE(IsClosed(peer));
}

TEST_P(IdleConnections, AreGivenAndTakenByManyThreads) {
    AnsweringProcess const process(listener);
    ScannerServer& server = Server();
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 40; ++i) {
                TCPStream* stream = server.connect_to_server();
                int handle = -1;
                if (stream) server.end_connection(handle, stream, true);
                if (t == 0 && i % 8 == 0) server.clear_cache();
                if (t == 1) manager.SetUp(1, i % 10 != 3);
            }
            if (t == 1) manager.SetUp(1, true);
        });
    for (int i = 0; i < 10; ++i) {
        time.Pass(31);
        LetCacheThreadsLook();
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_GT(reused.times(), 0u);
    server.clear_cache();
}

// --- ended connections ---

TEST_P(EndedConnections, AreTakenBackOnceTheServerKnows) {
    ScannerServer& server = Server();
    Fd const peer = End(server, good);
    EXPECT_EQ(Heard(peer), stasis);
    EXPECT_FALSE(IsClosed(peer));
    Say(peer, good);
    EXPECT_EQ(AwakeOf(server), 1u);
}

TEST_P(EndedConnections, FreeTheServerBeforeTheyTellItAnything) {
    ScannerServer& server = Server();
    Wire wire = Connected("");
    int occupation = -1;
    RSMgrResourceHandle(occupation, 0);
    std::thread process([&] {
        pollfd one{wire.peer.get(), POLLIN, 0};
        ::poll(&one, 1, kPatienceSeconds * 1000);
        EXPECT_EQ(manager.held(0), 0u);
        Say(wire.peer, good);
    });
    EXPECT_EQ(manager.held(0), 1u);
    server.end_connection(occupation, wire.stream, true);
    process.join();
    EXPECT_EQ(Heard(wire.peer), stasis);
}

TEST_P(EndedConnections, OfAServerThatHasGoneAreClosedAndNotTold) {
    ScannerServer& server = Server();
    Fd const idle = Kept(server);
    manager.SetUp(1, false);
    Fd const peer = End(server, good);
    EXPECT_EQ(Heard(peer), "");
    EXPECT_TRUE(IsClosed(peer));
    EXPECT_TRUE(IsClosed(idle)) << "what was kept goes too";
    manager.SetUp(1, true);
    EXPECT_EQ(AwakeOf(server), 0u);
}

TEST_P(EndedConnections, WhoseServerDoesNotAgreeAreClosedAndNotKept) {
    EventCapture const events;
    ScannerServer& server = Server();
    for (char const* const answer : {"", "\n", "nonsense\n\n", "State OK"}) {
        Fd const peer = End(server, answer);
        EXPECT_EQ(Heard(peer), stasis) << answer;
        EXPECT_TRUE(IsClosed(peer)) << answer;
    }
    EXPECT_EQ(AwakeOf(server), 0u);
    EXPECT_EQ(notKept.times(), 4u);
}

TEST_P(EndedConnections, OnWhichMoreCameThanWasAskedForAreClosed) {
    ScannerServer& server = Server();
    Fd const after = End(server, std::string(good) + good);
    EXPECT_EQ(Heard(after), stasis);
    EXPECT_TRUE(IsClosed(after));
    Wire wire = Connected(std::string(good) + good);
    StreamRequest answer;
    EXPECT_EQ(answer.read_headers(wire.stream), 0);
    server.end_connection(handle, wire.stream, true);
    EXPECT_EQ(Heard(wire.peer), "") << "it is not even told";
    EXPECT_TRUE(IsClosed(wire.peer));
    EXPECT_EQ(AwakeOf(server), 0u);
    EXPECT_EQ(notKept.times(), 2u);
}

TEST_P(EndedConnections, WhoseServerHasLeftAreClosed) {
    ScannerServer& server = Server();
    Wire wire = Connected("");
    wire.peer.Close();
    int const free = NextFd();
    int none = -1;
    server.end_connection(none, wire.stream, true);
    EXPECT_EQ(wire.stream, nullptr);
    EXPECT_EQ(AwakeOf(server), 0u);
    EXPECT_LT(NextFd(), free) << "our end is closed";
}

TEST_P(EndedConnections, AreKeptWhateverStateTheServerNames) {
    ScannerServer& server = Server();
    Fd const peer = End(server, "State NO\n\n");
    EXPECT_FALSE(IsClosed(peer));
}

// Whether there is a connection to keep or not, its server is looked at.
TEST_P(EndedConnections, TakeTheIdleOnesOfAServerThatHasGoneAlong) {
    ScannerServer& server = Server();
    Fd const first = Kept(server);
    manager.SetUp(1, false);
    Fd const ended = End(server, good, false);
    EXPECT_EQ(Heard(ended), "");
    EXPECT_TRUE(IsClosed(first));
    manager.SetUp(1, true);
    Fd const second = Kept(server);
    manager.SetUp(1, false);
    TCPStream* none = nullptr;
    server.end_connection(handle, none, true);
    EXPECT_TRUE(IsClosed(second));
}

TEST_P(EndedConnections, ThatSomethingWentWrongWithAreClosedAndNotTold) {
    ScannerServer& server = Server();
    Fd const peer = End(server, good, false);
    EXPECT_EQ(Heard(peer), "");
    EXPECT_TRUE(IsClosed(peer));
}

TEST_P(EndedConnections, AreNotKeptWhereTheSettingsOrTheModelForbidIt) {
    manager.WriteSettings("0 45 5 20");
    ScannerServer& uncached = Server(1);
    Fd const first = End(uncached, good);
    EXPECT_EQ(Heard(first), "");
    EXPECT_TRUE(IsClosed(first));
    std::size_t const calls = manager.calls().size();
    EXPECT_EQ(std::unique_ptr<TCPStream>(uncached.cached_server()), nullptr);
    EXPECT_EQ(manager.calls().size(), calls) << "nothing is asked for what there cannot be";
    manager.WriteSettings("1 45 5 20");
    ScannerServer& cached = Server(2);
    ScannerServer::s_usethreads = false;
    Fd const second = End(cached, good);
    EXPECT_EQ(Heard(second), "");
    EXPECT_TRUE(IsClosed(second));
}

TEST_P(EndedConnections, AreNotKeptWithoutAThreadThatWouldCloseThem) {
    RefuseThreads(true);
    ScannerServer& server = Server();
    RefuseThreads(false);
    Fd const peer = End(server, good);
    EXPECT_EQ(Heard(peer), "");
    EXPECT_TRUE(IsClosed(peer));
    EXPECT_EQ(noThread.times(), 1u);
}

TEST_P(EndedConnections, WithoutAStreamOnlyFreeTheServer) {
    ScannerServer& server = Server();
    TCPStream* none = nullptr;
    RSMgrResourceHandle(handle, 0);
    server.end_connection(handle, none, true);
    EXPECT_EQ(handle, -1);
    EXPECT_EQ(manager.held(0), 0u);
    server.end_connection(handle, none, true);
    EXPECT_EQ(AwakeOf(server), 0u);
}

// --- whether there are servers ---

TEST_P(ServersInUse, AreAskedForOncePerProcess) {
    manager.Answer(6, 2);
    EXPECT_TRUE(ScannerProcessActive());
    manager.Answer(6, 0);
    EXPECT_TRUE(ScannerProcessActive());
    EXPECT_EQ(manager.calls().size(), 1u);
    ScannerProcesses::active_set = false;
    EXPECT_FALSE(ScannerProcessActive());
    manager.Answer(6, 2);
    EXPECT_FALSE(ScannerProcessActive());
}

// A host may turn them off on another thread while the first session asks.
TEST_P(ServersInUse, StayOffWhereTheyAreTurnedOffWhileTheManagerIsAsked) {
    manager::Backend answering = manager::g_device;
    answering.isActive = [] {
        ScannerConn::disable_ls();
        return true;
    };
    manager::Choose(&answering);
    EXPECT_FALSE(ScannerProcessActive());
    EXPECT_FALSE(ScannerProcessActive());
    manager::Choose(nullptr);
}

TEST_P(ServersInUse, AreNotAskedForWhereTheAnswerIsSet) {
    manager.Answer(6, 2);
    ScannerProcesses::active = false;
    ScannerProcesses::active_set = true;
    EXPECT_FALSE(ScannerProcessActive());
    EXPECT_TRUE(manager.calls().empty());
}
