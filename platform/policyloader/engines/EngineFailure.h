// EngineFailure: an engine cannot go on with this object. It never leaves a scan: it becomes an error result, so that
// what was not scanned does not pass as clean.  Threads: thrown and caught on the scan's.
#pragma once

#include <stdexcept>
#include <string>

namespace policyloader {

// The number that an error result carries in "E_SR_SCANERROR_ID".
enum class FailureId : unsigned long {
    Memory = 101,    // out of memory
    Read = 102,      // the object could not be read to its end
    Write = 103,     // the new object could not be written
    Database = 104,  // no signature database
    Rules = 105,     // a configured rule or limit cannot be used
    Matcher = 106,   // the pattern matcher failed
    Internal = 107,  // anything else
    // Of a server beside the gateway that is asked for its judgement.
    ServerAway = 120,     // it cannot be reached, or left before it had answered
    ServerSlow = 121,     // no answer within the time limit
    ServerAnswer = 122,   // what it answered makes no sense
    ServerRefused = 123,  // it says that it did not scan
};

class EngineFailure : public std::runtime_error {
public:
    // The place is the caller's.
    EngineFailure(FailureId id, std::string const& text, char const* file = __builtin_FILE(),
                  int line = __builtin_LINE())
        : std::runtime_error(text), m_id(id), m_file(file), m_line(line) {}
    FailureId id() const { return m_id; }
    char const* file() const { return m_file; }
    int line() const { return m_line; }

private:
    FailureId m_id;
    char const* m_file;
    int m_line;
};

}  // namespace policyloader
