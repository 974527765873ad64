#include <sys/resource.h>
#include <velt/errors/Failures.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "velt/streams/InterceptionTest.h"

using namespace VELT;
using namespace velt_testing;

namespace {

constexpr int wait_ms = 10000;

class Handles : public InterceptionTest {
protected:
    // A stream on the accepted socket, as the device answers for it.
    std::unique_ptr<TCPStream> Intercepted(int answer = 2) {
        if (!qxtrans_initialised) Initialise();
        device.Answer(answer);
        auto stream = std::make_unique<TCPStream>(::dup(connection.server.get()));
        Ask(*stream, flag);
        return stream;
    }
    bool flag = false;
};

class SourceAddresses : public InterceptionTest {
protected:
    sockaddr_in source = Loopback(4321, "198.51.100.7");
};

// No descriptor can be opened while this lives.
class NoDescriptors {
public:
    NoDescriptors() {
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        rlimit const none{static_cast<rlim_t>(NextFd()), m_before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_before); }

private:
    rlimit m_before{};
};

ConnectionFailure FailureOf(TCPStream& stream, sockaddr_in& remote, int timeout_ms) {
    try {
        stream.Connect(&remote, timeout_ms, false);
    } catch (ConnectionFailure const& failure) {
        return failure;
    }
    throw std::runtime_error("it connected");
}

// A listener that lets nobody in: whoever connects waits.
class FullListener {
public:
    FullListener() {
        for (int i = 0; i < 4; ++i) {
            Fd client(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
            ::connect(client.get(), Generic(m_listener.address()), sizeof(sockaddr_in));
            m_clients.push_back(std::move(client));
        }
    }
    sockaddr_in& address() { return m_listener.address(); }

private:
    Listener m_listener{0};
    std::vector<Fd> m_clients;
};

}  // namespace

TEST_F(Handles, TellOfATransparentSessionByTheAnswerTwoAlone) {
    for (int answer = -2; answer <= 6; ++answer) {
        auto const stream = Intercepted();
        device.Answer(answer);
        flag = true;
        EXPECT_EQ(Ask(*stream, flag), answer >= 0 && answer <= 2 ? 0 : -1) << answer;
        EXPECT_EQ(flag, answer == 2) << answer;
        EXPECT_EQ(stream->GetNATInfo() >= 0, answer == 1 || answer == 2) << answer;
    }
}

TEST_F(Handles, AreClosedByAnAnswerThatIsAFailure) {
    auto const stream = Intercepted(3);
    EXPECT_EQ(stream->GetNATInfo(), -1);
    EXPECT_EQ(device.opens(), 1u);
    EXPECT_EQ(device.held(), 0u);
}

TEST_F(Handles, CloseWithTheirStream) {
    for (int answer : {1, 2}) {
        auto stream = Intercepted(answer);
        EXPECT_EQ(device.held(), 1u);
        stream.reset();
        EXPECT_EQ(device.held(), 0u);
    }
}

TEST_F(Handles, AreGivenOnAsACopyThatTheDeviceCannotTellFromTheFirst) {
    auto stream = Intercepted();
    TCPStream other;
    EXPECT_EQ(stream->SetTransparency(&other), 0);
    EXPECT_NE(other.GetNATInfo(), stream->GetNATInfo());
    EXPECT_EQ(::fcntl(other.GetNATInfo(), F_GETFD), FD_CLOEXEC);
    stream.reset();
    EXPECT_EQ(device.held(), 1u) << "the copy keeps the device's end open";
    device.Answer(0);
    EXPECT_TRUE(other.Asymmetric());
    EXPECT_EQ(device.calls().back().handle, 0u);
}

TEST_F(Handles, AreReplacedByThoseThatAreGivenOn) {
    auto const stream = Intercepted();
    auto const other = Intercepted();
    EXPECT_EQ(device.held(), 2u);
    EXPECT_EQ(stream->SetRedirection(other.get()), 0);
    EXPECT_EQ(device.held(), 1u);
    EXPECT_TRUE(device.IsHandle(other->GetNATInfo()));
}

TEST_F(Handles, AreClosedByAStreamThatHasNoneToGiveOn) {
    auto const other = Intercepted();
    TCPStream stream;
    EXPECT_EQ(stream.SetRedirection(other.get()), 0);
    EXPECT_EQ(other->GetNATInfo(), -1);
    EXPECT_EQ(device.held(), 0u);
    EXPECT_EQ(stream.SetRedirection(other.get()), 0) << "nor has the other one any";
}

TEST_F(Handles, ThatCannotBeCopiedLeaveTheOtherStreamWithoutOne) {
    auto const stream = Intercepted();
    TCPStream other;
    {
        NoDescriptors const none;
        EXPECT_EQ(stream->SetRedirection(&other), -1);
    }
    EXPECT_LT(other.GetNATInfo(), 0);
    EXPECT_FALSE(other.Asymmetric());
    EXPECT_TRUE(device.IsHandle(stream->GetNATInfo()));
}

TEST_F(Handles, ThatCannotBeCopiedLeaveNoneToAStreamThatHadOne) {
    auto const stream = Intercepted();
    TCPStream other;
    other.SetNATInfo(1 << 20);  // no descriptor: closing it makes no room for the copy
    {
        NoDescriptors const none;
        EXPECT_EQ(stream->SetRedirection(&other), -1);
    }
    EXPECT_LT(other.GetNATInfo(), 0);
}

TEST_F(Handles, OfAListenerAreCopiedToWhatItAccepts) {
    auto const intercepted = Intercepted();
    TCPStream listener(::dup(connection.listener.fd()));
    intercepted->SetRedirection(&listener);
    Fd const client(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(::connect(client.get(), Generic(connection.listener.address()), sizeof(sockaddr_in)), 0);
    sockaddr_in from{};
    unsigned length = sizeof from;
    std::unique_ptr<TCPStream> const accepted(listener.AcceptRedir(Generic(from), &length));
    EXPECT_TRUE(device.IsHandle(accepted->GetNATInfo()));
    EXPECT_NE(accepted->GetNATInfo(), listener.GetNATInfo());
    EXPECT_EQ(TextOf(from), TextOf(NameOf(client.get())));
}

TEST_F(Handles, OfAListenerThatHasNoneDoNotKeepItFromAccepting) {
    TCPStream listener(::dup(connection.listener.fd()));
    Fd const client(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(::connect(client.get(), Generic(connection.listener.address()), sizeof(sockaddr_in)), 0);
    std::unique_ptr<TCPStream> const accepted(listener.AcceptRedir(nullptr, nullptr));
    EXPECT_GE(accepted->GetSocket(), 0);
    EXPECT_EQ(accepted->GetNATInfo(), -1);
}

TEST_F(Handles, ArePlainNumbersToWhoSetsThem) {
    TCPStream stream;
    EXPECT_EQ(stream.GetNATInfo(), -1);
    int const fd = ::dup(0);
    stream.SetNATInfo(fd);
    EXPECT_EQ(stream.GetNATInfo(), fd);
}

TEST_F(Handles, AnnounceTransfersOnTheirStreamsSocket) {
    TCPStream stream(::dup(connection.server.get()));
    sockaddr_in first = Loopback(1, "192.0.2.1"), second = Loopback(2, "192.0.2.2");
    device.Answer([](unsigned long request, void*) { return request == 7 ? 0 : 5; });
    EXPECT_EQ(stream.SetFTPRule(&first, &second, false), 5);
    EXPECT_EQ(TextOf(DeviceModel::RecordOf(device.calls()[0]).local), TextOf(NameOf(connection.server.get())));
    EXPECT_EQ(device.calls()[1].request, 6u);
    EXPECT_EQ(TextOf(DeviceModel::RecordOf(device.calls()[1]).source), "192.0.2.2:2");
}

// --- sessions ---

TEST_F(Handles, LeadASessionToTheSocketsOwnNameAndNotToWhatTheDeviceWrote) {
    Initialise();
    device.Answer([](unsigned long, void* argument) {
        *static_cast<sockaddr_in*>(argument) = Loopback(99, "203.0.113.9");
        return 2;
    });
    TCPStream stream(::dup(connection.server.get()));
    sockaddr_in peer{}, local{}, destination{};
    ASSERT_EQ(stream.GetConnectionInfo(peer, local, destination, flag), 0);
    EXPECT_TRUE(flag);
    EXPECT_EQ(TextOf(local), TextOf(connection.listener.address()));
    EXPECT_EQ(TextOf(destination), "203.0.113.9:99");
    EXPECT_EQ(TextOf(peer), TextOf(NameOf(connection.client.get())));
}

// --- the address that a server sees ---

TEST_F(SourceAddresses, AreReadFromDottedTextAndAPortInHostOrder) {
    Initialise();
    TCPStream stream;
    stream.CreateSocket(AF_INET);
    sockaddr_in remote = Loopback(25, "192.0.2.25");
    EXPECT_EQ(stream.SourceNat::SetSourceAddr(stream.GetSocket(), "198.51.100.7", 4321, &remote), 0);
    ASSERT_EQ(device.calls().size(), 1u);
    DeviceModel::Record const record = DeviceModel::RecordOf(device.calls()[0]);
    EXPECT_EQ(TextOf(record.source), "198.51.100.7:4321");
    EXPECT_EQ(TextOf(record.target), "192.0.2.25:25");
}

TEST_F(SourceAddresses, ThatAreNoDottedTextFailAndLeaveTheSocketAlone) {
    Initialise();
    TCPStream stream;
    stream.CreateSocket(AF_INET);
    sockaddr_in remote = Loopback(25, "192.0.2.25");
    for (char const* const text : {"", "host", "1.2.3.4.5", "256.1.1.1"}) {
        EXPECT_EQ(stream.SourceNat::SetSourceAddr(stream.GetSocket(), text, 1, &remote), -1) << text;
        EXPECT_EQ(TextOf(NameOf(stream.GetSocket())), "0.0.0.0:0");
    }
    EXPECT_EQ(device.opens(), 0u);
}

TEST_F(SourceAddresses, AreSetBeforeTheStreamConnects) {
    Initialise("7f000005 0");
    sockaddr_in local = Loopback(0, "127.0.0.9");
    for (sockaddr_in* const given : {&local, static_cast<sockaddr_in*>(nullptr)}) {
        TCPStream const stream(&connection.listener.address(), &source, given, wait_ms, false);
        Fd const server = connection.listener.Accept();
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        ASSERT_EQ(::getpeername(server.get(), Generic(peer), &length), 0);
        EXPECT_EQ(peer.sin_addr.s_addr, htonl(0x7f000005)) << "which the device then rewrites";
        DeviceModel::Record const record = DeviceModel::RecordOf(device.calls().back());
        EXPECT_EQ(TextOf(record.local), TextOf(peer));
        EXPECT_EQ(TextOf(record.source), TextOf(source));
        EXPECT_EQ(TextOf(record.target), TextOf(connection.listener.address()));
        EXPECT_TRUE(device.IsHandle(stream.GetNATInfo()));
    }
}

TEST_F(SourceAddresses, ThatTheDeviceRefusesEndTheStreamWithItsAnswer) {
    Initialise();
    for (int answer : {1, 2, 13, -EPERM}) {
        device.Answer(answer);
        int const free = NextFd();
        try {
            TCPStream const stream(&connection.listener.address(), &source, nullptr, wait_ms, false);
            ADD_FAILURE() << answer;
        } catch (FWException<fw_exception_tag::io> const& failure) {
            EXPECT_EQ(failure.error, answer < 0 ? -1 : answer);
            EXPECT_EQ(std::string(failure.what()).rfind("TCPStream, Call to SetSourceAddr failed.", 0), 0u)
                << failure.what();
        }
        EXPECT_EQ(NextFd(), free);
        EXPECT_FALSE(connection.listener.IsPending()) << "nothing was sent";
    }
    EXPECT_EQ(device.held(), 0u);
}

TEST_F(SourceAddresses, CannotBeSetWithoutADevice) {
    EXPECT_THROW(TCPStream(&connection.listener.address(), &source, nullptr, wait_ms, false),
                 FWException<fw_exception_tag::io>);
    EXPECT_FALSE(connection.listener.IsPending());
}

TEST_F(SourceAddresses, DoNotMakeTheProxyConnectToItself) {
    Initialise();
    EXPECT_THROW(TCPStream(&connection.listener.address(), &source, nullptr, wait_ms, true), LoopbackConnection);
    EXPECT_EQ(device.calls().size(), 1u) << "the device heard of it first";
    EXPECT_EQ(device.held(), 0u);
}

// --- routes ---

TEST_F(Handles, MakeATimedOutConnectAnAsymmetricRouteWhereTheDeviceSaysSo) {
    FullListener full;
    for (int answer : {0, 1, -1}) {
        auto const intercepted = Intercepted();
        device.Answer(answer);
        TCPStream stream;
        stream.CreateSocket(AF_INET);
        intercepted->SetTransparency(&stream);
        ConnectionFailure const failure = FailureOf(stream, full.address(), 50);
        bool const asymmetric = answer == 0;
        EXPECT_EQ(failure.event.asString(), asymmetric ? "12000:10" : "12000:6") << answer;
        EXPECT_EQ(failure.error, asymmetric ? 0 : ETIMEDOUT);
        EXPECT_EQ(stream.GetSocket(), -1);
        EXPECT_EQ(std::string(failure.what()).empty(), asymmetric);
    }
}

TEST_F(Handles, AreNotAskedForTheRouteWhereThereAreNone) {
    FullListener full;
    Initialise();
    TCPStream stream;
    stream.CreateSocket(AF_INET);
    EXPECT_FALSE(stream.Asymmetric());
    EXPECT_EQ(FailureOf(stream, full.address(), 50).error, ETIMEDOUT);
    EXPECT_TRUE(device.calls().empty());
}
