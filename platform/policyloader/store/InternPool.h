// InternPool: texts kept for the life of the process, one copy each, so that equal texts are equal pointers.
// Owner: the process (process() is never destroyed). Threads: any; each of its shards has a lock of its own, and a fork
// waits for all of them, so that a child finds the pool usable. Failure: std::bad_alloc.
#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_set>

#include <eFabric/Interned.h>

namespace policyloader {

class InternPool {
public:
    static InternPool& process();

    InternedString intern(std::string_view text);
    wchar_t const* internWide(std::wstring const& text);
    std::size_t size() const;  // texts held, narrow ones

private:
    InternPool();
    static void LockAll();
    static void UnlockAll();

    struct Shard {
        std::mutex mutex;
        // Guarded by `mutex`.
        std::unordered_set<std::string_view> known;
        std::deque<std::string> texts;
    };
    std::array<Shard, 16> m_shards;

    mutable std::mutex m_wideMutex;
    std::unordered_set<std::wstring>
        m_wide;  // guarded by m_wideMutex; elements of a node-based set stay where they are
};

}  // namespace policyloader
