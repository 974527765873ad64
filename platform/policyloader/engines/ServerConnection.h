// ServerConnection: one stream socket to a scan server, and the patience that a scan has with all its servers.
// Owner: one scan at a time.  Threads: that scan's.  Units: seconds of waiting; the work between two waits costs none.
// Failure: EngineFailure of ServerAway (it cannot be reached) or ServerSlow (the patience is at its end).
#pragma once

#include <chrono>
#include <string_view>
#include <vector>

#include <policyloader/engines/ServerAddress.h>

namespace policyloader {

class Patience {
public:
    explicit Patience(double seconds);
    short wait(int fd, short events);  // the events that stand, errors among them
    void spend(std::chrono::steady_clock::time_point since);
    std::chrono::nanoseconds left() const { return m_left; }

private:
    std::chrono::nanoseconds m_left;
};

class ServerConnection {
public:
    ServerConnection(ServerAddress const& address, Patience& patience);
    ~ServerConnection();
    ServerConnection(ServerConnection const&) = delete;
    ServerConnection& operator=(ServerConnection const&) = delete;

    // Nothing has come that nobody asked for, and the server is still there.
    bool isQuiet() const;
    // False: the server spoke or left before it had all of it; what it said is there to be received.
    bool send(std::vector<std::string_view> pieces, Patience& patience);
    void endSending();
    // At least one byte; 0: the server has closed or reset the connection.
    std::size_t receive(char* room, std::size_t size, Patience& patience);

private:
    void connect(ServerAddress const& address, Patience& patience);

    int const m_fd;
};

}  // namespace policyloader
