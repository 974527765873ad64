// SpoolGate: opens a file that a client on this machine names, if it is one of those that clients may name: a regular
// file with one name, below one of the spool roots, reached through no link, that belongs to this process's user or to
// the root's owner and that nobody else may write to.
// Owner: the session. Threads: any, unchanging once made. Units: bytes. Failure: Open gives no descriptor and a reason.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace scannerd {

class SpoolGate {
public:
    explicit SpoolGate(std::vector<std::string> roots);  // absolute paths; others are left out

    // The descriptor, for reading, which the caller owns; -1: refused, and `why` has a literal that tells the reason.
    int Open(std::string const& path, std::uint64_t size, char const*& why) const;

private:
    std::vector<std::string> m_roots;  // each ends in '/'
};

}  // namespace scannerd
