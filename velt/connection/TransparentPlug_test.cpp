#include <netinet/tcp.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <new>
#include <thread>

#include "testing/EventCapture.h"
#include "testing/TempRoot.h"
#include "velt/connection/Connection.h"
#include "velt/errors/Failures.h"
#include "velt/runtime/Proxy.h"
#include "velt/streams/BufferPool.h"
#include "velt/streams/InterceptionTest.h"

#ifndef VELT_SANITIZED  // a sanitizer allocates by itself
namespace {

thread_local bool s_noMemory = false;

}  // namespace

// Memory that this thread can be refused.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = s_noMemory ? nullptr : std::malloc(size);
    return memory ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
#endif

namespace {

using namespace velt_testing;
using VELT::TCPStream;

constexpr int kLongMs = 20000;

std::string Hear(Fd const& fd, std::size_t count) {
    std::string text(count, 0);
    std::size_t got = 0;
    pollfd one{fd.get(), POLLIN, 0};
    while (got < count && ::poll(&one, 1, kLongMs) == 1) {
        ssize_t const more = ::recv(fd.get(), text.data() + got, count - got, 0);
        if (more <= 0) break;
        got += static_cast<std::size_t>(more);
    }
    text.resize(got);
    return text;
}

bool IsAtEnd(Fd const& fd) {
    pollfd one{fd.get(), POLLIN, 0};
    char byte;
    return ::poll(&one, 1, kLongMs) == 1 && ::recv(fd.get(), &byte, 1, 0) == 0;
}

bool Say(Fd const& fd, std::string const& text) {
    return ::send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

// A session whose client, `connection.client`, meant to reach `server`, and a device that lets it have its address.
class TransparentPlug : public InterceptionTest {
protected:
    TransparentPlug() {
        new VELT::Proxy;
        proxy().m_loopbackAllowed = true;
        proxy().m_timeoutMs = kLongMs;
        proxy().m_connectTimeoutMs = 10 * kLongMs;
        TCPStream::set_default_timeout(kLongMs);
        TCPStream::set_pool(&pool);
        Initialise();
        session = std::make_unique<VELT::Connection>();
        session->getSourceConnection().m_address = client = NameOf(connection.client.get());
        session->getSourceConnection().m_stream = new TCPStream(connection.server.release());
        session->getServerConnection().m_address = server.address();
    }
    ~TransparentPlug() override {
        session.reset();
        TCPStream::set_pool(nullptr);
        TCPStream::set_default_timeout(0);
        delete VELT::Proxy::s_pProxyInstance;
    }
    static VELT::Proxy& proxy() { return *VELT::Proxy::s_pProxyInstance; }

    // Runs it while `meanwhile` talks on both sides; then it has ended, and has left nothing.
    template <class Meanwhile>
    void Run(Meanwhile meanwhile) {
        std::thread plug([this] { session->TransparentPlug(); });
        meanwhile();
        plug.join();
        ExpectNothingLeft();
    }
    void ExpectNothingLeft() {
        EXPECT_EQ(session->getSourceConnection().m_stream, nullptr);
        EXPECT_EQ(session->getServerConnection().m_stream, nullptr);
        EXPECT_EQ(device.held(), 0u);
        EXPECT_TRUE(IsAtEnd(connection.client));
    }
    void ExpectClosedClient() {
        session->TransparentPlug();
        ExpectNothingLeft();
        EXPECT_FALSE(server.IsPending());
    }
    Fd AcceptAtServer() {
        pollfd one{server.fd(), POLLIN, 0};
        EXPECT_EQ(::poll(&one, 1, kLongMs), 1);
        return server.Accept();
    }

    EventCapture events;  // of which there are none
    VELT::BufferPool pool{4096, 0};
    Listener server;
    sockaddr_in client{};
    std::unique_ptr<VELT::Connection> session;
};

TEST_F(TransparentPlug, JoinsTheClientToItsServerInTheClientsName) {
    Run([&] {
        Fd const far = AcceptAtServer();
        EXPECT_TRUE(Say(connection.client, "to the server"));
        EXPECT_EQ(Hear(far, 13), "to the server");
        EXPECT_TRUE(Say(far, "to the client"));
        EXPECT_EQ(Hear(connection.client, 13), "to the client");
    });
    ASSERT_EQ(device.calls().size(), 1u);
    DeviceModel::Record const record = DeviceModel::RecordOf(device.calls()[0]);
    EXPECT_EQ(TextOf(record.source), TextOf(client));
    EXPECT_EQ(TextOf(record.target), TextOf(server.address()));
}

TEST_F(TransparentPlug, AHostThatSpeaksForTheClientConnectsInItsName) {
    events.AllowAll();
    ASSERT_TRUE(session->ConnectAsClient(kLongMs));
    Fd const far = AcceptAtServer();
    EXPECT_EQ(session->getServerConnection().m_stream->PutLine("in its name", true), 0);
    EXPECT_EQ(Hear(far, 13), "in its name\r\n");
    ASSERT_EQ(device.calls().size(), 1u);
    DeviceModel::Record const record = DeviceModel::RecordOf(device.calls()[0]);
    EXPECT_EQ(TextOf(record.source), TextOf(client));
    EXPECT_EQ(TextOf(record.target), TextOf(server.address()));
}

TEST_F(TransparentPlug, AHostIsToldThatItsServerRefused) {
    events.AllowAll();
    server.Close();
    EXPECT_THROW(session->ConnectAsClient(kLongMs), VELT::ConnectionFailure);
    EXPECT_EQ(session->getServerConnection().m_stream, nullptr);
    EXPECT_EQ(device.held(), 0u);
}

TEST_F(TransparentPlug, ClosesTheServerWhenTheClientLeaves) {
    Run([&] {
        Fd const far = AcceptAtServer();
        ::shutdown(connection.client.get(), SHUT_WR);
        EXPECT_TRUE(IsAtEnd(far));
    });
}

TEST_F(TransparentPlug, HandsOnWhatTheSessionHasReadAhead) {
    ASSERT_TRUE(Say(connection.client, "line\nthe rest"));
    char* line = nullptr;
    bool done = false;
    VELT::LINE_STATE_T state = VELT::LINE_CLOSED;
    ASSERT_EQ(session->getSourceConnection().m_stream->getline(line, true, done, state, true), 4);
    Run([&] { EXPECT_EQ(Hear(AcceptAtServer(), 8), "the rest"); });
}

TEST_F(TransparentPlug, SilenceClosesBothWithoutAWord) {
    proxy().m_timeoutMs = 50;
    Run([&] { EXPECT_TRUE(IsAtEnd(AcceptAtServer())); });
}

TEST_F(TransparentPlug, ServerThatRefusesClosesTheClientWithoutAWord) {
    server.Close();
    session->TransparentPlug();
    ExpectNothingLeft();
}

TEST_F(TransparentPlug, ServerThatIsTheGatewayItselfClosesTheClientWithoutAWord) {
    proxy().m_loopbackAllowed = false;
    ExpectClosedClient();
}

TEST_F(TransparentPlug, ServerThatDoesNotAnswerClosesTheClientWithoutAWord) {
    Listener full(0);
    std::vector<Fd> waiting;
    for (int i = 0; i < 4; ++i) {
        waiting.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        (void)::connect(waiting.back().get(), Generic(full.address()), sizeof(sockaddr_in));
    }
    session->getServerConnection().m_address = full.address();
    proxy().m_connectTimeoutMs = 50;
    auto plug = std::async(std::launch::async, [this] { session->TransparentPlug(); });
    EXPECT_EQ(plug.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    plug.get();
    ExpectNothingLeft();
}

TEST_F(TransparentPlug, AddressThatTheDeviceRefusesClosesTheClientWithoutAWord) {
    device.Answer(1);
    ExpectClosedClient();
}

TEST_F(TransparentPlug, WithoutADeviceClosesTheClientWithoutAWord) {
    Begin(VELT::Interception::Device);
    ExpectClosedClient();
    EXPECT_EQ(device.opens(), 0u);
}

#ifndef VELT_SANITIZED
TEST_F(TransparentPlug, WithoutMemoryForAStreamClosesTheClientWithoutAWord) {
    s_noMemory = true;
    session->TransparentPlug();
    s_noMemory = false;
    ExpectNothingLeft();
    EXPECT_FALSE(server.IsPending());
}
#endif

TEST_F(TransparentPlug, ServerConnectedBeforeIsLeftForTheClientsOwn) {
    auto ends = SocketPair();
    session->getServerConnection().m_stream = new TCPStream(ends.first.release());
    Run([&] {
        EXPECT_TRUE(IsAtEnd(ends.second));
        EXPECT_TRUE(Say(connection.client, "new"));
        EXPECT_EQ(Hear(AcceptAtServer(), 3), "new");
    });
}

TEST_F(TransparentPlug, SessionWithoutAClientConnectsToNobody) {
    delete std::exchange(session->getSourceConnection().m_stream, nullptr);
    ExpectClosedClient();
}

}  // namespace
