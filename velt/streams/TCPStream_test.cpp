#include <KORnet/Addr.h>
#include <QXStats/QXCounter.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/un.h>
#include <velt/connection/TCPConnection.h>
#include <velt/errors/Failures.h>
#include <velt/runtime/Proxy.h>
#include <velt/streams/TCPStream.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "testing/Sockets.h"
#include "testing/TempRoot.h"
#include "velt/streams/WrappedCalls.h"

// The program is linked with setsockopt wrapped: it fails for a number that is no descriptor, leaving errno alone.
extern "C" {
int __real_setsockopt(int fd, int level, int name, void const* value, socklen_t length);
int __wrap_setsockopt(int fd, int level, int name, void const* value, socklen_t length);
}

int __wrap_setsockopt(int fd, int level, int name, void const* value, socklen_t length) {
    return fd == INT_MAX ? -1 : __real_setsockopt(fd, level, name, value, length);
}

using namespace VELT;
using namespace velt_testing;

namespace {

constexpr int wait_ms = 10000;

unsigned long Counter(char const* name) { return QXStats::QXCounter(name).value(); }

// What a failed connect told.
struct Failure {
    std::string event;
    std::string text;
    int error = 0;
};

template <class Work>
Failure FailureOf(Work work) {
    try {
        work();
    } catch (ConnectionFailure const& failure) {
        return {failure.event.asString(), failure.what(), failure.error};
    } catch (LoopbackConnection const& failure) {
        return {failure.event.asString(), failure.what(), 0};
    }
    return {"none", "", 0};
}

template <class Work>
std::string SetUpFailureOf(Work work, int error) {
    try {
        work();
    } catch (FWException<fw_exception_tag::io> const& failure) {
        EXPECT_EQ(failure.error, error);
        return failure.what();
    }
    return "none";
}

bool IsNonBlocking(int fd) { return (::fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }

// A port on which nobody listens.
unsigned short ClosedPort() { return Listener().port(); }

// Connects to a listener with no room until its queue takes no more.
std::vector<Fd> FillQueue(sockaddr const* address, unsigned length, int domain) {
    std::vector<Fd> waiting;
    for (int i = 0; i < 4; ++i) {
        waiting.emplace_back(::socket(domain, SOCK_STREAM | SOCK_NONBLOCK, 0));
        (void)::connect(waiting.back().get(), address, length);
    }
    return waiting;
}

// A local listener with a name of the abstract kind that is as long as an address of the network: what connects to it
// is connected at once.
class NearListener {
public:
    NearListener() : m_fd(::socket(AF_UNIX, SOCK_STREAM, 0)) {
        auto const pid = static_cast<unsigned>(::getpid());
        m_address.local.sun_family = AF_UNIX;
        std::memcpy(m_address.local.sun_path + 1, &pid, sizeof pid);
        EXPECT_EQ(::bind(m_fd.get(), Generic(m_address.network), sizeof m_address.network), 0);
        EXPECT_EQ(::listen(m_fd.get(), 4), 0);
    }
    sockaddr_in const* address() const { return &m_address.network; }
    Fd Accept() { return Fd(::accept(m_fd.get(), nullptr, nullptr)); }

private:
    Fd m_fd;
    union {
        sockaddr_un local{};
        sockaddr_in network;
    } m_address;
};

class TCPStreamConnect : public ::testing::Test {
protected:
    void SetUp() override { TCPStream::initialise(nullptr); }
};

class TCPStreamLocal : public TCPStreamConnect {
protected:
    // A path of exactly this length.
    std::string PathOf(std::size_t length) {
        std::string path = root / "s";
        path.resize(length, 'x');
        return path;
    }
    Fd ListenAt(std::string const& path, int backlog = 4) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path);
        Fd fd(::socket(AF_UNIX, SOCK_STREAM, 0));
        auto const length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
        EXPECT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
        if (backlog >= 0) ::listen(fd.get(), backlog);
        return fd;
    }

    TempRoot root;
};

}  // namespace

TEST_F(TCPStreamConnect, ReachesAListenerByEachConstructor) {
    Listener listener;
    std::string text = "127.0.0.1";
    TCPStream byText(text, listener.port(), wait_ms, false);
    TCPStream byAddress(&listener.address(), wait_ms, false);
    for (TCPStream* stream : {&byText, &byAddress}) {
        Fd const accepted = listener.Accept();
        EXPECT_TRUE(IsNonBlocking(stream->GetSocket()));
        stream->set_timeout(wait_ms);
        EXPECT_EQ(stream->PutLine("hello", false), 0);
        pollfd one{accepted.get(), POLLIN, 0};
        ::poll(&one, 1, wait_ms);
        EXPECT_EQ(ReadAvailable(accepted.get()), "hello");
    }
}

TEST_F(TCPStreamConnect, RecordsWhereItWentInTheConnection) {
    Listener listener;
    TCPConnection connection;
    connection.m_host = "mail.example.test";
    connection.m_addressText = "old";
    auto* const stream =
        new TCPStream(KORnet::IPAddr(std::string("127.0.0.1")), listener.port(), connection, wait_ms, false);
    EXPECT_EQ(connection.m_host, "");
    EXPECT_EQ(connection.m_stream, stream);
    EXPECT_EQ(connection.m_addressText, "127.0.0.1");
    EXPECT_EQ(connection.m_address.sin_family, AF_INET);
    EXPECT_EQ(connection.m_address.sin_port, htons(listener.port()));
    EXPECT_EQ(connection.m_address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

TEST_F(TCPStreamConnect, LeavesTheConnectionAloneWhenItFails) {
    TCPConnection connection;
    connection.m_host = "mail.example.test";
    Failure const failure = FailureOf(
        [&] { TCPStream stream(KORnet::IPAddr(std::string("127.0.0.1")), ClosedPort(), connection, wait_ms, false); });
    EXPECT_EQ(failure.event, "12000:7");
    EXPECT_EQ(connection.m_host, "mail.example.test");
    EXPECT_EQ(connection.m_stream, nullptr);
}

TEST_F(TCPStreamConnect, TakesATextThatIsNoAddressForTheUnspecifiedOne) {
    Listener listener;
    std::string text = "not.an.address";
    EXPECT_EQ(FailureOf([&] { TCPStream stream(text, listener.port(), wait_ms, true); }).event, "12000:12");
    TCPStream stream(text, listener.port(), wait_ms, false);
    EXPECT_TRUE(listener.IsPending()) << "the system takes 0.0.0.0 for this machine";
}

TEST_F(TCPStreamConnect, RefusesALoopWithoutAnyTraffic) {
    Listener listener;
    TCPStream stream;
    stream.CreateSocket(AF_INET);
    Failure const failure = FailureOf([&] { stream.Connect(&listener.address(), wait_ms, true); });
    EXPECT_EQ(failure.event, "12000:12");
    EXPECT_EQ(failure.text, "Loop Back");
    EXPECT_EQ(stream.GetSocket(), -1);
    EXPECT_FALSE(listener.IsPending());
}

TEST_F(TCPStreamConnect, ReportsARefusalAndClosesTheSocket) {
    unsigned long const before = Counter("comms.connect");
    sockaddr_in remote = Loopback(ClosedPort());
    TCPStream stream;
    stream.CreateSocket(AF_INET);
    Failure const failure = FailureOf([&] { stream.Connect(&remote, wait_ms, false); });
    EXPECT_EQ(failure.event, "12000:7");
    EXPECT_EQ(failure.error, ECONNREFUSED);
    EXPECT_EQ(failure.text, "Connection refused");
    EXPECT_EQ(stream.GetSocket(), -1);
    EXPECT_EQ(Counter("comms.connect"), before + 1);
}

TEST_F(TCPStreamConnect, ThatFailsAtOnceLeavesTheSocketOpenUntilTheStreamGoes) {
    unsigned long const before = Counter("comms.connect");
    int const free = NextFd();
    {
        TCPStream stream;
        stream.CreateSocket(AF_UNIX);  // takes no address of the network
        sockaddr_in remote = Loopback(1);
        Failure const failure = FailureOf([&] { stream.Connect(&remote, wait_ms, false); });
        EXPECT_EQ(failure.event, "12000:8");
        EXPECT_EQ(failure.error, EINVAL);
        EXPECT_EQ(stream.GetSocket(), free);
        EXPECT_NE(::fcntl(free, F_GETFD), -1);
    }
    EXPECT_EQ(NextFd(), free);
    EXPECT_EQ(Counter("comms.connect"), before + 1);
}

TEST_F(TCPStreamConnect, GoesOutToTheBroadcastAddressAsItStands) {
    unsigned long const before = Counter("comms.connect");
    sockaddr_in remote = Loopback(1, "255.255.255.255");
    TCPStream stream;
    stream.CreateSocket(AF_INET);
    EXPECT_NE(FailureOf([&] { stream.Connect(&remote, wait_ms, false); }).event, "12000:12");
    EXPECT_EQ(Counter("comms.connect"), before + 1) << "the system has refused it";
    EXPECT_GE(stream.GetSocket(), 0);
}

TEST_F(TCPStreamConnect, LeaksNoDescriptorFromAConstructorThatThrows) {
    int const free = NextFd();
    sockaddr_in closed = Loopback(ClosedPort());
    sockaddr_in everybody = Loopback(1, "255.255.255.255");
    std::string nowhere = "/no/such/socket";
    EXPECT_NE(FailureOf([&] { TCPStream stream(&closed, wait_ms, false); }).event, "none");
    EXPECT_NE(FailureOf([&] { TCPStream stream(&closed, wait_ms, true); }).event, "none");
    EXPECT_NE(FailureOf([&] { TCPStream stream(&everybody, wait_ms, false); }).event, "none");
    EXPECT_NE(FailureOf([&] { TCPStream stream(nowhere, wait_ms); }).event, "none");
    EXPECT_EQ(NextFd(), free);
}

TEST_F(TCPStreamConnect, TimesOutClosesAndCounts) {
    Listener listener(0);
    std::vector<Fd> const waiting = FillQueue(Generic(listener.address()), sizeof(sockaddr_in), AF_INET);
    unsigned long const timeouts = Counter("comms.connect.timeout");
    unsigned long const errors = Counter("comms.connect");
    TCPStream stream;
    stream.CreateSocket(AF_INET);
    Failure const failure = FailureOf([&] { stream.Connect(&listener.address(), 20, false); });
    EXPECT_EQ(failure.event, "12000:6");
    EXPECT_EQ(failure.error, ETIMEDOUT);
    EXPECT_EQ(failure.text, "Connection timed out");
    EXPECT_EQ(stream.GetSocket(), -1);
    EXPECT_EQ(Counter("comms.connect.timeout"), timeouts + 1);
    EXPECT_EQ(Counter("comms.connect"), errors);
}

TEST_F(TCPStreamConnect, OfASocketThatIsConnectedIsProgress) {
    Listener listener;
    TCPStream stream(&listener.address(), wait_ms, false);
    for (int again = 0; again < 3; ++again) {
        EXPECT_EQ(FailureOf([&] { stream.Connect(&listener.address(), wait_ms, false); }).event, "none");
    }
}

// A signal starts the wait anew, with all of its time.
TEST_F(TCPStreamConnect, SignalsShortenNoWait) {
    Listener listener;
    TCPStream stream;
    stream.CreateSocket(AF_INET);
    pollFailures = {EINTR, EAGAIN, EINTR};
    waits.clear();
    stream.Connect(&listener.address(), 4321, false);
    EXPECT_EQ(waits, (std::vector<int>{4321, 4321, 4321, 4321}));
}

TEST_F(TCPStreamConnect, WhoseWaitFailsClosesTheSocketAndCounts) {
    Listener listener;
    unsigned long const before = Counter("comms.connect");
    TCPStream stream;
    stream.CreateSocket(AF_INET);
    pollFailures = {EIO};
    EXPECT_EQ(FailureOf([&] { stream.Connect(&listener.address(), wait_ms, false); }).error, EIO);
    EXPECT_EQ(stream.GetSocket(), -1);
    EXPECT_EQ(Counter("comms.connect"), before + 1);
}

// A connect that completes at once is looked at like any other.
TEST_F(TCPStreamConnect, ThatIsDoneAtOnceIsWaitedForAllTheSame) {
    NearListener listener;
    unsigned long const before = Counter("comms.connect");
    TCPStream stream;
    stream.CreateSocket(AF_UNIX);
    pollFailures = {EIO};
    EXPECT_EQ(FailureOf([&] { stream.Connect(listener.address(), wait_ms, false); }).error, EIO);
    EXPECT_EQ(stream.GetSocket(), -1);
    EXPECT_EQ(Counter("comms.connect"), before + 1);
    stream.CreateSocket(AF_UNIX);
    EXPECT_EQ(FailureOf([&] { stream.Connect(listener.address(), wait_ms, false); }).event, "none");
}

TEST_F(TCPStreamConnect, ThatIsDoneAtOnceStillTellsTheSocketsError) {
    NearListener listener;
    unsigned long const before = Counter("comms.connect");
    TCPStream stream;
    stream.CreateSocket(AF_UNIX);
    stream.Connect(listener.address(), wait_ms, false);
    ASSERT_EQ(::send(stream.GetSocket(), "x", 1, 0), 1);
    listener.Accept().Close();  // with a byte unread, which is an error for the other side
    Failure const failure = FailureOf([&] { stream.Connect(listener.address(), wait_ms, false); });
    EXPECT_EQ(failure.error, ECONNRESET);
    EXPECT_EQ(stream.GetSocket(), -1);
    EXPECT_EQ(Counter("comms.connect"), before + 1);
}

TEST_F(TCPStreamConnect, LeavesTheSocketWithNoFlagButOne) {
    Listener listener;
    TCPStream stream;
    stream.CreateSocket(AF_INET);
    ASSERT_EQ(::fcntl(stream.GetSocket(), F_SETFL, O_APPEND), 0);
    stream.Connect(&listener.address(), wait_ms, false);
    EXPECT_EQ(::fcntl(stream.GetSocket(), F_GETFL), O_RDWR | O_NONBLOCK);
}

TEST_F(TCPStreamConnect, SurvivesSignals) {
    Listener listener(0);
    std::vector<Fd> waiting = FillQueue(Generic(listener.address()), sizeof(sockaddr_in), AF_INET);
    int const fd = listener.fd();
    // The queue empties while the stream waits; the system tries again by itself.
    Alarm alarm(3, [fd] {
        for (int i = 0; i < 2; ++i) ::close(::accept4(fd, nullptr, nullptr, SOCK_NONBLOCK));
    });
    EXPECT_EQ(FailureOf([&] { TCPStream stream(&listener.address(), wait_ms, false); }).event, "none");
    EXPECT_GE(Alarm::ticks(), 3);
}

TEST_F(TCPStreamConnect, WithoutASocketToBeHadSaysSo) {
    TCPStream stream;
    Failure const failure = FailureOf([&] { stream.CreateSocket(-1); });
    EXPECT_EQ(failure.event, "12000:114");
    EXPECT_EQ(failure.text, "Unable to obtain a network socket");
    EXPECT_EQ(failure.error, EAFNOSUPPORT);
}

TEST_F(TCPStreamLocal, ReachesEveryPathThatTheSystemTakes) {
    for (std::size_t length : {50u, 107u, 108u}) {
        std::string path = PathOf(length);
        Fd const listener = ListenAt(path);
        TCPStream stream(path, wait_ms);
        Fd const accepted(::accept(listener.get(), nullptr, nullptr));
        EXPECT_GE(accepted.get(), 0) << length;
        EXPECT_TRUE(stream.IsStillConnected());
    }
}

TEST_F(TCPStreamLocal, IsRefusedAPathThatIsTooLong) {
    unsigned long const before = Counter("comms.connect");
    for (std::size_t length : {109u, 110u, 200u, 5000u}) {
        std::string path = PathOf(length);
        Failure const failure = FailureOf([&] { TCPStream stream(path, wait_ms); });
        EXPECT_EQ(failure.event, "12000:8") << length;
        EXPECT_EQ(failure.error, EINVAL) << length;
    }
    EXPECT_EQ(Counter("comms.connect"), before) << "a local socket moves no counter";
}

TEST_F(TCPStreamLocal, TellsAMissingListenerFromAMissingPath) {
    std::string path = root / "s";
    EXPECT_EQ(FailureOf([&] { TCPStream stream(path, wait_ms); }).error, ENOENT);
    Fd const bound = ListenAt(path, -1);
    EXPECT_EQ(FailureOf([&] { TCPStream stream(path, wait_ms); }).event, "12000:7");
}

TEST_F(TCPStreamLocal, WhoseWaitFailsClosesUncounted) {
    std::string path = root / "s";
    Fd const listener = ListenAt(path);
    unsigned long const before = Counter("comms.connect");
    int const free = NextFd();
    pollFailures = {EIO};
    EXPECT_EQ(FailureOf([&] { TCPStream stream(path, wait_ms); }).error, EIO);
    EXPECT_EQ(NextFd(), free);
    EXPECT_EQ(Counter("comms.connect"), before);
    pollFailures = {EAGAIN, EINTR};
    EXPECT_EQ(FailureOf([&] { TCPStream stream(path, wait_ms); }).event, "none");
}

TEST_F(TCPStreamLocal, GivesUpOnAListenerThatStaysFull) {
    std::string path = root / "s";
    Fd const listener = ListenAt(path, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path);
    std::vector<Fd> const waiting = FillQueue(reinterpret_cast<sockaddr*>(&address), sizeof address, AF_UNIX);
    unsigned long const before = Counter("comms.connect.timeout");
    Failure const failure = FailureOf([&] { TCPStream stream(path, 30); });
    EXPECT_EQ(failure.event, "12000:6");
    EXPECT_EQ(failure.error, ETIMEDOUT);
    EXPECT_EQ(Counter("comms.connect.timeout"), before);
}

TEST(TCPStreamLoop, IsAnyAddressOfThisMachine) {
    auto const loops = [](char const* dotted) {
        sockaddr_in const address = Loopback(25, dotted);
        return TCPStream::IsLoopback(&address);
    };
    for (char const* dotted : {"0.0.0.0", "255.255.255.255", "127.0.0.1", "127.0.0.2", "127.255.255.255"})
        EXPECT_TRUE(loops(dotted)) << dotted;
    for (char const* dotted : {"10.0.0.1", "126.255.255.255", "128.0.0.1", "1.0.0.127"})
        EXPECT_FALSE(loops(dotted)) << dotted;
}

TEST(TCPStreamLoop, IsNotTheOneAddressThatAHostAllows) {
    Proxy proxy;
    for (sockaddr_in* address : proxy.m_interfaceAddresses) std::free(address);
    auto* const own = static_cast<sockaddr_in*>(std::malloc(sizeof(sockaddr_in)));  // the proxy frees it
    *own = Loopback(0, "10.1.2.3");
    proxy.m_interfaceAddresses = {own};
    auto const loops = [](char const* dotted) {
        sockaddr_in const address = Loopback(25, dotted);
        return TCPStream::IsLoopback(&address);
    };
    EXPECT_TRUE(loops("127.0.0.1"));
    EXPECT_TRUE(loops("10.1.2.3"));
    proxy.m_loopbackAllowed = true;
    EXPECT_FALSE(loops("127.0.0.1"));
    for (char const* dotted : {"127.0.0.2", "10.1.2.3", "0.0.0.0", "255.255.255.255"})
        EXPECT_TRUE(loops(dotted)) << dotted;
    EXPECT_FALSE(loops("10.1.2.4"));
}

TEST(TCPStreamSetUp, BindsListensAndAccepts) {
    TCPStream listener;
    listener.CreateSocket(AF_INET);
    sockaddr_in any = Loopback(0);
    listener.Bind(Generic(any), sizeof any);
    listener.Listen(4);
    sockaddr_in name{};
    unsigned length = sizeof name;
    listener.GetSockName(Generic(name), &length);
    EXPECT_EQ(length, sizeof name);
    EXPECT_NE(name.sin_port, 0);

    TCPStream::set_default_timeout(1234);
    TCPStream client(&name, wait_ms, false);
    sockaddr_in from{};
    length = sizeof from;
    std::unique_ptr<TCPStream> const accepted(listener.Accept(Generic(from), &length));
    TCPStream::set_default_timeout(0);
    sockaddr_in clientName{};
    unsigned clientLength = sizeof clientName;
    client.GetSockName(Generic(clientName), &clientLength);
    EXPECT_EQ(from.sin_port, clientName.sin_port);
    EXPECT_EQ(length, sizeof from);
    EXPECT_TRUE(IsNonBlocking(accepted->GetSocket()));
    EXPECT_EQ(accepted->set_timeout(0), 1234u);
    sockaddr_in peerName{};
    length = sizeof peerName;
    accepted->GetPeerName(Generic(peerName), &length);
    EXPECT_EQ(peerName.sin_port, clientName.sin_port);
}

TEST(TCPStreamSetUp, SmallWritesNeverWaitForAnAnswer) {
    TCPStream listener;
    listener.CreateSocket(AF_INET);
    sockaddr_in name = Loopback(0);
    unsigned length = sizeof name;
    listener.Bind(Generic(name), sizeof name);
    listener.Listen(4);
    listener.GetSockName(Generic(name), &length);
    TCPStream client(&name, wait_ms, false);
    std::unique_ptr<TCPStream> const accepted(listener.Accept(Generic(name), &length));
    for (TCPStream* const stream : {&client, accepted.get()}) {
        int noDelay = 0;
        socklen_t size = sizeof noDelay;
        ASSERT_EQ(::getsockopt(stream->GetSocket(), IPPROTO_TCP, TCP_NODELAY, &noDelay, &size), 0);
        EXPECT_EQ(noDelay, 1);
    }
}

// A program that a host starts meanwhile would keep the connection open when the session has ended.
TEST(TCPStreamSetUp, SocketsStayWithThisProgram) {
    TCPStream listener;
    listener.CreateSocket(AF_INET);
    sockaddr_in name = Loopback(0);
    unsigned length = sizeof name;
    listener.Bind(Generic(name), sizeof name);
    listener.Listen(4);
    listener.GetSockName(Generic(name), &length);
    TCPStream client(&name, wait_ms, false);
    std::unique_ptr<TCPStream> const accepted(listener.Accept(Generic(name), &length));
    for (TCPStream* const stream : {&listener, &client, accepted.get()}) {
        EXPECT_EQ(::fcntl(stream->GetSocket(), F_GETFD), FD_CLOEXEC);
    }
}

TEST(TCPStreamSetUp, AcceptWaitsOnAListenerThatDoesNotBlock) {
    Listener listener(4, SOCK_NONBLOCK);
    TCPStream stream(::dup(listener.fd()));
    Fd const client(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    Alarm alarm(3, [&] { (void)::connect(client.get(), Generic(listener.address()), sizeof(sockaddr_in)); });
    sockaddr_in from{};
    unsigned length = sizeof from;
    std::unique_ptr<TCPStream> const accepted(stream.Accept(Generic(from), &length));
    EXPECT_GE(accepted->GetSocket(), 0);
    EXPECT_GE(Alarm::ticks(), 3);
}

TEST(TCPStreamSetUp, AcceptWaitsOnThroughSignals) {
    Listener listener;
    TCPStream stream(::dup(listener.fd()));
    Fd const client(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    Alarm alarm(3, [&] { (void)::connect(client.get(), Generic(listener.address()), sizeof(sockaddr_in)); });
    std::unique_ptr<TCPStream> const accepted(stream.Accept(nullptr, nullptr));
    EXPECT_GE(accepted->GetSocket(), 0);
}

TEST(TCPStreamSetUp, FailsWithItsWordsAndTheSystems) {
    TCPStream closed;
    TCPStream unconnected;
    unconnected.CreateSocket(AF_INET);
    Listener taken;
    sockaddr_in name{};
    unsigned length = sizeof name;
    EXPECT_EQ(SetUpFailureOf([&] { unconnected.Bind(Generic(taken.address()), sizeof name); }, EADDRINUSE),
              "SockStream unable to bind: Address already in use (98)");
    EXPECT_EQ(SetUpFailureOf([&] { closed.Listen(1); }, EBADF),
              "TCPStream failed to listen on socket: Bad file descriptor (9)");
    EXPECT_EQ(SetUpFailureOf([&] { unconnected.Accept(Generic(name), &length); }, EINVAL),
              "TCPStream accept on socket failed: Invalid argument (22)");
    EXPECT_EQ(SetUpFailureOf([&] { closed.GetSockName(Generic(name), &length); }, EBADF),
              "SockStream, Unable to getsockname: Bad file descriptor (9)");
    EXPECT_EQ(SetUpFailureOf([&] { unconnected.GetPeerName(Generic(name), &length); }, ENOTCONN),
              "SockStream, Unable to getsockname: Transport endpoint is not connected (107)");
}

TEST(TCPStreamSetUp, LingersAsTold) {
    TCPStream stream;
    EXPECT_EQ(stream.SetLinger(1, 7), EBADF);
    stream.CreateSocket(AF_INET);
    EXPECT_EQ(stream.SetLinger(1, 7), 0);
    linger value{};
    socklen_t length = sizeof value;
    ::getsockopt(stream.GetSocket(), SOL_SOCKET, SO_LINGER, &value, &length);
    EXPECT_EQ(value.l_onoff, 1);
    EXPECT_EQ(value.l_linger, 7);
}

TEST(TCPStreamSetUp, LingerThatFailsWithoutAReasonAnswersMinusOne) {
    TCPStream stream(INT_MAX);
    errno = 0;
    EXPECT_EQ(stream.SetLinger(1, 7), -1);
    errno = EPERM;
    EXPECT_EQ(stream.SetLinger(1, 7), EPERM);
    stream.SetSocket(-1);
}

TEST(TCPStreamSetUp, OwnsTheDescriptorThatItIsGiven) {
    int const free = NextFd();
    {
        auto ends = SocketPair(SOCK_STREAM);
        TCPStream stream(ends.first.release());
        EXPECT_FALSE(IsNonBlocking(stream.GetSocket())) << "its flags are left alone";
        EXPECT_EQ(stream.get_file(), stream.GetSocket());
        TCPStream other;
        EXPECT_EQ(other.GetSocket(), -1);
        other.SetSocket(ends.second.release());
    }
    EXPECT_EQ(NextFd(), free);
}

TEST(TCPStreamInfo, NamesBothEndsAndTakesThePeerForTheDestination) {
    Listener listener;
    TCPStream client(&listener.address(), wait_ms, false);
    sockaddr_in peer{}, local{}, destination{};
    bool flag = true;
    EXPECT_EQ(client.GetConnectionInfo(peer, local, destination, flag), 0);
    EXPECT_EQ(peer.sin_port, listener.address().sin_port);
    EXPECT_NE(local.sin_port, peer.sin_port);
    EXPECT_EQ(destination.sin_port, peer.sin_port);
    EXPECT_EQ(destination.sin_addr.s_addr, peer.sin_addr.s_addr);
    EXPECT_EQ(local.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_FALSE(flag);
    EXPECT_FALSE(client.Asymmetric());
}

TEST(TCPStreamInfo, FailsWithoutAPeer) {
    TCPStream stream;
    sockaddr_in peer{}, local{}, destination{};
    bool flag = true;
    EXPECT_EQ(stream.GetConnectionInfo(peer, local, destination, flag), -1);
    EXPECT_FALSE(flag);
    stream.CreateSocket(AF_INET);
    EXPECT_EQ(stream.GetConnectionInfo(peer, local, destination, flag), -1);
}

TEST(TCPStreamInfo, ClosesAHandleThatIsOpenAndHasNone) {
    Listener listener;
    TCPStream client(&listener.address(), wait_ms, false);
    int handle = ::dup(client.GetSocket());
    int const was = handle;
    sockaddr_in peer{}, local{}, destination{};
    EXPECT_EQ(qxtrans_connection_info(client.GetSocket(), &peer, &destination, &local, &handle), 0);
    EXPECT_EQ(handle, -1);
    EXPECT_EQ(::fcntl(was, F_GETFD), -1);
    EXPECT_EQ(destination.sin_port, listener.address().sin_port);
}
