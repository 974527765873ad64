// No exchange of small writes waits for a delayed acknowledgement: measured beside plain sockets in the same run.
#include <gtest/gtest.h>
#include <velt/connection/TCPConnection.h>
#include <velt/streams/TCPStream.h>

#include <memory>

#include <KORnet/Addr.h>
#include <testing/Exchanges.h>
#include <testing/Sockets.h>

using namespace VELT;
using namespace velt_testing;

namespace {

constexpr int kWait = 10000;  // ms

TEST(TCPStreamExchanges, ThroughAConnectedStreamNeverWait) {
    Listener listener;
    TCPStream stream(&listener.address(), kWait, false);
    Fd const peer(::accept(listener.fd(), nullptr, nullptr));
    StreamEnd near(stream);
    PlainEnd far(peer.get());
    EXPECT_LT(ExchangeRatio(near, far), kNoWait);
}

TEST(TCPStreamExchanges, ThroughAStreamConnectedForASessionNeverWait) {
    Listener listener;
    TCPConnection connection;
    new TCPStream(KORnet::IPAddr("127.0.0.1"), listener.port(), connection, kWait, false);  // the record's
    Fd const peer(::accept(listener.fd(), nullptr, nullptr));
    StreamEnd near(*connection.m_stream);
    PlainEnd far(peer.get());
    EXPECT_LT(ExchangeRatio(near, far), kNoWait);
}

TEST(TCPStreamExchanges, ThroughAnAcceptedStreamNeverWait) {
    TCPStream listener;
    listener.CreateSocket(AF_INET);
    sockaddr_in name = Loopback(0);
    unsigned length = sizeof name;
    listener.Bind(Generic(name), sizeof name);
    listener.Listen(4);
    listener.GetSockName(Generic(name), &length);
    Fd const peer(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(::connect(peer.get(), Generic(name), sizeof name), 0);
    std::unique_ptr<TCPStream> const accepted(listener.Accept(Generic(name), &length));
    PlainEnd near(peer.get());
    StreamEnd far(*accepted);
    EXPECT_LT(ExchangeRatio(near, far), kNoWait);
}

// What a stream would be like that holds small writes back: the measure tells.
TEST(TCPStreamExchanges, WaitWhereSmallWritesAreHeldBack) {
    Listener listener;
    TCPStream stream(&listener.address(), kWait, false);
    Fd const peer(::accept(listener.fd(), nullptr, nullptr));
    int const off = 0;
    ASSERT_EQ(::setsockopt(stream.GetSocket(), IPPROTO_TCP, TCP_NODELAY, &off, sizeof off), 0);
    StreamEnd near(stream);
    PlainEnd far(peer.get());
    double const ratio = ExchangeRatio(near, far);
    RecordProperty("ratio", std::to_string(ratio));
    EXPECT_GT(ratio, kNoWait);
}

}  // namespace
