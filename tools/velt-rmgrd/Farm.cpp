#include "Farm.h"

#include <arpa/inet.h>

#include <algorithm>
#include <vector>

namespace rmgrd {

namespace {

constexpr double kLeastShare = 0.1;  // of a server that came up this moment

}  // namespace

bool ServerFacts::operator==(ServerFacts const& other) const {
    return name == other.name && capacity == other.capacity && address.sin_port == other.address.sin_port &&
           address.sin_addr.s_addr == other.address.sin_addr.s_addr;
}

std::string PlaceOf(ServerFacts const& facts) {
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &facts.address.sin_addr, text, sizeof text);
    return std::string(text) + ':' + std::to_string(ntohs(facts.address.sin_port));
}

Farm::Farm(int slowStart, std::function<unsigned(unsigned)> random, int firstSequence)
    : m_slowStart(slowStart), m_random(std::move(random)), m_sequence(firstSequence) {}

int Farm::Add(ServerFacts const& facts) {
    m_servers[++m_lastResource].facts = facts;
    return m_lastResource;
}

void Farm::Remove(int resource) {
    if (IsUp(resource)) ++m_sequence;
    m_servers.erase(resource);
}

void Farm::SetHealthy(int resource, bool healthy, double now) {
    auto const found = m_servers.find(resource);
    if (found == m_servers.end() || found->second.healthy == healthy) return;
    found->second.healthy = healthy;
    found->second.upSince = now;
    ++m_sequence;
}

void Farm::SetWilling(int resource, bool willing) {
    auto const found = m_servers.find(resource);
    if (found != m_servers.end()) found->second.willing = willing;
}

bool Farm::IsUp(int resource) const {
    auto const found = m_servers.find(resource);
    return found != m_servers.end() && found->second.healthy;
}

// What the next item would make of it, as if a server that is new were as many times smaller.
double Farm::Load(Server const& server, double now) const {
    double const share = m_slowStart > 0 ? std::clamp((now - server.upSince) / m_slowStart, kLeastShare, 1.0) : 1.0;
    return (server.occupied + 1) / share;
}

int Farm::Occupy(double now) {
    std::vector<int> able;
    for (auto const& [resource, server] : m_servers) {
        bool const full = server.facts.capacity > 0 && server.occupied >= server.facts.capacity;
        if (server.healthy && server.willing && !full) able.push_back(resource);
    }
    if (able.empty()) return 0;
    unsigned const count = static_cast<unsigned>(able.size());
    unsigned const first = m_random(count);
    unsigned const second = count > 1 ? (first + 1 + m_random(count - 1)) % count : first;
    Server &one = m_servers[able[first]], &other = m_servers[able[second]];
    bool const takeFirst = Load(one, now) <= Load(other, now);
    ++(takeFirst ? one : other).occupied;
    return able[takeFirst ? first : second];
}

void Farm::Leave(int resource) {
    auto const found = m_servers.find(resource);
    if (found != m_servers.end() && found->second.occupied > 0) --found->second.occupied;
}

}  // namespace rmgrd
