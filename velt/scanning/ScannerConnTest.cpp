#include "velt/scanning/ScannerConnTest.h"

#include <poll.h>
#include <system/UUID.h>

#include <utility>

#include "velt/scanning/ScannerServer.h"

extern "C" {
ssize_t __real_send(int fd, void const* data, size_t length, int flags);
ssize_t __wrap_send(int fd, void const* data, size_t length, int flags);
int __real_poll(pollfd* watched, nfds_t count, int timeout_ms);
int __wrap_poll(pollfd* watched, nfds_t count, int timeout_ms);
}

namespace {

constexpr int kStepMs = 1000;  // of the wait for the answer to a scan, and of nothing else
constexpr int kShortStepMs = 5;

thread_local std::vector<std::string> t_sent;
thread_local std::vector<std::string> t_heldBack;
thread_local std::vector<int> t_waits;
thread_local int t_steps = 0;
thread_local velt_testing::ScannerPeer* t_stalling = nullptr;
thread_local bool t_goesOn = false;

// Whom nothing has come from by the time it is held says nothing before it is let go.
int WaitForStall(pollfd* watched, nfds_t count) {
    for (;;) {
        bool const held = t_stalling->IsHeld();
        int const ready = __real_poll(watched, count, held ? 0 : kShortStepMs);
        if (ready != 0) return ready;
        if (!held) continue;
        std::exchange(t_stalling, nullptr)->Pass();
        if (t_goesOn) return __real_poll(watched, count, velt_testing::kPatienceSeconds * 1000);
        pollfd late = *watched;
        __real_poll(&late, 1, velt_testing::kPatienceSeconds * 1000);
        return 0;
    }
}

}  // namespace

ssize_t __wrap_send(int fd, void const* data, size_t length, int flags) {
    velt_testing::SparedNew const notes;
    t_sent.emplace_back(static_cast<char const*>(data), length);
    if (flags & MSG_MORE) t_heldBack.push_back(t_sent.back());
    return __real_send(fd, data, length, flags);
}

int __wrap_poll(pollfd* watched, nfds_t count, int timeout_ms) {
    {
        velt_testing::SparedNew const notes;
        t_waits.push_back(timeout_ms);
    }
    if (timeout_ms != kStepMs && timeout_ms != 0 && t_stalling) return WaitForStall(watched, count);
    if (timeout_ms != kStepMs) return __real_poll(watched, count, timeout_ms);
    int const ready = __real_poll(watched, count, kShortStepMs);
    t_steps += ready == 0;
    return ready;
}

namespace velt_testing {

using namespace VELT;

std::vector<std::string> TakeSent() { return std::exchange(t_sent, {}); }

std::vector<std::string> TakeHeldBack() { return std::exchange(t_heldBack, {}); }

std::vector<int> TakeWaits() { return std::exchange(t_waits, {}); }

int StepsOfASecond() { return t_steps; }

void Stall(ScannerPeer& server) {
    t_stalling = &server;
    t_goesOn = false;
}

void Pause(ScannerPeer& server) {
    t_stalling = &server;
    t_goesOn = true;
}

bool IsPaused() { return t_stalling != nullptr; }

unsigned long Counted(char const* name) { return QXStats::QXCounter(name).value(); }

ScannerConnTest::ScannerConnTest() {
    static int s_sequence = 5000;
    sequence = ++s_sequence;
    world.proxy().m_productName = "smtp";
    Config::initialise(&store);
    Initialise();
    ScannerProcesses::active_set = false;
    ScannerServer::LsConnTimeout = 5;
    ScannerServer::LsDataTimeout = 20;
    ForgetPauses();
    manager.SetName(kResource, "farm-1");
    Fill("hello\nworld\n");
    context.connection = &session;
    context.policy = Intern("content_in");
    context.identities = {Intern("staff")};
    TakeSent();
    TakeWaits();
    t_steps = 0;
    t_stalling = nullptr;
    scansBefore = Counted("scanner.conn.scans");
    failuresBefore = Counted("scanner.conn.failures");
}

ScannerConnTest::~ScannerConnTest() {
    DropScanner();
    delete output;
    EXPECT_FALSE(IsOccupied());
    local.Finish();
    remote.Finish();
    Config::initialise(nullptr);
}

void ScannerConnTest::Initialise() { ScannerConn::initialise(&world.proxy().m_config); }

void ScannerConnTest::Offer(ScannerPeer& server, int id) {
    manager.ToOffer({kResource - 1 + id, id, sequence, server.address()});
}

void ScannerConnTest::Converse(ScannerPeer& server, ScannerPeer::Conversation steps) {
    Offer(server);
    server.Converse(std::move(steps));
}

std::string ScannerConnTest::SetupBlock(std::string const& more) const {
    return "get setup_scan\nprotocol smtp\ntime 1700000000\nsize " + std::to_string(content.size()) +
           "\npolicy content_in\n" + more + "\n";
}

std::string ScannerConnTest::Answer(std::string const& size, int inInput, int cached, int modified) {
    return "State OK\nsize " + size + "\noutput_in_input " + std::to_string(inInput) + "\ncached " +
           std::to_string(cached) + "\ninput_modified " + std::to_string(modified) + "\n\n";
}

void ScannerConnTest::Fill(std::string const& text) {
    content = text;
    body = std::make_unique<ScannerStream>(UUID::get(), false);
    body->write(text.data(), static_cast<unsigned>(text.size()));
    context.data = body.get();
}

void ScannerConnTest::FillSpool(std::size_t length) {
    std::string text;
    while (text.size() < length) text += "line " + std::to_string(text.size()) + "\n";
    Fill(text);
    ASSERT_NE(body->get_spool_file(), "");
}

std::string ScannerConnTest::All(ScannerStream& stream) {
    std::string text;
    stream.seek(0, 0);
    char* data = nullptr;
    bool io_done = false;
    for (int count; (count = stream.readdata(data, 4096, true, io_done)) > 0;)
        text.append(data, static_cast<std::size_t>(count));
    return text;
}

int ScannerConnTest::Scan(unsigned index, bool fallback) {
    if (!scanner) scanner.reset(ScannerConn::get(&context));
    delete std::exchange(output, nullptr);
    return scanner->scan(index, output, fallback);
}

KORlog::InfoBag ScannerConnTest::TheReport(QXlog::Event const& event) {
    events.Expect(event);
    EXPECT_EQ(events.Names(), std::vector<std::string>{event.asString()});
    KORlog::InfoBag const bag = events.Bag(event);
    EXPECT_EQ(TextAt(bag, "ls_server_name"), "farm-1");
    EXPECT_EQ(TextAt(bag, "connection.audit_id"), "a-1");
    return bag;
}

}  // namespace velt_testing
