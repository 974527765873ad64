// Verdict: what came of the scan of one file, in plain values that outlive the scan.
// Value. Nothing is clean unless a scan said so: a verdict begins as an error, and its reading only makes it better.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace VELT {
class Connection;
struct ScanOutput;
}  // namespace VELT

namespace velt_scan {

using Path = std::vector<std::string>;  // steps from the object inwards: "Message", "Part:a.zip"

struct Finding {
    std::string engine;
    std::string kind;                  // two letters; empty: of an unknown one
    std::vector<std::string> actions;  // asked for by the engine; the last one counts
    std::vector<std::string> names;    // what was found
    std::string text;
    std::string limit;  // which one was hit: "SIZE", "DEPTH"; empty: none
    Path where;         // of the first one
    std::optional<double> score;
    bool cleaned = false;
    bool decided = false;  // the master action is this one's
};

struct Trouble {
    std::string engine;  // empty: no engine's
    std::string text;
    std::optional<unsigned long> code;
};

struct Verdict {
    enum class Kind { Clean, Found, Error };

    std::string file;
    Kind kind = Kind::Error;
    std::string action;  // of the policy; empty: none
    std::vector<Finding> findings;
    std::vector<Trouble> troubles;
    std::vector<Path> components;  // all those in which something was found
    std::string identity;
    bool modified = false;
    std::string unwritten;  // why its content was not written, where it was to be
    bool fallback = false;  // a limit was hit, and the signatures have looked at the object as it is
    std::uint64_t bytes = 0;
    double milliseconds = 0;

    void fail(std::string const& text);
    // Adds what one scan gave. The result is Clean only if every engine has looked.
    void read(VELT::Connection const& session, VELT::ScanOutput const& output);
};

std::string Printable(std::string const& text);  // in one line, without control characters

}  // namespace velt_scan
