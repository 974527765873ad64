// FakeNameServer: a name server on a loopback port of its own, over UDP and TCP, whose answers a test makes up.
// Owner: the test. Threads: its own serves; Use() and the counts are the test thread's. Failure: std::runtime_error
// when no port is to be had; a query that it has no answer to gets none.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include <testing/DnsBytes.h>

namespace velt_testing {

class FakeNameServer {
public:
    struct Query {
        std::string name;  // "mx.example.test"
        unsigned type;
        unsigned number;  // of the queries that got a whole answer, from 1
    };
    // Fills in the answer to a query; it has the id and the question already. False: no answer at all.
    using Answer = std::function<bool(Query const& query, DnsBytes& answer)>;

    explicit FakeNameServer(Answer answer);
    ~FakeNameServer();
    FakeNameServer(FakeNameServer const&) = delete;
    FakeNameServer& operator=(FakeNameServer const&) = delete;

    void Use() const;                              // the calling thread asks this server from now on, and no other
    unsigned answered() const { return m_count; }  // whole answers, not those cut off at 512 bytes

    static void UseNone();  // the calling thread asks a port where nobody answers

private:
    void Serve();
    void ServeDatagram();
    void ServeConnection();
    std::string AnswerTo(std::string const& query, std::size_t limit);

    Answer m_answer;
    int m_udp = -1;
    int m_tcp = -1;
    int m_stop[2] = {-1, -1};
    std::uint16_t m_port = 0;
    std::atomic<unsigned> m_count{0};
    std::thread m_thread;
};

}  // namespace velt_testing
