// ProbeTable: a hash table from two words to a pointer, built once and then read. Open addressing, at most half full,
// an entry is half a cache line.
// Owner: the store's pool. Threads: any may find() once building is over. Failure: std::bad_alloc while building.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace policyloader {

struct ProbeKey {
    std::uintptr_t a;
    std::uintptr_t b;
    friend bool operator==(ProbeKey const& x, ProbeKey const& y) { return x.a == y.a && x.b == y.b; }
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
        for (std::size_t at = mix(key) & m_mask;; at = (at + 1) & m_mask) {
            Entry const& entry = m_entries[at];
            if (!entry.value || entry.key == key) return entry.value;
        }
    }

    std::size_t size() const { return m_count; }

    // Equal for equal contents, in whatever order they came.
    std::size_t hash() const {
        std::size_t sum = m_count;
        for (auto const& entry : m_entries)
            if (entry.value) sum += mix({mix(entry.key), reinterpret_cast<std::uintptr_t>(entry.value)});
        return sum;
    }

    friend bool operator==(ProbeTable const& x, ProbeTable const& y) { return x.m_count == y.m_count && x.within(y); }

private:
    struct alignas(32) Entry {
        ProbeKey key{};
        T const* value = nullptr;
    };
    static constexpr std::size_t Smallest = 4;  // entries; a power of two, as every size is

    static std::size_t mix(ProbeKey key) {
        std::uint64_t mixed = key.a * 0x9E3779B97F4A7C15;
        mixed = ((mixed ^ mixed >> 32) ^ key.b) * 0xC4CEB9FE1A85EC53;
        return mixed ^ mixed >> 32;
    }

    bool within(ProbeTable const& other) const {
        for (auto const& entry : m_entries)
            if (entry.value && other.find(entry.key) != entry.value) return false;
        return true;
    }

    void place(ProbeKey key, T const* value) {
        std::size_t at = mix(key) & m_mask;
        while (m_entries[at].value) at = (at + 1) & m_mask;
        m_entries[at] = Entry{key, value};
    }

    void grow() {
        auto const old = std::exchange(m_entries, std::vector<Entry>(m_entries.size() * 2));
        m_mask = m_entries.size() - 1;
        for (auto const& entry : old)
            if (entry.value) place(entry.key, entry.value);
    }

    std::vector<Entry> m_entries = std::vector<Entry>(Smallest);
    std::size_t m_mask = Smallest - 1;
    std::size_t m_count = 0;
};

}  // namespace policyloader
