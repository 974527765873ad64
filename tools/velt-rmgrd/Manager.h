// Manager: the resource manager's socket and all who are connected to it. One connection is one handle: it occupies a
// server, stands for one, or asks; its end is the end of what it held.
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

#include "Farm.h"
#include "Prober.h"

namespace rmgrd {

struct ManagerSettings {
    std::string socketPath;
    int connections[4] = {1, 30, 5, 20};  // as /proc/qxrmgr/settings has them
    int slowStart = 10;
    int probeInterval = 10;
};

class Manager {
public:
    using Telling = std::function<void(std::string const&)>;  // a line for the operator

    Manager(ManagerSettings settings, Probing probe, Telling tell);
    ~Manager();
    Manager(Manager const&) = delete;
    Manager& operator=(Manager const&) = delete;

    void Run();                                         // until Stop
    void Stop();                                        // any thread
    bool EndProbes(int seconds);                        // true: none runs, so the destructor need not wait
    void SetServers(std::vector<ServerFacts> servers);  // those of the file; any thread. Others than before go or come

private:
    static constexpr double kNever = std::numeric_limits<double>::max();

    // What one connection is.
    struct Client {
        int fd;
        enum class Role { Fresh, Control, Waiter, Resource } role = Role::Fresh;
        int resource = 0;  // Resource: which; Control: announced, and gone with this connection
        int sequence = 0;  // Resource: of the list when it was opened
        int occupies = 0;
        std::uint64_t turn = 0;  // among those who wait, and from one wait to the next until it was given a server
        bool waits = false;
        double until = 0;  // of the wait
        bool ended = false;
    };
    // A server that is looked at.
    struct Probed {
        ServerFacts facts;
        bool fromFile;
        bool known = false;  // a first answer came
    };

    void Listen();
    void Accept();
    bool MakeRoom();
    void Read(Client& client);
    void Answer(Client& client, int result, int error = 0);
    void Send(Client& client, VELT::manager::Answer const& answer);
    void End(Client& client);
    bool Take(Client& client, VELT::manager::Question const& question);  // false: it does not fit
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
    void Poll();
    void Sweep();

    int AddServer(ServerFacts const& facts, bool fromFile);
    void RemoveServer(int resource);
    void TakeFinding(Finding const& finding);
    void TakeServers();
    void HangUpOn(int resource);
    void Wake();

    ManagerSettings const m_settings;
    Telling const m_tell;
    std::size_t const m_mostClients;
    int m_listener = -1;
    bool m_acceptFailed = false;
    bool m_full = false;  // the last who came found no room
    int m_event = -1;     // written to by other threads

    // Of Run's thread.
    Farm m_farm;
    std::map<int, Probed> m_probed;                  // by resource
    std::vector<std::unique_ptr<Client>> m_clients;  // in the order in which they came

    std::map<std::uint64_t, Client*> m_waiters;  // by their turn
    std::uint64_t m_lastTurn = 0;
    double m_firstEnd = kNever;  // of all waits; or earlier, where whose it was has gone
    Prober m_prober;

    std::mutex m_lock;  // guards all below
    std::unique_ptr<std::vector<ServerFacts>> m_newServers;
    bool m_ending = false;
};

}  // namespace rmgrd
