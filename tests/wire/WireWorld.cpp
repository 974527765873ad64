#include "WireWorld.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <utility>

#include "DaemonSide.h"
#include "testing/SpoolRoom.h"
#include "velt/Config.h"
#include "velt/results/ProcessScanResult.h"
#include "velt/scanning/EFabricScanAgent.h"
#include "velt/scanning/ScanAgent.h"
#include "velt/scanning/ScannerConn.h"
#include "velt/scanning/ScannerServer.h"
#include "velt/scanning/ScannerThread.h"
#include "velt/streams/ScannerStream.h"
#include "velt/streams/TCPStream.h"

extern "C" {
int __real_poll(pollfd* watched, nfds_t count, int timeout_ms);
int __wrap_poll(pollfd* watched, nfds_t count, int timeout_ms);
ssize_t __real_recv(int fd, void* data, size_t length, int flags);
ssize_t __wrap_recv(int fd, void* data, size_t length, int flags);
ssize_t __real_send(int fd, void const* data, size_t length, int flags);
ssize_t __wrap_send(int fd, void const* data, size_t length, int flags);
}

namespace {

// A server that says again what it said before: each answer when something was asked and the client waits, and then
// the end. No wait takes any time.
struct Script {
    velt_wire::Answers const& answers;
    velt_wire::Ending ending;
    int peer;
    std::size_t next = 0;
    bool wasAsked = false;

    void GoOn() {
        if (wasAsked && next < answers.size()) {
            std::string const& answer = answers[next++];
            EXPECT_EQ(__real_send(peer, answer.data(), answer.size(), MSG_DONTWAIT),
                      static_cast<ssize_t>(answer.size()));
        } else if (ending != velt_wire::Ending::Silence) {
            ::shutdown(peer, SHUT_WR);
        }
        wasAsked = false;
    }
};

thread_local Script* t_script = nullptr;

constexpr int kStepMs = 1000;  // of the wait for the answer to a scan, and of nothing else
constexpr int kShortStepMs = 20;
constexpr int kQuietSteps = 25;  // behind a break, until a wait is over
thread_local std::function<bool()> const* t_hasBroken = nullptr;

int PollHastened(pollfd* watched, nfds_t count, int timeout_ms) {
    if (timeout_ms == kStepMs) return __real_poll(watched, count, kShortStepMs);
    for (int quiet = 0; quiet < kQuietSteps; quiet += (*t_hasBroken)())
        if (int const ready = __real_poll(watched, count, kShortStepMs)) return ready;
    return 0;
}

}  // namespace

int __wrap_poll(pollfd* watched, nfds_t count, int timeout_ms) {
    if (t_hasBroken && timeout_ms > 0) return PollHastened(watched, count, timeout_ms);
    if (!t_script) return __real_poll(watched, count, timeout_ms);
    int const ready = __real_poll(watched, count, 0);
    if (ready != 0 || timeout_ms == 0) return ready;
    t_script->GoOn();
    return __real_poll(watched, count, 0);
}

ssize_t __wrap_recv(int fd, void* data, size_t length, int flags) {
    ssize_t const got = __real_recv(fd, data, length, flags);
    if (got != 0 || !t_script || t_script->ending != velt_wire::Ending::Reset) return got;
    errno = ECONNRESET;
    return -1;
}

ssize_t __wrap_send(int fd, void const* data, size_t length, int flags) {
    if (t_script) t_script->wasAsked = true;
    return __real_send(fd, data, length, flags);
}

namespace velt_wire {

using namespace VELT;
using velt_testing::Fd;
using velt_testing::Loopback;
using velt_testing::SocketPair;

namespace {

constexpr char kOk[] = "State OK\n\n";
constexpr std::size_t kOkBytes = sizeof kOk - 1;
constexpr char kChange[] = "Changed by the server.";  // the beginning of a file
constexpr int kRoomBytes = 1 << 20;                   // of a socket: all that is said lies in it

char const kRules[] = R"(<rules version="1">
  <policy name="base">
    <settings section="scanning"><set name="LSServerWaitTime">0</set></settings>
  </policy>
  <policy name="content" base="base">
    <actions><action>LOG</action><action>CLEAN</action><action>REPLACE</action><action>DENY</action></actions>
    <settings section="KORAVScanner"><set name="Action">DENY</set></settings>
    <settings section="KORContentScanner">
      <rule name="project-name" where="subject,body" match="project nightingale" weight="1" action="DENY"/>
      <rule name="mentioned" where="subject,body" match="to be noted" weight="1" action="LOG"/>
    </settings>
    <settings section="KORFormatScanner"><set name="OnLimit">DENY</set></settings>
    <identity name="board">
      <settings section="KORContentScanner"><set name="Enabled">false</set></settings>
    </identity>
    <identity name="flat">
      <settings section="KORFormatScanner"><set name="MaxDepth">1</set></settings>
    </identity>
  </policy>
  <policy name="replacing" base="content">
    <settings section="KORAVScanner">
      <set name="Action">REPLACE</set><set name="AlertText">Taken out of a mail of %HOPS%.</set>
    </settings>
  </policy>
  <policy name="noting" base="content">
    <settings section="KORAVScanner"><set name="Action">LOG</set></settings>
  </policy>
  <policy name="signing" base="content">
    <settings section="KORInfoScanner"><set name="Text">Example Ltd.</set></settings>
  </policy>
  <policy name="failing" base="content">
    <settings section="KORAVScanner"><list name="ClamdSockets"><item>/nowhere/clamd</item></list></settings>
  </policy>
</rules>)";

class ClientSession : public Connection {
public:
    void getConnectionAttributes(IKORPropertyBag* bag) override { bag->NewProperty("HOPS")->SetNarrow("three hops"); }
    bool ScannerCallback() override {
        if (onCallback) onCallback();
        return true;
    }

    std::function<void()> onCallback;
};

bool IsEmpty(char const* text) { return !text || !*text; }

bool LooksClean(IScanResultHandler const& verdict) {
    if (verdict.IsTriggered() || !IsEmpty(verdict.GetMasterActionCode()) || verdict.GetMasterScanResult()) return false;
    long position = 0;
    for (auto const* one = verdict.FindFirstScanResult(position); one; one = verdict.FindNextScanResult(position))
        if (one->InfectedItems() != 0 || one->GetScanErrorStatus()) return false;
    return true;
}

bool IsFailure(smtp::Verdict const& verdict) {
    bool const failed = verdict.finding == "scan failed" || verdict.finding == "fallback scan failed";
    return failed || !verdict.output || !verdict.output->result;
}

Judgement Judged(smtp::Verdict const& verdict, std::string const& original) {
    Judgement made{verdict.fate, verdict.finding};
    if (verdict.rewritten) made.rewritten = velt_testing::ReadAll(*verdict.rewritten);
    if (IsFailure(verdict)) return made;
    ScanOutput const& output = *verdict.output;
    made.looksClean = LooksClean(*output.result);
    made.looksUntriggered = !output.result->IsTriggered();
    made.givesOriginal = output.output && velt_testing::ReadAll(*output.output) == original;
    return made;
}

}  // namespace

WireWorld::WireWorld() {
    auto session = std::make_unique<ClientSession>();
    session->onCallback = [this] {
        if (m_onCallback) m_onCallback();
    };
    m_session = std::move(session);
    m_world.root().Write("config/qxxmlconf/rules.xml", kRules);
    m_world.proxy().m_productName = "smtp";
    EXPECT_TRUE(EFabricScanAgent::load("", "smtp", false, nullptr));
    Config::initialise(EFabricScanAgent::getPolicyLoader());
    m_manager.Answer(6, 1);  // there are scanner processes
    m_manager.WriteSettings("1 100000 5 20");
    Scanner::initialise(&m_world.proxy().m_config);
    ScanAgent::start();
    ProcessScanResult::Initialise();
    ScannerProcesses::active_set = false;
    m_addresses[0] = Loopback(1, "127.0.0.2");
    m_addresses[1] = Loopback(1);
    static int s_sequence = 0;
    m_sequence = ++s_sequence;  // a list of this world's own
    for (int local : {0, 1})
        m_servers[local] = ScannerServer::findserver(m_sequence, 1 + local, 1 + local, &m_addresses[local]);
}

WireWorld::~WireWorld() { Config::initialise(nullptr); }

Fd WireWorld::Connect(bool local) {
    auto [ours, peer] = SocketPair();
    ::setsockopt(peer.get(), SOL_SOCKET, SO_SNDBUF, &kRoomBytes, sizeof kRoomBytes);
    ::setsockopt(ours.get(), SOL_SOCKET, SO_SNDBUF, &kRoomBytes, sizeof kRoomBytes);
    ::send(peer.get(), kOk, kOkBytes, 0);
    auto* stream = new TCPStream(ours.release());
    int handle = -1;
    m_servers[local]->end_connection(handle, stream, true);
    char stasis[12];
    EXPECT_EQ(::recv(peer.get(), stasis, sizeof stasis, 0), static_cast<ssize_t>(sizeof stasis));
    m_manager.ToOffer({1 + local, 1 + local, m_sequence, m_addresses[local]});
    return std::move(peer);
}

void WireWorld::Tidy(bool local) {
    m_servers[local]->clear_cache();
    EXPECT_TRUE(IsFree());
    m_manager.Forget();
}

void WireWorld::CloseIdle() {
    ScannerServer::findserver(m_sequence, m_lastId, m_lastId, &m_addresses[0])->clear_cache();
    m_manager.Forget();
}

// An item, ready to be scanned.
struct WireWorld::Prepared {
    Prepared(Item const& item, Connection* session) {
        auto const intern = [](char const* name) { return EFabricScanAgent::getPolicyLoader()->internAttribute(name); };
        velt_testing::Put(data, item.content);
        if (item.changesFile && t_script) std::fstream(data.get_spool_file()) << kChange;
        context.connection = session;
        context.data = &data;
        context.policy = intern(item.policy.c_str());
        for (char const* const one : item.identities)
            context.identities.push_back(one ? intern(one) : InternedString());
        if (item.attributes) context.connection_attributes = new ScanConnectionAttributes(session);
        if (item.inPlace) {
            context.properties.NewProperty("ES_CONTEXT_HTTP")->SetLong(1);
            context.properties.NewProperty("ES_FORCEDHOST")->SetNarrow("KORHTTPScan");
        }
        for (long i = 0; i < item.properties; ++i)
            context.properties.NewProperty(("NOTE" + std::to_string(i)).c_str())->SetLong(i);
    }

    ScannerStream data{4096u};
    ScanContext context;
};

Judgements WireWorld::Scan(Item const& item) {
    Prepared prepared(item, m_session.get());
    Judgements made;
    for (smtp::Verdict const& verdict : smtp::ScanMessage(*m_session, prepared.context))
        made.push_back(Judged(verdict, item.content));
    return made;
}

int WireWorld::ScanAt(sockaddr_in const& where, int id, Item const& item, std::function<bool()> hasBroken,
                      bool isLost) {
    Prepared prepared(item, m_session.get());
    m_lastId = id;
    m_manager.ToOffer({id, id, m_sequence, where});
    m_onCallback = [&] { m_manager.SetUp(id, !(isLost && hasBroken())); };
    t_hasBroken = &hasBroken;
    std::unique_ptr<ScannerConn> scanner(ScannerConn::get(&prepared.context));
    ScanOutput* output = nullptr;
    int const result = scanner->scan(0, output, false);
    scanner.reset();
    t_hasBroken = nullptr;
    m_onCallback = nullptr;
    delete output;
    return result;
}

Answers WireWorld::Record(Item const& item) {
    DaemonSide server(Connect(item.byName), m_world.root() / "scandir");
    std::thread thread([&] { server.RunWoken(item.byName); });
    Scan(item);
    Tidy(item.byName);
    thread.join();
    EXPECT_TRUE(server.troubles.empty()) << item.name << ": " << server.troubles.front();
    EXPECT_EQ(server.said.back(), kOk) << "to the stasis behind the last identity";
    server.said.pop_back();
    if (item.retell) item.retell(server.said);
    return std::move(server.said);
}

Judgements WireWorld::Replay(Item const& item, Answers const& said, Ending ending) {
    Fd const peer = Connect(item.byName);
    ::send(peer.get(), kOk, kOkBytes, 0);  // to the wakeup
    Script script{said, ending, peer.get()};
    t_script = &script;
    m_onCallback = [this] {  // a server that says no more goes away
        for (int local : {0, 1}) m_manager.SetUp(1 + local, false);
    };
    Judgements made = Scan(item);
    t_script = nullptr;
    m_onCallback = nullptr;
    for (int local : {0, 1}) m_manager.SetUp(1 + local, true);
    Tidy(item.byName);
    return made;
}

}  // namespace velt_wire
