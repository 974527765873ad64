// InternPool: texts kept for the life of the process, one copy each, so that equal texts are equal pointers.
// Owner: the process; the pool is never destroyed. Threads: any; each shard has a lock of its own, and a fork waits for
// all of them, so that a child finds the pool usable. Failure: std::bad_alloc.
#pragma once

#include <array>
#include <cstddef>
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
    std::size_t size() const;  // narrow texts held

private:
    InternPool() = default;
    static InternPool* Create();
    static void LockAll();
    static void UnlockAll();

    struct Shard {
        mutable std::mutex mutex;
        // Guarded by `mutex`. Elements of a node-based set stay where they are.
        std::unordered_set<std::string> texts;
        std::unordered_set<std::wstring> wide;
    };
    std::array<Shard, 16> m_shards;
};

}  // namespace policyloader
