// Exchanges over a connection as programs of two small writes make them: one end says two bytes in two writes, the
// other waits for both and answers alike. Where small writes are held back until the first is acknowledged, each
// exchange waits for the peer's timer, 40 ms or more; elsewhere it takes microseconds.
// Owner: the test. Thread: the test's, for both ends. Units: nanoseconds. Failure: fails the test that asks.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include <testing/Fd.h>
#include <velt/streams/TCPStream.h>

namespace velt_testing {

class ExchangeEnd {
public:
    virtual ~ExchangeEnd() = default;
    virtual void Say() = 0;
    virtual void Hear() = 0;
};

class StreamEnd : public ExchangeEnd {
public:
    explicit StreamEnd(VELT::TCPStream& stream) : m_stream(stream) { m_stream.set_timeout(10000); }
    void Say() override {
        EXPECT_EQ(m_stream.write("a", 1u), 0);
        EXPECT_EQ(m_stream.write("b", 1u), 0);
    }
    void Hear() override {
        char bytes[2];
        EXPECT_EQ(m_stream.read(bytes, sizeof bytes), 0);
    }

private:
    VELT::TCPStream& m_stream;
};

// A socket that holds nothing back.
class PlainEnd : public ExchangeEnd {
public:
    explicit PlainEnd(int fd) : m_fd(fd) {
        int const on = 1;
        EXPECT_EQ(::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), 0);
    }
    void Say() override {
        EXPECT_EQ(::send(m_fd, "a", 1, 0), 1);
        EXPECT_EQ(::send(m_fd, "b", 1, 0), 1);
    }
    void Hear() override {
        char bytes[2];
        EXPECT_EQ(::recv(m_fd, bytes, sizeof bytes, MSG_WAITALL), 2);
    }

private:
    int m_fd;
};

// A connected and an accepted plain socket.
class PlainConnection {
public:
    PlainConnection() : m_near(::socket(AF_INET, SOCK_STREAM, 0)) {
        Fd const listener(::socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* const name = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        EXPECT_EQ(::bind(listener.get(), name, length), 0);
        EXPECT_EQ(::listen(listener.get(), 1), 0);
        EXPECT_EQ(::getsockname(listener.get(), name, &length), 0);
        EXPECT_EQ(::connect(m_near.get(), name, length), 0);
        m_far = Fd(::accept(listener.get(), nullptr, nullptr));
    }
    int near() const { return m_near.get(); }
    int far() const { return m_far.get(); }

private:
    Fd m_near, m_far;
};

inline double Exchange(ExchangeEnd& near, ExchangeEnd& far) {
    auto const start = std::chrono::steady_clock::now();
    near.Say();
    far.Hear();
    far.Say();
    near.Hear();
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
}

inline double Median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

// How many times as long an exchange between these ends takes as one between plain sockets, made in turn with it.
inline double ExchangeRatio(ExchangeEnd& near, ExchangeEnd& far) {
    constexpr int exchanges = 40;  // the first few are acknowledged at once
    PlainConnection const plain;
    PlainEnd plainNear(plain.near()), plainFar(plain.far());
    std::vector<double> own, peers;
    for (int i = 0; i < exchanges && !testing::Test::HasFailure(); ++i) {
        own.push_back(Exchange(near, far));
        peers.push_back(Exchange(plainNear, plainFar));
    }
    return Median(std::move(own)) / Median(std::move(peers));
}

constexpr double kNoWait = 10;  // a wait for the timer is a ratio of some hundreds

}  // namespace velt_testing
