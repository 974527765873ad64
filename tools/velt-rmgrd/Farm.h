// Farm: the scanner servers that the resource manager knows, who of them takes work and how much each has, and the
// choice among them.
// Owner: the Manager. Thread: the Manager's. Units: seconds of a clock that only goes forward.
// Failure: an unknown resource is not up and nothing happens to it.
#pragma once

#include <netinet/in.h>

#include <functional>
#include <map>
#include <string>

namespace rmgrd {

struct ServerFacts {
    std::string name;  // at most 31 characters are ever shown
    sockaddr_in address{};
    int capacity = 0;  // items at a time; 0: no limit

    bool operator==(ServerFacts const& other) const;
};

// "192.0.2.25:4310"
std::string PlaceOf(ServerFacts const& facts);

class Farm {
public:
    // `random` gives a number below its argument. A server that came up gets its share by and by, within slowStart.
    // The sequences of two farms, one after the other, should have no number in common: clients know servers by it.
    Farm(int slowStart, std::function<unsigned(unsigned)> random, int firstSequence = 1);

    int Add(ServerFacts const& facts);  // the new resource's number, 1 or more; not healthy yet, and takes work
    void Remove(int resource);
    void SetHealthy(int resource, bool healthy, double now);  // one that is not is down
    void SetWilling(int resource, bool willing);              // one that is not gets no new work

    bool IsUp(int resource) const;
    int sequence() const { return m_sequence; }  // another one after each change of the list of those that are up

    // A server that is occupied from now on: the less loaded of two that chance picks. 0: none takes work.
    int Occupy(double now);
    void Leave(int resource);

    struct Server {
        ServerFacts facts;
        bool healthy = false;
        bool willing = true;
        double upSince = 0;
        int occupied = 0;
    };
    std::map<int, Server> const& servers() const { return m_servers; }

private:
    double Load(Server const& server, double now) const;

    int m_slowStart;
    std::function<unsigned(unsigned)> m_random;
    std::map<int, Server> m_servers;
    int m_lastResource = 0;
    int m_sequence;
};

}  // namespace rmgrd
