#include <velt/connection/Plug.h>

#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <future>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <testing/Sockets.h>
#include <testing/TempRoot.h>
#include <velt/streams/BufferPool.h>
#include <velt/streams/TCPStream.h>
#include <velt/streams/TelnetEscapeHandler.h>

namespace {

using velt_testing::Fd;

constexpr int kLongMs = 20000;

struct Pair {
    Fd outer, inner;
};

Pair Connected() {
    Fd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in name = velt_testing::Loopback(0);
    socklen_t length = sizeof name;
    EXPECT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&name), length), 0);
    EXPECT_EQ(::listen(listener.get(), 1), 0);
    ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&name), &length);
    Fd outer(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::connect(outer.get(), reinterpret_cast<sockaddr*>(&name), length), 0);
    Fd inner(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    timeval const most{20, 0};  // a test that waits for what does not come fails
    ::setsockopt(outer.get(), SOL_SOCKET, SO_RCVTIMEO, &most, sizeof most);
    ::setsockopt(outer.get(), SOL_SOCKET, SO_SNDTIMEO, &most, sizeof most);
    return {std::move(outer), std::move(inner)};
}

std::string Bytes(std::size_t count) {
    std::string bytes(count, 0);
    std::mt19937 random(static_cast<unsigned>(count));
    for (char& one : bytes) one = static_cast<char>(random());
    return bytes;
}

void Say(Fd const& fd, std::string const& text) {
    for (std::size_t sent = 0; sent < text.size();) {
        ssize_t const count = ::send(fd.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) return;
        sent += static_cast<std::size_t>(count);
    }
}

// So many bytes, or fewer where the other side ended before.
std::string Hear(Fd const& fd, std::size_t count) {
    std::string text(count, 0);
    std::size_t got = 0;
    for (ssize_t more; got < count && (more = ::recv(fd.get(), text.data() + got, count - got, 0)) > 0;)
        got += static_cast<std::size_t>(more);
    text.resize(got);
    return text;
}

void Reset(Fd& fd) {
    linger const hard{1, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    fd.Close();
}

// Until it takes nothing more, though what went is under way no longer.
std::size_t FillWhole(int fd) {
    std::size_t filled = velt_testing::Fill(fd);
    pollfd one{fd, POLLOUT, 0};
    for (std::size_t more = 1; more > 0; filled += more) {
        ::poll(&one, 1, 100);
        more = velt_testing::Fill(fd);
    }
    return filled;
}

class PlugTest : public ::testing::Test {
protected:
    PlugTest() {
        VELT::TCPStream::set_default_timeout(kLongMs);
        VELT::TCPStream::set_pool(&m_pool);
        Pair client = Connected(), server = Connected();
        m_client = std::move(client.outer);
        m_server = std::move(server.outer);
        m_from = std::make_unique<VELT::TCPStream>(client.inner.release());
        m_to = std::make_unique<VELT::TCPStream>(server.inner.release());
    }
    ~PlugTest() override {
        m_client.Close();
        m_server.Close();
        End();
        VELT::TCPStream::set_pool(nullptr);
        VELT::TCPStream::set_default_timeout(0);
    }
    void Begin(int timeoutMs = kLongMs) {
        m_thread = std::thread([this, timeoutMs] {
            VELT::Plug(*m_from, *m_to, timeoutMs).Run();
            timespec used{};
            ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
            m_usedMs = used.tv_sec * 1000 + used.tv_nsec / 1000000;
        });
    }
    // Until the plug has come out.
    void End() {
        if (m_thread.joinable()) m_thread.join();
    }
    // As a session ends: its streams close.
    void EndAndClose() {
        End();
        m_from.reset();
        m_to.reset();
    }

    VELT::BufferPool m_pool{4096, 0};
    Fd m_client, m_server;
    std::unique_ptr<VELT::TCPStream> m_from, m_to;
    std::thread m_thread;
    long m_usedMs = 0;
};

TEST_F(PlugTest, CarriesEverySizeBothWaysUnchanged) {
    Begin();
    for (std::size_t const size : {1, 2, 4095, 4096, 4097, 8192, 65536, 65537, 524288, 3000001}) {
        std::string const bytes = Bytes(size);
        for (auto const& [from, to] : {std::pair{&m_client, &m_server}, {&m_server, &m_client}}) {
            std::thread sender([&, from = from] { Say(*from, bytes); });
            EXPECT_TRUE(Hear(*to, size) == bytes) << size;
            sender.join();
        }
    }
}

TEST_F(PlugTest, CarriesBothWaysAtOnceThoughNeitherSideWaitsForTheOther) {
    Begin();
    std::string const bytes = Bytes(8000000);
    std::thread first([&] { Say(m_client, bytes); }), second([&] { Say(m_server, bytes); });
    auto up = std::async(std::launch::async, [&] { return Hear(m_server, bytes.size()) == bytes; });
    EXPECT_TRUE(Hear(m_client, bytes.size()) == bytes);
    EXPECT_TRUE(up.get());
    first.join();
    second.join();
}

// What a session has read ahead of its decision to look no further.
TEST_F(PlugTest, WhatWasBufferedGoesFirst) {
    Say(m_client, "first line\nsecond");
    Say(m_server, "greeting\nmore");
    char* line = nullptr;
    bool done = false;
    VELT::LINE_STATE_T state = VELT::LINE_CLOSED;
    ASSERT_GT(m_from->getline(line, true, done, state, true), 0);
    ASSERT_GT(m_to->getline(line, true, done, state, true), 0);
    Begin();
    EXPECT_EQ(Hear(m_server, 6), "second");
    EXPECT_EQ(Hear(m_client, 4), "more");
    Say(m_client, " and third");
    EXPECT_EQ(Hear(m_server, 10), " and third");
}

TEST_F(PlugTest, EndOfEitherSideEndsItOnceAllWasHandedOver) {
    for (bool const clientEnds : {true, false}) {
        for (std::size_t const size : {0, 1, 4096, 2000000}) {
            Pair client = Connected(), server = Connected();
            Fd& speaker = clientEnds ? client.outer : server.outer;
            Fd& listener = clientEnds ? server.outer : client.outer;
            m_from = std::make_unique<VELT::TCPStream>(client.inner.release());
            m_to = std::make_unique<VELT::TCPStream>(server.inner.release());
            Begin();
            std::string const bytes = Bytes(size);
            std::thread sender([&] {
                Say(speaker, bytes);
                ::shutdown(speaker.get(), SHUT_WR);
            });
            EXPECT_TRUE(Hear(listener, size) == bytes) << size;
            sender.join();
            EndAndClose();
            EXPECT_EQ(Hear(listener, 1), "");
        }
    }
}

TEST_F(PlugTest, SilenceOfBothEndsIt) {
    Begin(50);
    EndAndClose();
    EXPECT_EQ(Hear(m_client, 1), "");
    EXPECT_EQ(Hear(m_server, 1), "");
}

TEST_F(PlugTest, SideThatTakesNothingEndsItThoughItTalksOn) {
    std::string const bytes(50000000, 'x');
    Begin(300);
    std::thread sender([&] { Say(m_client, bytes); });
    std::thread talker([&] {
        while (::send(m_server.get(), ".", 1, MSG_NOSIGNAL) == 1) ::poll(nullptr, 0, 10);
    });
    std::thread hearer([&] { Hear(m_client, 1 << 30); });
    EndAndClose();
    for (std::thread* one : {&sender, &talker, &hearer}) one->join();
}

TEST_F(PlugTest, SideThatTakesALittleAtATimeKeepsIt) {
    std::string const bytes = Bytes(30000000);
    Begin(1000);
    std::thread sender([&] { Say(m_client, bytes); });
    std::string heard;
    while (heard.size() < bytes.size()) {
        std::string const more = Hear(m_server, std::min<std::size_t>(2000000, bytes.size() - heard.size()));
        ASSERT_FALSE(more.empty());
        heard += more;
        ::poll(nullptr, 0, 100);
    }
    EXPECT_TRUE(heard == bytes);
    sender.join();
}

TEST_F(PlugTest, ResetOfEitherSideEndsIt) {
    Begin();
    Reset(m_client);
    EndAndClose();
    EXPECT_EQ(Hear(m_server, 1), "");
}

// The client is gone, and what it said is still on its way to a server that takes nothing.
TEST_F(PlugTest, EndThatWaitsForTheOtherSideTakesNoTime) {
    std::string const block(1 << 20, 'x');
    Begin(700);
    std::thread sender([&] {
        ::fcntl(m_client.get(), F_SETFL, O_NONBLOCK);
        pollfd room{m_client.get(), POLLOUT, 0};
        while (::poll(&room, 1, 200) == 1 && ::send(m_client.get(), block.data(), block.size(), MSG_NOSIGNAL) > 0) {
        }
        m_client.Close();
    });
    sender.join();
    EndAndClose();
    EXPECT_LT(m_usedMs, 350);
}

TEST_F(PlugTest, LeavesNoDescriptor) {
    int const before = velt_testing::NextFd();
    Begin();
    std::string const bytes = Bytes(1000000);
    std::thread sender([&] { Say(m_client, bytes); });
    EXPECT_TRUE(Hear(m_server, bytes.size()) == bytes);
    sender.join();
    m_client.Close();
    EndAndClose();
    EXPECT_LE(velt_testing::NextFd(), before);
}

TEST_F(PlugTest, SilenceGivesThePipesBackAndLosesNothing) {
    Begin();
    Say(m_client, "x");
    ASSERT_EQ(Hear(m_server, 1), "x");
    int const before = velt_testing::NextFd();
    bool held = false;  // a machine that stands still for a second may hide it once
    for (std::size_t const size : {1000000, 1000001, 1000002}) {
        std::string const bytes = Bytes(size);
        for (auto const& [from, to] : {std::pair{&m_client, &m_server}, {&m_server, &m_client}}) {
            std::thread sender([&, from = from] { Say(*from, bytes); });
            EXPECT_TRUE(Hear(*to, size) == bytes);
            sender.join();
        }
        held = held || velt_testing::NextFd() > before;
        for (int i = 0; i < 2000 && velt_testing::NextFd() != before; ++i) ::poll(nullptr, 0, 10);
        EXPECT_EQ(velt_testing::NextFd(), before);
    }
    EXPECT_TRUE(held);
    m_client.Close();
    EndAndClose();
}

TEST_F(PlugTest, CarriesOnWithoutDescriptorsForPipes) {
#ifdef VELT_SANITIZED
    GTEST_SKIP() << "the sanitizer needs descriptors for its own looks";
#endif
    rlimit usual{};
    ::getrlimit(RLIMIT_NOFILE, &usual);
    rlimit const none{static_cast<rlim_t>(velt_testing::NextFd()), usual.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    Begin();
    std::string const bytes = Bytes(3000000);
    std::thread sender([&] { Say(m_client, bytes); });
    EXPECT_TRUE(Hear(m_server, bytes.size()) == bytes);
    sender.join();
    ::setrlimit(RLIMIT_NOFILE, &usual);
}

// A small piece that comes while its side takes nothing waits for it in a pipe.
TEST_F(PlugTest, PieceForASideThatIsFullArrivesWhole) {
    std::size_t const before = FillWhole(m_to->GetSocket());
    Begin();
    Say(m_client, "the piece");
    Say(m_server, "answer");  // what comes the other way goes on meanwhile
    EXPECT_EQ(Hear(m_client, 6), "answer");
    EXPECT_EQ(Hear(m_server, before).size(), before);
    EXPECT_EQ(Hear(m_server, 9), "the piece");
}

TEST_F(PlugTest, PieceForASideThatIsFullArrivesWholeWithoutDescriptorsForAPipe) {
#ifdef VELT_SANITIZED
    GTEST_SKIP() << "the sanitizer needs descriptors for its own looks";
#endif
    std::size_t const before = FillWhole(m_to->GetSocket());
    rlimit usual{};
    ::getrlimit(RLIMIT_NOFILE, &usual);
    rlimit const none{static_cast<rlim_t>(velt_testing::NextFd()), usual.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    Begin();
    Say(m_client, "the piece");
    EXPECT_EQ(Hear(m_server, before).size(), before);
    EXPECT_EQ(Hear(m_server, 9), "the piece");
    ::setrlimit(RLIMIT_NOFILE, &usual);
}

TEST_F(PlugTest, PieceThatCannotBeSentEndsIt) {
    ::shutdown(m_to->GetSocket(), SHUT_WR);
    Begin();
    Say(m_client, "the piece");
    EndAndClose();
    EXPECT_EQ(Hear(m_server, 1), "");
}

// Who looks at the bytes gets them, though they would be carried faster unseen.
TEST_F(PlugTest, CapturedStreamsGoThroughTheirCapture) {
    velt_testing::TempRoot root;
    VELT::TCPStream::set_debug_dir(root / "captures");
    m_to->debug("plug", "server");
    VELT::TCPStream::set_debug_dir("");
    Begin();
    std::string const up = Bytes(300000), down = Bytes(300001);
    std::thread first([&] { Say(m_client, up); }), second([&] { Say(m_server, down); });
    auto heard = std::async(std::launch::async, [&] { return Hear(m_server, up.size()) == up; });
    EXPECT_TRUE(Hear(m_client, down.size()) == down);
    EXPECT_TRUE(heard.get());
    first.join();
    second.join();
    m_client.Close();
    EndAndClose();
    EXPECT_GE(std::filesystem::file_size(root / "captures/plug-server.qxd"), up.size() + down.size());
}

// What the filter takes out of the one direction stays in the other.
class NoCommands : public VELT::TelnetEscapeHandler {
public:
    void on_will(int) override { ++m_count; }
    void on_wont(int) override { ++m_count; }
    void on_do(int) override { ++m_count; }
    void on_dont(int) override { ++m_count; }
    void on_interrupt() override { ++m_count; }
    void on_data_mark() override { ++m_count; }
    void on_command(int) override { ++m_count; }
    int m_count = 0;
};

TEST_F(PlugTest, TelnetFilterGetsItsCommands) {
    NoCommands commands;
    m_from->set_escape_handler(&commands);
    Begin();
    Say(m_client, "before\xff\xfd\x06 after");
    EXPECT_EQ(Hear(m_server, 12), "before after");
    Say(m_server, "\xff\xfd\x06");
    EXPECT_EQ(Hear(m_client, 3), "\xff\xfd\x06");
    m_client.Close();
    EndAndClose();
    EXPECT_EQ(commands.m_count, 1);
}

TEST_F(PlugTest, InputOfCommandsAloneEndsItAsTheEndOfTheStreamDoes) {
    NoCommands commands;
    m_from->set_escape_handler(&commands);
    Begin();
    Say(m_client, "\xff\xfd\x06");
    EndAndClose();
    EXPECT_EQ(Hear(m_server, 1), "");
    EXPECT_EQ(commands.m_count, 1);
}

TEST_F(PlugTest, SilenceOfCapturedStreamsEndsItToo) {
    NoCommands commands;
    m_to->set_escape_handler(&commands);
    Begin(50);
    EndAndClose();
    EXPECT_EQ(Hear(m_client, 1), "");
}

TEST_F(PlugTest, BuffersAreGivenBackBeforeTheBytesAreCarried) {
    Say(m_client, "line\nrest");
    char* line = nullptr;
    bool done = false;
    VELT::LINE_STATE_T state = VELT::LINE_CLOSED;
    ASSERT_GT(m_from->getline(line, true, done, state, true), 0);
    unsigned size = 0;
    char* const held = line;
    Begin();
    ASSERT_EQ(Hear(m_server, 4), "rest");
    Say(m_server, "x");
    ASSERT_EQ(Hear(m_client, 1), "x");
    std::vector<char*> taken;
    for (int i = 0; i < 3; ++i) taken.push_back(m_pool.obtain_buffer(size));
    EXPECT_EQ(std::count(taken.begin(), taken.end(), held), 1);
    for (char* const buffer : taken) m_pool.release_buffer(buffer);
}

}  // namespace
