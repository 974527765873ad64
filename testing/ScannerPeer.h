// ScannerPeer: a scanner process whose side of each conversation a test writes down. A conversation is a list of steps,
// each a letter, a blank and a text: "C text" are the very bytes that the client says next, "S text" are said to it,
// and "X word" is done: "close", "reset", "end" (the client says no more and closes), "pass" (waits until the test lets
// it pass). Behind its last step a connection is closed.
// Owner: the test; it outlives the client's use of it. Threads: one of its own for each conversation; the verbs are the
// test's.
// Failure: fails the test, also where a conversation was not had, or was not had to its end.
#pragma once

#include <netinet/in.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "testing/Sockets.h"

namespace velt_testing {

class ScannerPeer {
public:
    using Conversation = std::vector<std::string>;

    explicit ScannerPeer(char const* dotted = "127.0.0.1") : m_listener(16, 0, dotted) {}
    ~ScannerPeer();
    ScannerPeer(ScannerPeer const&) = delete;
    ScannerPeer& operator=(ScannerPeer const&) = delete;

    sockaddr_in& address() { return m_listener.address(); }
    void Converse(Conversation steps);  // over the next connection that nobody has yet; several go on at once
    void Pass();                        // lets one "X pass" go on, now or later
    bool IsHeld() const;                // some conversation is at its "X pass"
    void Finish();                      // returns when all conversations are over
    unsigned connections() const;

private:
    struct Ended {};

    Fd TakeTurn(unsigned turn);
    void Have(Conversation const& steps, unsigned turn);
    void Hear(int fd, std::string const& text);
    void Do(Fd& fd, std::string const& deed);

    Listener m_listener;
    std::vector<std::thread> m_threads;
    unsigned m_turns = 0;
    mutable std::mutex m_lock;  // guards all below
    std::condition_variable m_changed;
    unsigned m_held = 0;
    unsigned m_passes = 0;
    unsigned m_connections = 0;
};

}  // namespace velt_testing
