// ServerRota: in which order the servers of a list are asked: each scan begins with another one, and those that failed
// within the last second come last.
// Owner: the engines of the process.  Threads: any.  Failure: none.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <policyloader/engines/ServerAddress.h>

namespace policyloader {

class ServerRota {
public:
    // Of the caller's servers.
    std::vector<ServerAddress const*> order(std::vector<ServerAddress> const& servers);
    void failed(std::string const& server);

private:
    using Clock = std::chrono::steady_clock;

    std::mutex m_mutex;
    // Guarded by m_mutex.
    std::size_t m_turn = 0;
    std::map<std::string, Clock::time_point> m_failed;
};

}  // namespace policyloader
