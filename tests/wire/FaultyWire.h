// FaultyWire: stands between clients of the scan protocol and the daemon's own conversations, one for each connection,
// and breaks once, where the test says: behind a text that one side says for the n-th time. Up to there and on every
// other connection it carries what it is given. Owner: the test. Threads: its own; the verbs are the test's.
// Failure: fails the test.
#pragma once

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "testing/Sockets.h"

namespace velt_wire {

enum class Speaker { Client, Daemon };

enum class Break {
    Reset,      // both sides' connections
    HalfClose,  // this side says no more
    Stall,      // what this side says does not come
    Drip,       // byte by byte
    Rubbish,    // other bytes in the place of the next eight
    Short,      // the next eight bytes are missing
};

struct Fault {
    Speaker speaker;
    std::string behind;
    unsigned time = 1;
    Break how = Break::Reset;
};

class FaultyWire {
public:
    FaultyWire(std::string spool, Fault fault);
    ~FaultyWire();  // waits until all connections have ended
    FaultyWire(FaultyWire const&) = delete;
    FaultyWire& operator=(FaultyWire const&) = delete;

    sockaddr_in const& address() { return m_listener.address(); }
    bool HasBroken() const;

private:
    class Way;

    void Accept();
    void Carry(velt_testing::Fd client);
    bool Strikes(Speaker speaker, std::string const& said, std::size_t& at);

    velt_testing::Listener m_listener{16, 0, "127.0.0.2"};
    std::string m_spool;
    Fault m_fault;
    mutable std::mutex m_lock;
    bool m_hasBroken = false;             // guarded by m_lock
    std::vector<std::thread> m_carriers;  // the accepting thread's, until it has ended
    std::thread m_accepting;
};

}  // namespace velt_wire
