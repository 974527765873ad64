// ProbeTable: a hash table from three words to a pointer, built once and then read. Open addressing, at most half full,
// an entry is half a cache line.
// Owner: the snapshot. Threads: any may find() once building is over. Failure: std::bad_alloc while building.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace policyloader {

struct ProbeKey {
    std::uintptr_t a;
    std::uintptr_t b;
    std::uintptr_t c;
    friend bool operator==(ProbeKey const& x, ProbeKey const& y) { return x.a == y.a && x.b == y.b && x.c == y.c; }
};

template <class T>
class ProbeTable {
public:
    void insert(ProbeKey key, T const* value) {  // of a key that is not there yet; the value is not null
        if ((m_count + 1) * 2 > m_entries.size()) grow();
        place(key, value);
        ++m_count;
    }

    T const* find(ProbeKey key) const {
        for (std::size_t at = hash(key) & m_mask;; at = (at + 1) & m_mask) {
            Entry const& entry = m_entries[at];
            if (!entry.value || entry.key == key) return entry.value;
        }
    }

    std::size_t size() const { return m_count; }

private:
    struct alignas(32) Entry {
        ProbeKey key{};
        T const* value = nullptr;
    };

    static std::size_t hash(ProbeKey key) {
        std::uint64_t mixed = key.a * 0x9E3779B97F4A7C15;
        mixed = (mixed ^ key.b) * 0xFF51AFD7ED558CCD;
        mixed = ((mixed ^ mixed >> 32) ^ key.c) * 0xC4CEB9FE1A85EC53;
        return mixed ^ mixed >> 32;
    }

    void place(ProbeKey key, T const* value) {
        std::size_t at = hash(key) & m_mask;
        while (m_entries[at].value) at = (at + 1) & m_mask;
        m_entries[at] = Entry{key, value};
    }

    void grow() {
        auto const old = std::exchange(m_entries, std::vector<Entry>(m_entries.size() * 2));
        m_mask = m_entries.size() - 1;
        for (auto const& entry : old)
            if (entry.value) place(entry.key, entry.value);
    }

    std::vector<Entry> m_entries = std::vector<Entry>(16);  // a power of two
    std::size_t m_mask = 15;
    std::size_t m_count = 0;
};

}  // namespace policyloader
