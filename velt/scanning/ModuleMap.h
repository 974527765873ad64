// ModuleMap: which file of this process an address of code lies in, and where in it, as its tools want to be asked.
// Owner: static, as it is large and used from a signal handler: it takes no lock and no memory. Thread: one at a time.
// Failure: an address in no known file is told as such.
#pragma once

#include <cstddef>

namespace VELT {

class ModuleMap {
public:
    struct Place {
        char const* file;  // null: not known
        unsigned long offset;
    };

    void Read();  // as the process is now
    Place Find(unsigned long address) const;

private:
    struct Module {
        unsigned long begin, end, base;
        char const* file;
    };

    void Add(char* line);

    char m_text[128 * 1024];
    Module m_modules[512];
    std::size_t m_count = 0;
    char const* m_lastFile = "";
    unsigned long m_lastBase = 0;
};

}  // namespace VELT
