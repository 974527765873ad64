// Exchange: one client connection that says a line and waits for the same line. Non-blocking, TCP_NODELAY; it ends with
// a FIN, never with a reset. Owner: the program of one sub-command. Threads: one. Failure: an Outcome; nothing is
// thrown.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <string>

namespace velt_load {

enum class Outcome { PENDING, OK, REFUSED, RESET, TRUNCATED, TIMEOUT, OTHER };

constexpr std::size_t kOutcomes = 7;
char const* NameOf(Outcome outcome);

struct Target {
    sockaddr_in address{};
    unsigned sources = 16;  // 127.0.0.2 and those behind it, in turn, so that no port waits to be free again
    std::string line = "hello 123\r\n";
};

class Exchange {
public:
    Exchange() = default;
    ~Exchange();
    Exchange(Exchange&& other) noexcept;
    Exchange& operator=(Exchange&&) = delete;

    Outcome Connect(Target const& target);  // PENDING, or why it is over
    Outcome Connected() const;              // once it can be written to: OK, or why it is over
    Outcome Proceed(Target const& target);  // as far as it goes without waiting
    Outcome Again(Target const& target);    // the same line once more on the open connection
    Outcome Trickle(std::size_t number);    // one byte that ends no line; PENDING while the connection is open
    Outcome Listen();                       // drops what the other side says; PENDING while the connection is open
    bool WantsToWrite() const { return m_sent < m_toSend; }
    int descriptor() const { return m_fd; }
    unsigned short sourcePort() const { return m_sourcePort; }

    double begun = 0;  // seconds; the caller's

private:
    Outcome Send(Target const& target);
    Outcome Receive(Target const& target);

    int m_fd = -1;
    std::size_t m_toSend = 0, m_sent = 0, m_got = 0;
    unsigned short m_sourcePort = 0;
};

double Now();  // seconds of a clock that never goes back

}  // namespace velt_load
