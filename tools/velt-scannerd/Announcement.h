// Announcement: tells the resource manager of this machine at which addresses the daemon takes work, and tells it again
// whenever there is a manager that does not know. It is made in a process of its own, as the monitor has no threads,
// and stands until the monitor ends, however that comes: a worker does not hold it, so that what drains is offered to
// nobody.
// Owner: that process. Thread: one. Units: milliseconds. Failure: an event; the daemon serves those who know it
// otherwise.
#pragma once

#include <netinet/in.h>

#include <functional>
#include <string>
#include <vector>

namespace scannerd {

// What is announced. `scansAtOnce` is what the manager is told of the daemon's size. An address of 0 is 127.0.0.1 to
// it.
struct Facts {
    std::vector<sockaddr_in> addresses;
    std::string name;
    unsigned scansAtOnce = 0;
};

class Announcer {
public:
    explicit Announcer(Facts const& facts);
    ~Announcer();
    Announcer(Announcer const&) = delete;
    Announcer& operator=(Announcer const&) = delete;

    void Round();             // says what no manager knows
    void Watch(int monitor);  // and goes on to, until this descriptor can be read

private:
    struct Place {
        sockaddr_in address;
        int handle = -1;
        bool refused = false;  // reported already
    };
    bool Tell(Place& place);
    void Say(Place& place);
    void DropLost();

    Facts m_facts;
    std::vector<Place> m_places;
};

// From the monitor's start-up, before any other process; returns after the first round. The new process needs neither
// the ports, nor, after that round, the rights of start-up.
void Announce(Facts const& facts, std::function<void()> const& leavePorts, std::function<void()> const& leaveRights);

}  // namespace scannerd
