#include "Channel.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include <velt/streams/BufferPool.h>
#include <velt/streams/TCPStream.h>

#include "Receiver.h"
#include "testing/Sockets.h"

namespace smtp {
namespace {

using Input = Channel::Input;

class ClientTalk : public ::testing::Test {
protected:
    void SetUp() override {
        static VELT::BufferPool& pool = *new VELT::BufferPool(256, 0);  // never freed, as in a process
        VELT::TCPStream::set_pool(&pool);
        int fds[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        m_stream = std::make_unique<VELT::TCPStream>(fds[0]);
        m_stream->set_timeout(2000);
        m_client = fds[1];
    }
    void TearDown() override { Leave(); }

    void ClientSays(std::string const& text) {
        ASSERT_EQ(::send(m_client, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }
    std::string ClientHears() {
        char buffer[4096];
        ssize_t const got = ::recv(m_client, buffer, sizeof buffer, MSG_DONTWAIT);
        return got > 0 ? std::string(buffer, static_cast<std::size_t>(got)) : "";
    }
    void Leave() {
        if (m_client >= 0) ::close(m_client);
        m_client = -1;
    }

    std::unique_ptr<VELT::TCPStream> m_stream;
    int m_client = -1;
};

TEST_F(ClientTalk, AnswersAGroupOfCommandsByOneWrite) {
    Channel channel(*m_stream);
    ClientSays("ONE\r\nTWO\r\nTHR");
    std::string_view line;
    ASSERT_EQ(channel.ReadLine(line), Input::Line);
    EXPECT_EQ(line, "ONE\r");
    channel.Say({250, "2.0.0", "one"});
    ASSERT_EQ(channel.ReadLine(line), Input::Line);
    EXPECT_EQ(ClientHears(), "") << "the next command was there already";
    channel.Say({250, "2.0.0", "two"});
    ClientSays("EE\r\n");
    ASSERT_EQ(channel.ReadLine(line), Input::Line);
    EXPECT_EQ(line, "THREE\r");
    EXPECT_EQ(ClientHears(), "250 2.0.0 one\r\n250 2.0.0 two\r\n");
}

// Over the network, where the last words may wait for the end of the connection.
class LastWords : public ClientTalk {
protected:
    void SetUp() override {
        ClientTalk::SetUp();
        Leave();
        velt_testing::Listener listener;
        m_client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(::connect(m_client, velt_testing::Generic(listener.address()), sizeof(sockaddr_in)), 0);
        m_stream = std::make_unique<VELT::TCPStream>(::accept(listener.fd(), nullptr, nullptr));
        m_stream->set_timeout(2000);
    }
    void SayTheLast(std::string const& input) {
        Channel channel(*m_stream);
        ClientSays(input);
        std::string_view line;
        ASSERT_EQ(channel.ReadLine(line), Input::Line);
        channel.Say({221, "2.0.0", "bye"});
        ASSERT_TRUE(channel.FlushLast());
    }
    std::string HeardToTheEnd() {
        std::string heard;
        char buffer[256];
        while (ssize_t const got = ::recv(m_client, buffer, sizeof buffer, 0)) {
            if (got < 0) return heard + " and a failure";
            heard.append(buffer, static_cast<std::size_t>(got));
        }
        return heard;
    }
};

TEST_F(LastWords, ArriveWithTheEnd) {
    SayTheLast("QUIT\r\n");
    m_stream.reset();
    EXPECT_EQ(HeardToTheEnd(), "221 2.0.0 bye\r\n");
}

TEST_F(LastWords, DoNotWaitForAnEndThatWillLoseThem) {
    SayTheLast("QUIT\r\nand more\r\n");
    int heldBack = -1;
    ASSERT_EQ(::ioctl(m_stream->GetSocket(), SIOCOUTQNSD, &heldBack), 0);
    EXPECT_EQ(heldBack, 0);
}

TEST_F(ClientTalk, SkipsALineThatIsTooLongAndGoesOnBehindIt) {
    Channel channel(*m_stream);
    ClientSays(std::string(1000, 'x') + "\r\nNOOP\r\n");
    std::string_view line;
    EXPECT_EQ(channel.ReadLine(line), Input::TooLong);
    ASSERT_EQ(channel.ReadLine(line), Input::Line);
    EXPECT_EQ(line, "NOOP\r");
}

TEST_F(ClientTalk, TellsSilenceFromLeaving) {
    Channel channel(*m_stream);
    std::string_view line;
    m_stream->set_timeout(20);
    EXPECT_EQ(channel.ReadLine(line), Input::TimedOut);
    Leave();
    EXPECT_EQ(channel.ReadLine(line), Input::Closed);
}

// A byte every few milliseconds, until somebody has had enough of it.
class Dripping : public ClientTalk {
protected:
    void Drip(char byte) {
        m_thread = std::thread([this, byte] {
            while (!m_enough && ::send(m_client, &byte, 1, MSG_NOSIGNAL) == 1) ::usleep(2000);
        });
    }
    void TearDown() override {
        m_enough = true;
        if (m_thread.joinable()) m_thread.join();
        ClientTalk::TearDown();
    }
    std::atomic<bool> m_enough{false};
    std::thread m_thread;
};

TEST_F(Dripping, ALineHasItsTimeAsAWhole) {
    Channel channel(*m_stream);
    std::string_view line;
    EXPECT_EQ(m_stream->set_timeout(60), 2000u);
    Drip('x');
    EXPECT_EQ(channel.ReadLine(line), Input::TimedOut);
    EXPECT_EQ(m_stream->set_timeout(60), 60u) << "the stream has its timeout back";
}

TEST_F(Dripping, ALineThatDoesNotFitHasItsTimeAsAWhole) {
    Channel channel(*m_stream);
    std::string_view line;
    ClientSays(std::string(1000, 'x'));
    m_stream->set_timeout(60);
    Drip('x');
    EXPECT_EQ(channel.ReadLine(line), Input::TimedOut);
}

TEST_F(Dripping, AMessageIsSilenceBelowTheLeastRateAndNoneAbove) {
    Message message;
    message.spool = std::make_unique<VELT::ScannerStream>(65536u);
    m_stream->set_timeout(100);
    Drip('x');
    EXPECT_EQ(Receive(*m_stream, {}, "", 100000, message).end, ReceiveResult::End::TimedOut);
}

TEST_F(Dripping, AMessageMayTakeAsLongAsItNeedsWhereNoRateIsAsked) {
    Message message;
    message.spool = std::make_unique<VELT::ScannerStream>(65536u);
    m_stream->set_timeout(1000);
    DataDecoder::Limits limits;
    limits.line = 0;
    m_thread = std::thread([this] {
        for (int i = 0; i < 30; ++i) {
            ClientSays("x");
            ::usleep(50000);
        }
        ClientSays("\r\n.\r\n");
    });
    EXPECT_EQ(Receive(*m_stream, limits, "", 0, message).end, ReceiveResult::End::Complete);
}

TEST_F(Dripping, AMessageThatIsTooLargeAlreadyEarnsNoMoreTime) {
    Message message;
    message.spool = std::make_unique<VELT::ScannerStream>(65536u);
    m_stream->set_timeout(100);
    DataDecoder::Limits limits;
    limits.size = 1;
    Drip('x');
    EXPECT_EQ(Receive(*m_stream, limits, "", 1, message).end, ReceiveResult::End::TimedOut);
}

class MessageIntake : public ClientTalk {
protected:
    ReceiveResult Take(std::string const& wire) {
        m_message.spool = std::make_unique<VELT::ScannerStream>(65536u);
        ClientSays(wire);
        return Receive(*m_stream, {}, "Received: x\r\n", 500, m_message);
    }
    std::string Spooled() {
        std::string out(m_message.spool->size(), '\0');
        m_message.spool->seek(0, 0);
        long const got = m_message.spool->read(out.data(), static_cast<unsigned long>(out.size()));
        out.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return out;
    }
    Message m_message;
};

TEST_F(MessageIntake, SpoolsTheContentBehindTheReceivedLineAndLeavesTheNextCommand) {
    ReceiveResult const result = Take("A: b\r\n\r\n..x\r\n.\r\nQUIT\r\n");
    EXPECT_EQ(result.end, ReceiveResult::End::Complete);
    EXPECT_EQ(Spooled(), "Received: x\r\nA: b\r\n\r\n.x\r\n");
    EXPECT_EQ(m_message.size, 12u);
    EXPECT_TRUE(m_message.leadingDots);
    EXPECT_FALSE(m_message.eightBit);
    Channel channel(*m_stream);
    std::string_view line;
    ASSERT_EQ(channel.ReadLine(line), Input::Line);
    EXPECT_EQ(line, "QUIT\r");
}

TEST_F(MessageIntake, TellsAClientThatLeftFromOneThatFellSilent) {
    m_stream->set_timeout(20);
    EXPECT_EQ(Take("half a mess").end, ReceiveResult::End::TimedOut);
    Leave();
    EXPECT_EQ(Receive(*m_stream, {}, "", 500, m_message).end, ReceiveResult::End::Closed);
}

TEST_F(MessageIntake, SeesOneByteAbove127Wherever) {
    for (std::size_t at = 0; at < 40; ++at) {
        std::string text(40, 'a');
        text[at] = '\x80';
        EXPECT_TRUE(HasEightBit(text.data(), text.size())) << at;
    }
    std::string const ascii(40, '\x7f');
    EXPECT_FALSE(HasEightBit(ascii.data(), ascii.size()));
}

}  // namespace
}  // namespace smtp
