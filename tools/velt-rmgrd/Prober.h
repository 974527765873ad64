// Prober: looks at servers again and again, each on a thread of its own, and keeps what it finds until it is asked for.
// Owner: the Manager. Threads: the Manager's, but for End; the looks, and `wake`, are on the threads of the servers.
// Units: seconds. Failure: a server for which no thread can be started is a finding, and is tried again when the next
// look at it would be due.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Farm.h"

namespace rmgrd {

// Empty: the server is fit to work. Called on many threads at once.
using Probing = std::function<std::string(ServerFacts const&)>;

struct Finding {
    int resource;
    std::string problem;
};

class Prober {
public:
    // `wake` is called with each finding, and must not come back to this.
    Prober(Probing probe, int interval, std::function<void()> wake);
    ~Prober();  // waits until no look goes on
    Prober(Prober const&) = delete;
    Prober& operator=(Prober const&) = delete;

    void Start(int resource, ServerFacts const& facts);
    void Stop(int resource);  // a look that goes on takes what it takes, and is still found
    std::vector<Finding> TakeFindings();

    void Retry(double now);    // those that had no thread
    double NextRetry() const;  // when it is due; very late where none is

    bool End(int seconds);  // any thread; no look begins any more. True: none goes on
    void BeginToEnd();      // any thread; as this, without waiting

private:
    struct Unstarted {
        ServerFacts facts;
        double retry;
    };

    void LookForEver(int resource, ServerFacts const& facts);

    Probing const m_probe;
    int const m_interval;
    std::function<void()> const m_wake;
    std::map<int, Unstarted> m_unstarted;  // by resource; of the Manager's thread

    std::mutex m_lock;  // guards all below
    std::condition_variable m_changed;
    std::vector<Finding> m_findings;
    std::set<int> m_looking;  // resources whose thread goes on
    int m_threads = 0;        // that have not ended
    bool m_ending = false;
};

}  // namespace rmgrd
