// ClockWatch: whether the clock was set back. Files that wait would rest until it has caught up with their times, which
// may be never; those that lie ahead are given the present time, and rest from then on.
// Owner: whoever asks. Thread: one. Units: seconds. Failure: a thread that cannot be had is asked for again at the next
// call; a file that cannot be changed rests as it would have.
#pragma once

#include <ctime>
#include <string>

namespace smtp {

class ClockWatch {
public:
    // `shown` by the clock that people set, `running` by one that nobody does. True: it was set back since the last
    // time, by so much that a mail's rest would be longer for it; true once for each setting.
    bool WasSetBack(std::time_t shown, std::time_t running);

private:
    bool m_known = false;
    std::time_t m_ahead = 0;
};

// By how much the clock was set, forward or back, in the midst of one piece of work. Owner: the work. Thread: one.
class ClockJump {
public:
    ClockJump(std::time_t shown, std::time_t running) : m_ahead(shown - running) {}

    // Since it was made, or since the last time that this was not 0; below 0: back. What is less than a minute adds up.
    std::time_t Take(std::time_t shown, std::time_t running);

private:
    std::time_t m_ahead;
};

// Files that wait in the directory and whose times lie ahead of the clock rest from now on. Says how many.
void RestFromNow(std::string const& directory);

// The same now, and whenever the clock is set back later, on a thread that lives as long as the process. Any further
// call changes nothing.
void KeepRestingFromNow(std::string const& directory);

}  // namespace smtp
