// CaptureReader: goes through a capture record by record (docs/formats/capture.md) and holds none of their data.
// Owner: the tool; the file stays its own. Thread: one. Units: bytes. Failure: Next and Read end; end() tells why.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include <velt/streams/CaptureRecord.h>

namespace velt_qxd {

class CaptureReader {
public:
    enum class End { none, whole, cutHeader, cutData, unreadable };

    // `swapped`: the capture comes from a machine of the other byte order.
    CaptureReader(std::FILE* file, bool swapped) : m_file(file), m_swapped(swapped) {}

    bool Next();  // passes over what is left of the record before
    VELT::CaptureRecord const& record() const { return m_record; }
    std::uint64_t offset() const { return m_offset; }      // of the record's header
    std::size_t Read(char* data, std::size_t room);        // of the record's data; 0 at its end
    std::uint64_t position() const { return m_position; }  // of the next byte

    End end() const { return m_end; }
    int error() const { return m_error; }                            // why it is unreadable: an errno value
    std::uint64_t present() const { return m_position - m_offset; }  // of the record that is cut, with its header
    std::uint32_t missing() const { return m_left; }                 // of the data of the record that is cut

private:
    std::size_t Take(void* data, std::size_t length);

    std::FILE* m_file;
    bool m_swapped;
    VELT::CaptureRecord m_record;
    std::uint64_t m_offset = 0;
    std::uint64_t m_position = 0;
    std::uint32_t m_left = 0;
    End m_end = End::none;
    int m_error = 0;
};

}  // namespace velt_qxd
