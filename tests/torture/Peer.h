// Peer: the other side of a connection over loopback, with a thread whose calls never fail.
// Owner: the scenario; a peer ends with its own connection. Threads: the owner's, beside the one that it has.
// Units: bytes. Failure: std::system_error from the constructors; what a peer did not get shows in what it has.
#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "testing/SessionWorld.h"

namespace torture {

int ConnectTo(unsigned short port);  // of this machine; the caller closes it, and it waits

// Two ends of one connection, as an accepted client and its server hold them.
struct Line {
    Line();
    int near;  // waits for nothing; whoever takes it closes it
    int far;   // waits
};

// Takes all that comes until the connection ends.
class Collector {
public:
    explicit Collector(int fd);  // closes it
    ~Collector();
    std::string const& Got();  // waits for the end

private:
    void Collect(int fd);
    std::string m_got;
    std::thread m_thread;
};

// Sends a text, and ends its direction of the connection.
class Feeder {
public:
    Feeder(int fd, std::string text);  // closes it
    ~Feeder();

private:
    std::string m_text;
    std::thread m_thread;
};

// Says back what comes, one connection after the other.
class EchoServer {
public:
    EchoServer();
    ~EchoServer();  // once the connections have ended
    unsigned short port() const { return m_listener.port(); }

private:
    void Serve();
    velt_testing::Listener m_listener;
    std::atomic<bool> m_over{false};
    std::thread m_thread;
};

}  // namespace torture
