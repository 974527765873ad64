#include "Manager.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <random>
#include <utility>

#include "Now.h"

namespace rmgrd {

using VELT::manager::Question;

namespace {

constexpr std::size_t kMostServers = 512;
constexpr int kLongestWait = 24 * 60 * 60;

unsigned Random(unsigned below) {
    static std::minstd_rand engine(static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count()));
    return std::uniform_int_distribution<unsigned>(0, below - 1)(engine);
}

// By chance, so that it is none of an earlier manager's; as many changes have room above it.
int FirstSequence() { return static_cast<int>(std::random_device{}() >> 2) + 1; }

// A scanner process that anybody could announce would be one that passes everything.
bool MayAnnounce(int fd) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
    return peer.uid == 0 || peer.uid == ::geteuid();
}

// What another process calls itself, as one word for the operator.
std::string Printable(char const* text, std::size_t most) {
    std::string name(text, ::strnlen(text, most));
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return c <= ' ' || c >= 0x7F; }, '?');
    return name;
}

}  // namespace

Manager::Manager(ManagerSettings settings, Probing probe, Telling tell)
    : m_settings(std::move(settings)),
      m_tell(std::move(tell)),
      m_connections(m_settings.socketPath, *this),
      m_farm(m_settings.slowStart, Random, FirstSequence()),
      m_prober(std::move(probe), m_settings.probeInterval, [this] { m_connections.Wake(); }) {}

void Manager::Stop() {
    std::lock_guard const hold(m_lock);
    m_ending = true;
    m_prober.BeginToEnd();
    m_connections.Wake();
}

bool Manager::EndProbes(int seconds) { return m_prober.End(seconds); }

void Manager::SetServers(std::vector<ServerFacts> servers) {
    std::lock_guard const hold(m_lock);
    m_newServers = std::make_unique<std::vector<ServerFacts>>(std::move(servers));
    m_connections.Wake();
}

// --- the loop ---

void Manager::Run() {
    for (;;) {
        {
            std::lock_guard const hold(m_lock);
            if (m_ending) return;
        }
        TakeServers();
        m_prober.Retry(Now());
        for (Finding const& finding : m_prober.TakeFindings()) TakeFinding(finding);
        ServeWaiters();
        m_connections.Turn(NextTimeoutMs());
    }
}

int Manager::NextTimeoutMs() const {
    double const next = std::min(m_firstEnd, m_prober.NextRetry()) - Now();
    return static_cast<int>(std::ceil(std::clamp<double>(next, 0, kLongestWait) * 1000));
}

// --- questions ---

void Manager::Answer(Client& client, int result, int error) {
    VELT::manager::Answer answer{};
    answer.result = result;
    answer.error = error;
    m_connections.Send(client, answer);
}

// Who is told nothing yet says nothing, so a question during a wait does not fit either.
bool Manager::Take(Client& client, Question const& question) {
    using Role = Client::Role;
    using namespace VELT::manager;
    if (client.waits) return false;
    switch (question.request) {
        case kOpen:
            return client.role == Role::Fresh && Open(client, question.values[0]);
        case kWait:
            return (client.role == Role::Fresh || client.role == Role::Waiter) && Wait(client, question.values[0]);
        case kName:
            return client.role == Role::Resource && TellName(client);
        case kSetup:
            return client.role == Role::Control && Announce(client, question);
        case kAvailable:
        case kUnAvailable:
            return client.role == Role::Control && Willing(client, question.request == kAvailable);
        case kSettings:
            return client.role == Role::Control && TellSettings(client);
        case kServersInUse:
            if (client.role == Role::Control) Answer(client, static_cast<int>(m_farm.servers().size()));
            return client.role == Role::Control;
        default:
            return false;
    }
}

bool Manager::Open(Client& client, int resource) {
    using Role = Client::Role;
    if (resource < VELT::manager::kControl) return false;
    if (resource > 0 && !m_farm.IsUp(resource)) {
        Answer(client, -1, ENXIO);
        return false;
    }
    client.role = resource > 0 ? Role::Resource : resource == 0 ? Role::Waiter : Role::Control;
    client.resource = std::max(resource, 0);
    client.sequence = m_farm.sequence();
    Answer(client, 0);
    return true;
}

// One that waits anew has left what it had. Who asks for nothing else need not open anything first. A search that waits
// step by step keeps its turn.
bool Manager::Wait(Client& client, int seconds) {
    client.role = Client::Role::Waiter;
    if (client.occupies || client.turn == 0) client.turn = ++m_lastTurn;
    if (client.occupies) m_farm.Leave(client.occupies);
    client.occupies = 0;
    client.waits = true;
    client.until = Now() + std::clamp(seconds, 0, kLongestWait);
    m_firstEnd = std::min(m_firstEnd, client.until);
    m_waiters.emplace_hint(m_waiters.end(), client.turn, &client);
    return true;
}

bool Manager::TellName(Client& client) {
    VELT::manager::Answer answer{};
    auto const found = m_farm.servers().find(client.resource);
    if (found == m_farm.servers().end()) return false;
    std::strncpy(answer.name, found->second.facts.name.c_str(), sizeof answer.name - 1);
    m_connections.Send(client, answer);
    return true;
}

bool Manager::TellSettings(Client& client) {
    VELT::manager::Answer answer{};
    std::copy(std::begin(m_settings.connections), std::end(m_settings.connections), answer.values);
    m_connections.Send(client, answer);
    return true;
}

// The first value is how many items at a time; a process that listens on all addresses is on this host.
bool Manager::Announce(Client& client, Question const& question) {
    if (client.resource || !MayAnnounce(client.fd)) {
        Answer(client, -1, client.resource ? EBUSY : EPERM);
        return true;
    }
    ServerFacts facts;
    facts.name = Printable(question.name, sizeof question.name - 1);
    facts.capacity = std::max(question.values[0], 0);
    facts.address.sin_family = AF_INET;
    facts.address.sin_addr.s_addr = question.address ? question.address : htonl(INADDR_LOOPBACK);
    facts.address.sin_port = static_cast<in_port_t>(question.port);
    bool const fits = facts.address.sin_port != 0 && m_farm.servers().size() < kMostServers;
    if (fits) client.resource = AddServer(facts, false);
    Answer(client, fits ? client.resource : -1, fits ? 0 : EINVAL);
    return true;
}

bool Manager::Willing(Client& client, bool willing) {
    if (client.resource) m_farm.SetWilling(client.resource, willing);
    Answer(client, client.resource ? 0 : -1, EINVAL);
    return true;
}

// --- the end of a connection ---

void Manager::Leave(Client& client) {
    if (client.waits) StopWaiting(client);
    if (client.occupies) m_farm.Leave(client.occupies);
    client.occupies = 0;
    if (client.role == Client::Role::Control && client.resource) RemoveServer(client.resource);
}

// A process keeps a handle for each server of each list that it has seen, and closes none itself: at the limit the
// oldest one of an earlier list ends, which tells its process to open the server's connections anew.
bool Manager::MayGo(Client const& client) {
    return client.role == Client::Role::Resource && client.sequence != m_farm.sequence();
}

void Manager::Refused() { m_tell("too many connections: who comes now is refused"); }

// --- waiters ---

void Manager::Offer(Client& client, int resource) {
    ServerFacts const& facts = m_farm.servers().at(resource).facts;
    VELT::manager::Answer answer{};
    answer.result = resource;
    answer.values[0] = resource;
    answer.values[1] = m_farm.sequence();
    answer.values[2] = static_cast<std::int32_t>(facts.address.sin_addr.s_addr);
    answer.values[3] = facts.address.sin_port;
    StopWaiting(client);
    client.occupies = resource;
    m_connections.Send(client, answer);
}

void Manager::StopWaiting(Client& client) {
    client.waits = false;
    m_waiters.erase(client.turn);
}

// First come, first served. One that has gone meanwhile leaves what it was offered to the next.
void Manager::ServeWaiters() {
    double const now = Now();
    while (!m_waiters.empty()) {
        int const resource = m_farm.Occupy(now);
        if (!resource) break;
        Offer(*m_waiters.begin()->second, resource);
    }
    if (m_waiters.empty()) m_firstEnd = kNever;
    if (m_firstEnd <= now) EndWaits(now);
}

void Manager::EndWaits(double now) {
    m_firstEnd = kNever;
    for (auto next = m_waiters.begin(); next != m_waiters.end();) {
        Client& client = *next++->second;
        if (client.until > now) {
            m_firstEnd = std::min(m_firstEnd, client.until);
        } else {
            StopWaiting(client);
            Answer(client, -1, EAGAIN);
        }
    }
}

// --- servers and their health ---

int Manager::AddServer(ServerFacts const& facts, bool fromFile) {
    int const resource = m_farm.Add(facts);
    m_probed[resource] = {facts, fromFile};
    m_prober.Start(resource, facts);
    return resource;
}

void Manager::RemoveServer(int resource) {
    auto const found = m_probed.find(resource);
    if (found == m_probed.end()) return;
    m_tell("server " + found->second.facts.name + " at " + PlaceOf(found->second.facts) + " has gone");
    m_prober.Stop(resource);
    m_probed.erase(found);
    m_farm.Remove(resource);
    HangUpOn(resource);
}

void Manager::HangUpOn(int resource) {
    m_connections.EndAll([resource](Client const& client) {
        return client.role == Client::Role::Resource && client.resource == resource;
    });
}

void Manager::TakeFinding(Finding const& finding) {
    auto const found = m_probed.find(finding.resource);
    if (found == m_probed.end()) return;
    Probed& probed = found->second;
    bool const good = finding.problem.empty();
    bool const before = m_farm.IsUp(finding.resource);
    m_farm.SetHealthy(finding.resource, good, Now());
    if (probed.known && good == before) return;
    probed.known = true;
    std::string const who = "server " + probed.facts.name + " at " + PlaceOf(probed.facts);
    m_tell(who + (good ? " is up" : " gets no work: " + finding.problem));
    if (!good) HangUpOn(finding.resource);
}

// A server that stands in the file as before is left as it is.
void Manager::TakeServers() {
    std::unique_ptr<std::vector<ServerFacts>> wanted;
    {
        std::lock_guard const hold(m_lock);
        wanted = std::move(m_newServers);
    }
    if (!wanted) return;
    std::vector<int> gone;
    for (auto const& [resource, probed] : m_probed) {
        if (!probed.fromFile) continue;
        auto const same = std::find(wanted->begin(), wanted->end(), probed.facts);
        if (same == wanted->end())
            gone.push_back(resource);
        else
            wanted->erase(same);
    }
    for (int const resource : gone) RemoveServer(resource);
    for (ServerFacts const& facts : *wanted) AddServer(facts, true);
}

}  // namespace rmgrd
