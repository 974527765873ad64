// The worked examples of docs/formats/health.md and docs/formats/monitor-pipe.md are true.
#include <testing/DocExample.h>
#include <velt/runtime/HealthRequest.h>
#include <velt/runtime/ProxyHealth.h>
#include <velt/runtime/ProxyMonitor.h>
#include <velt/runtime/RuntimeTest.h>
#include <velt/runtime/ServiceLoop.h>

#include <sstream>

namespace {

using VELT::ProxyHealth;
using velt_testing::DocExample;

std::vector<std::string> Lines(std::string const& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// As it goes over the network.
std::string WithCarriageReturns(std::string const& text) {
    std::string wire;
    for (std::string const& line : Lines(text)) wire += line + "\r\n";
    return wire;
}

std::string Replaced(std::string text, std::string const& mark, std::string const& by) {
    for (std::size_t at; (at = text.find(mark)) != text.npos;) text.replace(at, mark.size(), by);
    return text;
}

class HealthPage : public velt_testing::ProxyFixture {
protected:
    HealthPage() {
        ProxyHealth::disable();
        ProxyHealth::init("smtp");
        ProxyHealth::m_starttime = 1767225600;
        ProxyHealth::listener(25)->set_ok();
        ProxyHealth::listener(587)->set_notok();
    }
    struct Client {
        std::string request;
        bool closes;
    };
    static Client Described(std::string text) {
        bool const closes = text.find("<close>") != text.npos;
        text = text.substr(0, text.find('<'));
        text = Replaced(Replaced(text, "\\r", "\r"), "\\n", "\n");
        return {Replaced(text, "\\0", std::string(1, '\0')), closes};
    }
    static std::array<int, 2> Sent(Client const& client) {
        auto const pair = velt_testing::ConnectedPair();
        std::string const& bytes = client.request;
        EXPECT_EQ(::write(pair[0], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        if (client.closes) ::shutdown(pair[0], SHUT_WR);
        return pair;
    }
    static std::string Answer(Client const& client) {
        auto const [end, server] = Sent(client);
        {
            VELT::TCPStream stream(server);
            ProxyHealth::handle_request(&stream);
        }
        std::string const answer = velt_testing::ReadToEnd(end);
        ::close(end);
        return answer;
    }
    // The text of the failure; a path that can be read, and is not answered, is an unknown command.
    static std::string Failure(Client const& client) {
        auto const [end, server] = Sent(client);
        std::string text = "Unknown command";
        try {
            char path[128];
            VELT::read_request_info(server, path, sizeof path);
        } catch (VELT::ProxyHealthIOError const& failure) {
            text = failure.what();
        }
        ::close(end);
        ::close(server);
        return text;
    }
    std::string const m_page = DOCS "/formats/health.md";
};

TEST_F(HealthPage, RequestGetsTheAnswer) {
    std::string const request = WithCarriageReturns(DocExample(m_page, "request"));
    EXPECT_EQ(Answer({request, false}), WithCarriageReturns(DocExample(m_page, "answer")));
}

TEST_F(HealthPage, EachRefusedRequestGetsNothingForItsReason) {
    auto const lines = Lines(DocExample(m_page, "refused"));
    EXPECT_EQ(lines.size(), 7u);
    for (std::string const& line : lines) {
        std::size_t const arrow = line.find(" -> ");
        Client const client = Described(line.substr(0, arrow));
        EXPECT_EQ(Answer(client), "") << line;
        EXPECT_EQ(Failure(client), line.substr(arrow + 4)) << line;
    }
}

class NotedLoop : public VELT::ServiceLoop {
public:
    void StopServices() override { ++stops; }
    int stops = 0;
};

class OpenMonitor : public VELT::ProxyMonitor {
public:
    using ProxyMonitor::m_children;
    using ProxyMonitor::m_service;
    using ProxyMonitor::m_wantedChildren;
};

class PipePage : public velt_testing::ProxyFixture {
protected:
    PipePage() {
        m_monitor.m_service = m_loop;
        m_monitor.m_wantedChildren = 1;
        m_monitor.CreatePipes();
        m_monitor.CreatePipes();
    }
    ~PipePage() override {
        for (VELT::ChildData const* const child : m_monitor.m_children) {
            ::close(child->m_fromChild[1]);
            ::close(child->m_toChild[0]);
        }
        VELT::ServiceLoop::shutdown = false;
    }
    OpenMonitor::iterator Worker(int number) { return std::next(m_monitor.m_children.begin(), number - 1); }
    std::string HeardBy(int number) {
        int const fd = (*Worker(number))->m_toChild[0];
        char bytes[64];
        ssize_t const got = velt_testing::Readable(fd, 0) ? ::read(fd, bytes, sizeof bytes) : 0;
        return std::string(bytes, static_cast<std::size_t>(got));
    }
    void Says(int number, std::string const& bytes) {
        auto child = Worker(number);
        EXPECT_EQ(::write((*child)->m_fromChild[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        m_monitor.HandleMessage(child);
        EXPECT_FALSE(velt_testing::Readable((*child)->m_fromChild[0], 0)) << "read in part";
    }
    OpenMonitor m_monitor;
    NotedLoop* m_loop = new NotedLoop;  // the monitor's
};

// One line of the example: who says what, and to which worker it belongs.
struct Said {
    std::string who;
    int worker = 0;
    std::string bytes;

    explicit Said(std::string const& line) {
        std::istringstream in(line);
        in >> who >> worker >> std::hex;
        for (int byte; in >> byte;) bytes += static_cast<char>(byte);
    }
};

TEST_F(PipePage, ExampleHappensAsItIsTold) {
    auto const lines = Lines(DocExample(DOCS "/formats/monitor-pipe.md", "pipe"));
    ASSERT_EQ(lines.size(), 4u);
    Said const release(lines[0]), leave(lines[1]), own(lines[2]), stopping(lines[3]);

    Says(release.worker, release.bytes);
    EXPECT_EQ(leave.who, "monitor");
    EXPECT_EQ(HeardBy(leave.worker), leave.bytes);
    Says(own.worker, own.bytes);
    VELT::ServiceLoop::shutdown = true;
    EXPECT_EQ(m_loop->stops, 0);
    Says(stopping.worker, stopping.bytes);
    EXPECT_EQ(m_loop->stops, 1);
    EXPECT_EQ(HeardBy(1) + HeardBy(2), "");
}

}  // namespace
