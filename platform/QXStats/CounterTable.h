// CounterTable: the fixed layout of the counters that the processes of one proxy share (docs/formats/counters.md).
// Owner: the mapping lives as long as the process. Threads and processes: any; a slot is claimed by one compare and
// swap and never given back, so all who look for a name find the same slot. Units: bytes.
// Failure: Find gives null when the table is full or the name too long; Open gives null when the file is no such table.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <Export.h>

namespace QXStats {

class VELTPLATFORM_API CounterTable {
public:
    static constexpr std::size_t kSlots = 1023;
    static constexpr std::size_t kNameRoom = 112;  // with the closing zero

    struct Value {
        std::string name;
        unsigned long value;
    };

    static CounterTable* OpenShared(std::string const& proxy);  // to count in; never null
    static CounterTable const* Open(std::string const& file);   // to read from outside
    static std::string FilePath(std::string const& proxy);      // "/run/velt/<proxy>.counters", below the root
    static std::string MemoryPath(std::string const& proxy);    // "/dev/shm/velt-<proxy>"

    std::atomic<unsigned long>* Find(std::string_view name);  // makes the counter when there is none
    std::vector<Value> Read() const;                          // in the order in which they were made
    std::string Proxy() const;

private:
    struct Header {
        char magic[8];
        std::uint32_t version;
        std::uint32_t slots;
        char proxy[kNameRoom];
    };
    struct Slot {
        std::atomic<std::uint32_t> state;  // 0 free, 1 being made, 2 in use
        std::uint32_t reserved;
        std::atomic<unsigned long> value;
        char name[kNameRoom];
    };

    static CounterTable* MapFile(std::string const& file, std::string const& proxy);
    static CounterTable* MapPrivate(std::string const& proxy);
    void Format(std::string const& proxy);
    bool WellFormed() const;

    Header m_header;
    Slot m_slots[kSlots];
};

}  // namespace QXStats
