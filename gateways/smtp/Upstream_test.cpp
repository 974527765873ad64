#include "Upstream.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include <velt/streams/BufferPool.h>
#include <velt/streams/TCPStream.h>

namespace smtp {
namespace {

// The next server, as a script on a thread of its own: it says and expects texts, and may hang up at any point.
class Server {
public:
    explicit Server(int fd) : m_fd(fd) {}
    ~Server() { Hang(); }

    void Say(std::string const& text) { ::send(m_fd, text.data(), text.size(), MSG_NOSIGNAL); }
    // Reads until `end` has come; gives all of it, or what came before the client left.
    std::string Until(std::string const& end) {
        std::string got;
        char c;
        while ((got.size() < end.size() || got.compare(got.size() - end.size(), end.size(), end) != 0) &&
               ::recv(m_fd, &c, 1, 0) == 1) {
            got += c;
        }
        return got;
    }
    // What has come without waiting for more than it takes to be sure that the client waits.
    bool Silent() {
        pollfd one{m_fd, POLLIN, 0};
        return ::poll(&one, 1, 50) == 0;
    }
    void Hang() {
        if (m_fd >= 0) ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd;
};

class UpstreamTalk : public ::testing::Test {
protected:
    void SetUp() override {
        ::signal(SIGPIPE, SIG_IGN);                                      // as the proxy does at its start
        static VELT::BufferPool& pool = *new VELT::BufferPool(4096, 0);  // never freed, as in a process
        VELT::TCPStream::set_pool(&pool);
        int fds[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        m_stream = std::make_unique<VELT::TCPStream>(fds[0]);
        m_server = std::make_unique<Server>(fds[1]);
        m_timeouts.greetingMs = m_timeouts.commandMs = m_timeouts.dataMs = m_timeouts.blockMs = m_timeouts.finalMs =
            5000;
    }
    void TearDown() override {
        m_stream.reset();
        if (m_thread.joinable()) m_thread.join();
    }

    void Script(std::function<void(Server&)> script) {
        m_thread = std::thread([this, script] {
            script(*m_server);
            m_server->Hang();
        });
    }
    static void Welcome(Server& server, std::string const& extensions = "PIPELINING") {
        server.Say("220 mx\r\n");
        server.Until("\r\n");
        server.Say("250-mx\r\n250 " + extensions + "\r\n");
    }
    static Shipment Ship(std::vector<std::string> recipients, std::string_view text = "Subject: x\r\n\r\n.dot\r\n") {
        Shipment shipment;
        shipment.sender = "a@a.example";
        shipment.recipients = std::move(recipients);
        shipment.content.text = text;
        return shipment;
    }
    std::vector<Reply> GreetAndSend(Shipment const& shipment) {
        m_upstream = std::make_unique<Upstream>(*m_stream, m_timeouts);
        Reply const greeting = m_upstream->Greet("gw.example");
        EXPECT_EQ(greeting.group(), 2) << greeting.text;
        return m_upstream->Send(shipment);
    }

    UpstreamTimeouts m_timeouts;
    std::unique_ptr<VELT::TCPStream> m_stream;
    std::unique_ptr<Server> m_server;
    std::unique_ptr<Upstream> m_upstream;
    std::thread m_thread;
};

// What could not be sent is not answered: only a last word may still come.
TEST_F(UpstreamTalk, WaitsNoLongerThanForALastWordWhereItsCommandsDidNotGoOut) {
    std::promise<void> over;
    Script([&](Server& server) {
        Welcome(server);
        over.get_future().wait();
    });
    m_upstream = std::make_unique<Upstream>(*m_stream, m_timeouts);
    ASSERT_EQ(m_upstream->Greet("gw.example").group(), 2);
    ::shutdown(m_stream->GetSocket(), SHUT_WR);
    auto const begin = std::chrono::steady_clock::now();
    std::vector<Reply> const replies = m_upstream->Send(Ship({"b@b.example"}));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(m_timeouts.commandMs));
    over.set_value();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies.front().group(), 4);
    EXPECT_FALSE(m_upstream->alive());
}

TEST_F(UpstreamTalk, GathersTheEnvelopeWhereItMayAndStuffsDots) {
    std::string envelope, data;
    Script([&](Server& server) {
        Welcome(server);
        envelope = server.Until("DATA\r\n");
        server.Say("250 ok\r\n250 ok\r\n550 5.1.1 who?\r\n354 go\r\n");
        data = server.Until("\r\n.\r\n");
        server.Say("250 2.0.0 queued\r\n");
    });
    std::vector<Reply> const got = GreetAndSend(Ship({"b@b", "c@c"}));
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].code, 250);
    EXPECT_EQ(got[1].code, 550);
    EXPECT_TRUE(m_upstream->usable());
    m_thread.join();
    EXPECT_EQ(envelope, "MAIL FROM:<a@a.example>\r\nRCPT TO:<b@b>\r\nRCPT TO:<c@c>\r\nDATA\r\n");
    EXPECT_EQ(data, "Subject: x\r\n\r\n..dot\r\n.\r\n");
}

TEST_F(UpstreamTalk, WaitsForEachAnswerWhereItMayNotGather) {
    bool waited = true;
    Script([&](Server& server) {
        server.Say("220 mx\r\n");
        server.Until("\r\n");
        server.Say("500 what?\r\n");
        EXPECT_EQ(server.Until("\r\n"), "HELO gw.example\r\n");
        server.Say("250 mx\r\n");
        for (char const* answer : {"250 ok\r\n", "250 ok\r\n", "354 go\r\n"}) {
            server.Until("\r\n");
            waited = waited && server.Silent();
            server.Say(answer);
        }
        server.Until("\r\n.\r\n");
        server.Say("250 ok\r\n");
    });
    EXPECT_EQ(GreetAndSend(Ship({"b@b"})).front().code, 250);
    m_thread.join();
    EXPECT_TRUE(waited);
}

TEST_F(UpstreamTalk, SendsNoDataWhenNobodyWasAccepted) {
    std::string rest;
    Script([&](Server& server) {
        Welcome(server, "HELP");
        server.Until("\r\n");
        server.Say("250 ok\r\n");
        server.Until("\r\n");
        server.Say("450 4.2.0 later\r\n");
        rest = server.Until("never");
    });
    std::vector<Reply> const got = GreetAndSend(Ship({"b@b"}));
    EXPECT_EQ(got.front().code, 450);
    EXPECT_FALSE(m_upstream->usable());
    m_stream.reset();
    m_thread.join();
    EXPECT_EQ(rest, "");
}

TEST_F(UpstreamTalk, LeavesAServerThatWantsDataForNobody) {
    std::string rest;
    Script([&](Server& server) {
        Welcome(server);
        server.Until("DATA\r\n");
        server.Say("250 ok\r\n550 no\r\n354 go\r\n");
        rest = server.Until("never");
    });
    EXPECT_EQ(GreetAndSend(Ship({"b@b"})).front().code, 550);
    m_stream.reset();
    m_thread.join();
    EXPECT_EQ(rest, "") << "no end of data: an empty message must not be delivered";
}

// The server may leave at any point of the talk; only a 2xx to the end of the message counts.
TEST_F(UpstreamTalk, IsATemporaryFailureWhereverTheServerDies) {
    for (int dieAfter = 0; dieAfter < 4; ++dieAfter) {
        if (dieAfter) {
            TearDown();
            SetUp();
        }
        Script([&, dieAfter](Server& server) {
            Welcome(server);
            if (dieAfter == 0) return;
            server.Until("DATA\r\n");
            if (dieAfter == 1) return;
            server.Say("250 ok\r\n250 ok\r\n354 go\r\n");
            if (dieAfter == 2) return;
            server.Until("\r\n.\r\n");
        });
        std::vector<Reply> const got = GreetAndSend(Ship({"b@b"}));
        EXPECT_EQ(got.front().code, 451) << dieAfter;
        EXPECT_EQ(got.front().status, "4.4.2") << dieAfter;
        EXPECT_FALSE(m_upstream->usable());
        EXPECT_TRUE(dieAfter == 2 || m_upstream->unsure() == (dieAfter == 3)) << dieAfter;
    }
}

TEST_F(UpstreamTalk, IsATemporaryFailureWhenTheServerGoesSilent) {
    m_timeouts.finalMs = 50;
    Script([&](Server& server) {
        Welcome(server);
        server.Until("DATA\r\n");
        server.Say("250 ok\r\n250 ok\r\n354 go\r\n");
        server.Until("never");
    });
    std::vector<Reply> const got = GreetAndSend(Ship({"b@b"}));
    EXPECT_EQ(got.front().code, 451);
    EXPECT_EQ(got.front().text, "next server went silent");
    EXPECT_TRUE(m_upstream->unsure());
    m_stream.reset();
}

// An answer to the end of a message that no server gives: it may have kept the message or not.
TEST_F(UpstreamTalk, IsUnsureOfAMessageWhoseEndIsAnsweredByNothingThatDecides) {
    for (std::string const answer : {"354 go on\r\n", "what?\r\n", "99 x\r\n"}) {
        Script([&](Server& server) {
            Welcome(server);
            server.Until("DATA\r\n");
            server.Say("250 ok\r\n250 ok\r\n354 go\r\n");
            server.Until("\r\n.\r\n");
            server.Say(answer);
        });
        EXPECT_EQ(GreetAndSend(Ship({"b@b"})).front().code, 451) << answer;
        EXPECT_TRUE(m_upstream->unsure()) << answer;
        TearDown();
        SetUp();
    }
}

TEST_F(UpstreamTalk, IsSureOfAMessageThatWasRefusedAtItsEnd) {
    for (std::string const answer : {"451 later\r\n", "421 leaving\r\n", "554 no\r\n"}) {
        Script([&](Server& server) {
            Welcome(server);
            server.Until("DATA\r\n");
            server.Say("250 ok\r\n250 ok\r\n354 go\r\n");
            server.Until("\r\n.\r\n");
            server.Say(answer);
        });
        EXPECT_NE(GreetAndSend(Ship({"b@b"})).front().group(), 2) << answer;
        EXPECT_FALSE(m_upstream->unsure()) << answer;
        TearDown();
        SetUp();
    }
}

TEST_F(UpstreamTalk, GivesAReplyItsTimeAsAWhole) {
    for (std::string const drop : {"2", "220-x\r\n"}) {
        m_timeouts.greetingMs = 60;
        Upstream upstream(*m_stream, m_timeouts);
        std::atomic<bool> done{false};
        std::thread server([&] {
            while (!done) {
                m_server->Say(drop);
                ::usleep(10000);
            }
        });
        Reply const reply = upstream.Greet("gw.example");
        done = true;
        EXPECT_EQ(reply.code, 451) << drop;
        EXPECT_EQ(reply.text, "next server went silent") << drop;
        server.join();
        SetUp();
    }
}

TEST_F(UpstreamTalk, CountsNobodyAsServedWhomTheServerDidNotAccept) {
    Script([&](Server& server) {
        Welcome(server);
        server.Until("DATA\r\n");
        server.Say("250 ok\r\n354 what\r\n250 ok\r\n354 go\r\n");
        server.Until("\r\n.\r\n");
        server.Say("250 stored\r\n");
    });
    std::vector<Reply> const got = GreetAndSend(Ship({"b@b", "c@c"}));
    EXPECT_EQ(got[0].code, 451);
    EXPECT_EQ(got[1].code, 250);
}

TEST_F(UpstreamTalk, KeepsAMessageThatIsNotWantedAnyMore) {
    std::string rest;
    Script([&](Server& server) {
        Welcome(server);
        server.Until("DATA\r\n");
        server.Say("250 ok\r\n250 ok\r\n354 go\r\n");
        rest = server.Until("never");
    });
    Shipment shipment = Ship({"b@b"});
    shipment.wanted = [] { return false; };
    EXPECT_EQ(GreetAndSend(shipment).front().code, 451);
    EXPECT_FALSE(m_upstream->usable());
    m_stream.reset();
    m_thread.join();
    EXPECT_EQ(rest, "");
}

TEST_F(UpstreamTalk, PassesOnWhatTheServerSaysOfTheWholeMessage) {
    Script([&](Server& server) {
        Welcome(server);
        server.Until("DATA\r\n");
        server.Say("250 ok\r\n250 ok\r\n250 ok\r\n354 go\r\n");
        server.Until("\r\n.\r\n");
        server.Say("554-5.6.0 no\r\n554 5.6.0 really\r\n");
    });
    std::vector<Reply> const got = GreetAndSend(Ship({"b@b", "c@c"}));
    EXPECT_EQ(got[0].status, "5.6.0");
    EXPECT_EQ(got[1].text, "no really");
    EXPECT_TRUE(m_upstream->usable());
}

TEST_F(UpstreamTalk, DoesNotAskForWhatTheServerSaidItDoesNotTake) {
    Script([&](Server& server) {
        Welcome(server, "SIZE 10");
        EXPECT_EQ(server.Until("never"), "");
    });
    EXPECT_EQ(GreetAndSend(Ship({"b@b"})).front().status, "5.3.4");
    Shipment eightBit = Ship({"b@b"}, "x");
    eightBit.content.eightBit = true;
    EXPECT_EQ(m_upstream->Send(eightBit).front().status, "5.6.3");
    EXPECT_TRUE(m_upstream->usable());
    m_stream.reset();
}

TEST_F(UpstreamTalk, RefusesAServerThatDoesNotSpeakSmtp) {
    Script([](Server& server) {
        server.Say("HTTP/1.1 200 OK\r\n\r\n");
        server.Until("never");
    });
    Upstream upstream(*m_stream, m_timeouts);
    EXPECT_EQ(upstream.Greet("gw.example").status, "4.5.0");
    EXPECT_FALSE(upstream.usable());
    m_stream.reset();
}

TEST_F(UpstreamTalk, SendsAMessageFromDiskToItsLastByte) {
    std::string pattern = (std::filesystem::temp_directory_path() / "velt-upstream-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    std::string folder = pattern;
    VELT::ScannerStream::set_spool_dir(folder);
    VELT::ScannerStream spool(0u);
    std::string text;
    while (text.size() < 300000) text += "line " + std::to_string(text.size()) + "\r\n";
    ASSERT_EQ(spool.write(text.data(), static_cast<unsigned>(text.size())), static_cast<long>(text.size()));
    ASSERT_NE(spool.get_spool_file(), "");
    std::string data;
    Script([&](Server& server) {
        Welcome(server);
        server.Until("DATA\r\n");
        server.Say("250 ok\r\n250 ok\r\n354 go\r\n");
        data = server.Until("\r\n.\r\n");
        server.Say("250 ok\r\n");
    });
    Shipment shipment = Ship({"b@b"}, "");
    shipment.content.spool = &spool;
    shipment.content.plain = true;
    EXPECT_EQ(GreetAndSend(shipment).front().code, 250);
    m_thread.join();
    EXPECT_EQ(data, text + ".\r\n");
    spool.reset();
    std::filesystem::remove_all(pattern);
}

TEST_F(UpstreamTalk, PutsAHundredCommandsInFlightAndNoMore) {
    std::vector<std::string> many;
    for (int i = 0; i < 250; ++i) many.push_back("r" + std::to_string(i) + "@b");
    std::size_t most = 0;
    Script([&](Server& server) {
        Welcome(server);
        for (std::size_t answered = 0; answered < 252;) {
            std::size_t lines = 0;
            std::string answers;
            while (lines == 0 || !server.Silent()) {
                std::string const line = server.Until("\r\n");
                answers += line == "DATA\r\n" ? "354 go\r\n" : "250 ok\r\n";
                ++lines;
            }
            most = std::max(most, lines);
            answered += lines;
            server.Say(answers);
        }
        server.Until("\r\n.\r\n");
        server.Say("250 ok\r\n");
    });
    std::vector<Reply> const got = GreetAndSend(Ship(many));
    ASSERT_EQ(got.size(), 250u);
    EXPECT_TRUE(std::all_of(got.begin(), got.end(), [](Reply const& one) { return one.code == 250; }));
    m_thread.join();
    EXPECT_EQ(most, 100u);
}

}  // namespace
}  // namespace smtp
