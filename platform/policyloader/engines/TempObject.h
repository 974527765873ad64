// TempObject: a new object while the old one is still being read: in memory first, then in a file without a name in
// the folder that TMPDIR names.  Owner: one scan, its thread.  Units: bytes.  Failure: EngineFailure of Write or Read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace policyloader {

class TempObject {
public:
    explicit TempObject(std::size_t memoryBytes = 1u << 20) : m_memoryBytes(memoryBytes) {}
    ~TempObject();
    TempObject(TempObject const&) = delete;
    TempObject& operator=(TempObject const&) = delete;

    void append(std::string_view text);
    std::uint64_t size() const { return m_size; }
    // From one position, as much as is there; 0: nothing is.
    std::size_t readAt(std::uint64_t at, char* to, std::size_t count) const;
    void readAll(std::function<void(std::string_view)> const& take) const;
    bool isInMemory() const { return m_file < 0; }

private:
    void toFile();
    void writeFile(std::string_view text);

    std::size_t m_memoryBytes;
    std::string m_memory;
    std::uint64_t m_size = 0;
    int m_file = -1;
};

}  // namespace policyloader
