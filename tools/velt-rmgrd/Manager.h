// Manager: answers those who are connected to the resource manager's socket. One connection is one handle: it occupies
// a server, stands for one, or asks; its end is the end of what it held.
// Owner: main, or a test. Thread: Run's; Stop may be called by any, and the probes run on threads of their own.
// Units: seconds. Failure: the constructor throws std::system_error where the socket cannot be had; a client that says
// anything else than the page tells (docs/formats/resource-manager.md) loses its connection.
#pragma once

#include <velt/scanning/RSMgrWire.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Connections.h"
#include "Farm.h"
#include "Prober.h"

namespace rmgrd {

struct ManagerSettings {
    std::string socketPath;
    int connections[4] = {1, 30, 5, 20};  // as /proc/qxrmgr/settings has them
    int slowStart = 10;
    int probeInterval = 10;
};

class Manager final : private Connections::Host {
public:
    using Telling = std::function<void(std::string const&)>;  // a line for the operator

    Manager(ManagerSettings settings, Probing probe, Telling tell);
    Manager(Manager const&) = delete;
    Manager& operator=(Manager const&) = delete;

    void Run();                                         // until Stop
    void Stop();                                        // any thread
    bool EndProbes(int seconds);                        // true: none runs, so the destructor need not wait
    void SetServers(std::vector<ServerFacts> servers);  // those of the file; any thread. Others than before go or come

private:
    static constexpr double kNever = std::numeric_limits<double>::max();

    // A server that is looked at.
    struct Probed {
        ServerFacts facts;
        bool fromFile;
        bool known = false;  // a first answer came
    };

    // What the clients say and what becomes of them.
    bool Take(Client& client, VELT::manager::Question const& question) override;
    void Leave(Client& client) override;
    bool MayGo(Client const& client) override;
    void Refused() override;

    void Answer(Client& client, int result, int error = 0);
    bool Open(Client& client, int resource);
    bool Wait(Client& client, int seconds);
    bool Announce(Client& client, VELT::manager::Question const& question);
    bool Willing(Client& client, bool willing);
    bool TellName(Client& client);
    bool TellSettings(Client& client);
    void Offer(Client& client, int resource);
    void StopWaiting(Client& client);
    void ServeWaiters();
    void EndWaits(double now);
    int NextTimeoutMs() const;

    int AddServer(ServerFacts const& facts, bool fromFile);
    void RemoveServer(int resource);
    void TakeFinding(Finding const& finding);
    void TakeServers();
    void HangUpOn(int resource);

    ManagerSettings const m_settings;
    Telling const m_tell;

    // Of Run's thread.
    Connections m_connections;
    Farm m_farm;
    std::map<int, Probed> m_probed;              // by resource
    std::map<std::uint64_t, Client*> m_waiters;  // by their turn
    std::uint64_t m_lastTurn = 0;
    double m_firstEnd = kNever;  // of all waits; or earlier, where whose it was has gone
    Prober m_prober;             // whose threads wake the connections

    std::mutex m_lock;  // guards all below
    std::unique_ptr<std::vector<ServerFacts>> m_newServers;
    bool m_ending = false;
};

}  // namespace rmgrd
