// BackOff: which destinations of a retryer are not to be tried now.
// A destination that could not be reached is left alone for a pause, which doubles with each failure in a row; then one
// mail tries it, and the others wait for what becomes of that. One that was reached takes any number at once.
// Owner: the process. Threads: any. Units: seconds. Failure: none; of destinations that fail it knows a bounded number,
// and forgets the one that waited longest.
#pragma once

#include <ctime>
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
        Go,    // try it, and say what became of that
        Busy,  // somebody else finds out just now
        Rest,  // not yet
    };
    enum class Outcome {
        Reached,
        Failed,
        Unknown,  // it was not tried after all
    };

    Answer Ask(std::string const& destination, std::time_t now);
    void Tell(std::string const& destination, Outcome outcome, std::time_t now, PauseLimits const& limits);

    double Random();  // 0 to 1

private:
    struct Failing {
        unsigned failures = 0;
        std::time_t from = 0;   // when the pause began
        std::time_t until = 0;  // and when it ends
        bool tried = false;     // by somebody, now
    };
    void MakeRoom();

    std::mutex m_mutex;
    std::map<std::string, Failing> m_failing;
    std::minstd_rand m_random{std::random_device{}()};
};

}  // namespace smtp
