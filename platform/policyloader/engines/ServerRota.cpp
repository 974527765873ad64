#include <policyloader/engines/ServerRota.h>

#include <algorithm>

namespace policyloader {
namespace {

constexpr auto kFailedFor = std::chrono::seconds(1);
constexpr std::size_t kMostFailed = 256;

}  // namespace

std::vector<ServerAddress const*> ServerRota::order(std::vector<ServerAddress> const& servers) {
    std::lock_guard<std::mutex> const guard(m_mutex);
    std::vector<ServerAddress const*> order;
    std::size_t const first = servers.empty() ? 0 : m_turn++ % servers.size();
    for (std::size_t i = 0; i < servers.size(); ++i) order.push_back(&servers[(first + i) % servers.size()]);
    auto const now = Clock::now();
    std::stable_partition(order.begin(), order.end(), [&](ServerAddress const* server) {
        auto const at = m_failed.find(server->text);
        return at == m_failed.end() || now - at->second > kFailedFor;
    });
    return order;
}

void ServerRota::failed(std::string const& server) {
    std::lock_guard<std::mutex> const guard(m_mutex);
    if (m_failed.size() >= kMostFailed) m_failed.clear();
    m_failed[server] = Clock::now();
}

}  // namespace policyloader
