// Names: those of policies and identities that clients have said. The policy store keeps each for as long as the
// process lives, so a process knows so many and no more.
// Owner: the process. Threads: any. Units: names, bytes. Failure: std::bad_alloc.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_set>

namespace scannerd {

class Names {
public:
    Names(std::size_t mostNames, std::size_t mostBytes) : m_mostNames(mostNames), m_mostBytes(mostBytes) {}

    bool Take(std::string const& name);  // false: it is not known, and there is no room for it

private:
    std::size_t const m_mostNames;
    std::size_t const m_mostBytes;
    std::mutex m_lock;  // guards the rest
    std::unordered_set<std::string> m_names;
    std::size_t m_bytes = 0;
};

}  // namespace scannerd
