#include "tools/velt-qxd/CaptureReader.h"

#include <algorithm>
#include <cerrno>

namespace velt_qxd {

namespace {

std::int32_t Swapped(std::int32_t number) {
    return static_cast<std::int32_t>(__builtin_bswap32(static_cast<std::uint32_t>(number)));
}

}  // namespace

bool CaptureReader::Next() {
    for (char passed[4096]; Read(passed, sizeof passed) > 0;) {
    }
    if (m_end != End::none) return false;
    m_offset = m_position;
    if (Take(&m_record, sizeof m_record) < sizeof m_record) {
        if (m_end == End::none) m_end = m_position == m_offset ? End::whole : End::cutHeader;
        return false;
    }
    if (m_swapped) m_record = {Swapped(m_record.type), Swapped(m_record.length)};
    m_left = static_cast<std::uint32_t>(std::max(m_record.length, 0));
    return true;
}

std::size_t CaptureReader::Read(char* data, std::size_t room) {
    if (m_left == 0 || m_end != End::none) return 0;
    std::size_t const got = Take(data, std::min<std::size_t>(room, m_left));
    m_left -= static_cast<std::uint32_t>(got);
    if (got == 0 && m_end == End::none) m_end = End::cutData;
    return got;
}

std::size_t CaptureReader::Take(void* data, std::size_t length) {
    std::size_t const got = std::fread(data, 1, length, m_file);
    int const error = errno;
    m_position += got;
    if (got == length || !std::ferror(m_file)) return got;
    m_end = End::unreadable;
    m_error = error;
    return got;
}

}  // namespace velt_qxd
