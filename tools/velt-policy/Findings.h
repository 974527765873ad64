// Findings: what is wrong with a configuration, each with its place, as `file:line:column: level: reason`.
// Value, one thread. Lines and columns count from 1, columns in bytes; line 0: the file as a whole.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace velt_policy {

struct Spot {
    std::string file;
    unsigned line = 0;
    unsigned column = 0;
};

enum class Level { warning, error };  // error: a gateway does not start with it, or cannot do its work

class Findings {
public:
    void error(Spot spot, std::string reason) { add(std::move(spot), Level::error, std::move(reason)); }
    void warning(Spot spot, std::string reason) { add(std::move(spot), Level::warning, std::move(reason)); }
    void report(Level level, std::string const& line);  // "file:line:column: reason", as the library reports

    bool none() const { return m_all.empty(); }
    void print(std::FILE* out);  // by place, each once

private:
    struct Finding {
        Spot spot;
        Level level;
        std::string reason;
    };

    void add(Spot spot, Level level, std::string reason);

    std::vector<Finding> m_all;
};

// `text` split at the end of a place in front: "file:12:3: reason". Without one the file is empty and all is reason.
struct PlacedText {
    Spot spot;
    std::string reason;
};
PlacedText SplitPlace(std::string const& text);

}  // namespace velt_policy
