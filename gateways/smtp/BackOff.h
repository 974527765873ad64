// BackOff: which destinations of a retryer are not to be tried now.
// A destination that could not be reached is left alone for a pause, which doubles with each failure in a row. One that
// is not known to answer is tried by one mail at a time, and the others wait for what becomes of that; one that was
// reached takes more at once. Neither it nor all those together that are not known to answer take all threads: what
// does not answer holds up no mail for a destination that does. Nor do those that failed take more than half of what
// all these may: a destination of which nothing is known comes to its first try behind others of its kind alone.
// Owner: the process. Threads: any. Units: seconds, unless the type says more; times are of Now, by a clock that nobody
// sets. Failure: none; of destinations it knows a bounded number, and forgets the one of which nothing was heard for
// longest.
#pragma once

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>

namespace smtp {

struct PauseLimits {
    unsigned first = 300;
    unsigned longest = 4000;
};

// The pause after so many failures in a row, up to a quarter shorter or longer, so that what failed together does not
// come back together. `random`: 0 to 1.
std::time_t PauseAfter(unsigned failures, PauseLimits const& limits, double random);

class BackOff {
public:
    enum class Answer {
        Go,      // try it, and say what became of that
        Busy,    // others find out just now
        Silent,  // and that takes long
        Rest,    // not yet
    };
    enum class Outcome {
        Reached,
        Failed,
        Unknown,  // it was not tried after all
    };

    // Tries of a destination that was reached, and of all others together.
    explicit BackOff(unsigned atOnce) : m_atOnce(atOnce), m_failedAtOnce(atOnce - atOnce / 2) {}

    static std::time_t Now();

    Answer Ask(std::string const& destination, std::time_t now);
    // Waits before it says Busy, until the patience is over, of which there is less for a destination that failed, or
    // until `stopped`: nothing is to be begun then. The first whose patience is over has waited for all: until
    // something is heard of the destination nobody else waits; and once that has taken several times the patience, they
    // are told so.
    Answer AskPatiently(std::string const& destination, std::chrono::milliseconds patience,
                        std::function<bool()> const& stopped);
    void Insist(std::string const& destination);  // Go, whatever is known
    // How long a try may take before its message goes out: so long where nothing is known, and twice as long after each
    // failure in a row, up to an hour; 0, which is any time, where the last one was reached.
    std::chrono::seconds LimitOf(std::string const& destination, std::chrono::seconds first);
    void EndPause(std::string const& destination, std::time_t asked);  // unless it failed since somebody asked for that
    void Tell(std::string const& destination, Outcome outcome, std::time_t now, PauseLimits const& limits);

    double Random();  // 0 to 1

private:
    using Clock = std::chrono::steady_clock;

    struct Tries {
        unsigned underWay = 0;
        bool stalled = false;       // somebody has waited in vain since one was over
        Clock::time_point heard{};  // when one was over, or the only one began

        void Begin();
        void End();
    };
    struct Known {
        Tries tries;
        unsigned probes = 0;    // of these, such as began before it was known to answer
        bool again = false;     // those began when it had failed
        bool reached = false;   // by the last one of which it was told
        unsigned failures = 0;  // in a row
        std::time_t from = 0;   // when it was told, and the pause began
        std::time_t until = 0;  // when that ends
    };
    Known& Find(std::string const& destination);
    Tries* Crowd(Known const& known);  // such of others as there are too many of for one more; or null
    Tries* Full(Known& known);         // the same, its own among them
    Answer Enter(Known& known, std::time_t now);
    bool IsStalled(Known& known);
    void Stall(Known& known);
    void EndProbe(Known& known);
    void MakeRoom();

    unsigned const m_atOnce;
    unsigned const m_failedAtOnce;
    std::mutex m_mutex;
    std::condition_variable m_told;
    std::map<std::string, Known> m_known;
    Tries m_probes;       // of all destinations
    Tries m_probesAgain;  // of these, of such as failed
    std::minstd_rand m_random{std::random_device{}()};
};

}  // namespace smtp
