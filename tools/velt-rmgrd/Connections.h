// Connections: the resource manager's socket, who is connected to it, and which of them has something to say. What one
// of them costs does not depend on how many others are silent.
// Owner: the Manager, which is the host. Thread: the Manager's; Wake may be called by any. Units: milliseconds.
// Failure: the constructor throws std::system_error where the socket cannot be had. Who finds no room, or no place in
// the system to be watched, is hung up on, and the host is told; where no descriptor is left, who comes waits in the
// queue.
#pragma once

#include <velt/scanning/RSMgrWire.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace rmgrd {

// One connection, and what it is to the manager.
struct Client {
    std::uint64_t number;  // in the order in which they came; none is given twice
    int fd;
    bool ended = false;

    enum class Role { Fresh, Control, Waiter, Resource } role = Role::Fresh;
    int resource = 0;  // Resource: which; Control: announced, and gone with this connection
    int sequence = 0;  // Resource: of the list when it was opened
    int occupies = 0;
    std::uint64_t turn = 0;  // among those who wait, and from one wait to the next until it was given a server
    bool waits = false;
    double until = 0;  // of the wait
};

class Connections {
public:
    // Whom the clients talk to. It hears nothing of a client that has ended.
    class Host {
    public:
        virtual bool Take(Client& client, VELT::manager::Question const& question) = 0;  // false: hang up
        virtual void Leave(Client& client) = 0;                                          // it has ended just now
        virtual bool MayGo(Client const& client) = 0;  // where there is no room for one who comes
        virtual void Refused() = 0;                    // one who came; once until another is let in

    protected:
        ~Host() = default;
    };

    Connections(std::string path, Host& host);
    ~Connections();
    Connections(Connections const&) = delete;
    Connections& operator=(Connections const&) = delete;

    // Waits until somebody says something, comes or goes, or for so long, and passes on what it was. A client lives
    // until the next turn after it ended, or until room is made for one who comes, which is the last that a turn does.
    void Turn(int timeoutMs);
    void Wake();  // ends the turn; any thread

    void Send(Client& client, VELT::manager::Answer const& answer);  // who does not take it ends
    void End(Client& client);                                        // hangs up
    void EndAll(std::function<bool(Client const&)> const& which);

private:
    struct Descriptor {
        int fd = -1;
        ~Descriptor();
    };

    void Listen();
    bool Watch(int fd, std::uint64_t number) const;
    int WatchListener(int timeoutMs);
    void LeaveListenerAlone();
    void Hear(std::uint64_t number, std::uint32_t events);
    void Read(Client& client);
    void Accept();
    bool MakeRoom();
    bool Welcome(int fd);
    void Leave(Client& client);
    void Sweep();

    std::string const m_path;
    Host& m_host;
    std::size_t const m_most;
    Descriptor m_set;    // epoll's
    Descriptor m_event;  // written to by other threads
    Descriptor m_listener;
    double m_pausesUntil = 0;  // the listener; 0: it does not. In seconds
    bool m_refuses = false;    // the last who came was refused
    std::map<std::uint64_t, Client> m_clients;
    std::uint64_t m_lastNumber;
    std::vector<std::uint64_t> m_ended;  // whose descriptors are still open
};

}  // namespace rmgrd
