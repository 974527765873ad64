#include <policyloader/engines/LzmaReader.h>

#include <new>
#include <utility>

namespace policyloader {

LzmaReader::LzmaReader(ArchiveKind kind, std::size_t mostMemory, More more) : m_more(std::move(more)) {
    lzma_ret const status = kind == ArchiveKind::Xz     ? lzma_stream_decoder(&m_stream, mostMemory, LZMA_CONCATENATED)
                            : kind == ArchiveKind::Lzip ? lzma_lzip_decoder(&m_stream, mostMemory, LZMA_CONCATENATED)
                                                        : lzma_alone_decoder(&m_stream, mostMemory);
    if (status != LZMA_OK) throw std::bad_alloc();
}

bool LzmaReader::reads(ArchiveKind kind) {
    return kind == ArchiveKind::Xz || kind == ArchiveKind::Lzip || kind == ArchiveKind::Lzma;
}

lzma_ret LzmaReader::step() {
    if (m_stream.avail_in == 0 && !m_ended) {
        auto const bytes = m_more();
        m_stream.next_in = reinterpret_cast<std::uint8_t const*>(bytes.data());
        m_stream.avail_in = bytes.size();
        m_ended = bytes.empty();
    }
    return lzma_code(&m_stream, m_ended ? LZMA_FINISH : LZMA_RUN);
}

std::size_t LzmaReader::read(char* to, std::size_t count) {
    m_stream.next_out = reinterpret_cast<std::uint8_t*>(to);
    m_stream.avail_out = count;
    while (!m_over && m_stream.avail_out > 0) {
        lzma_ret const status = step();
        if (status == LZMA_MEM_ERROR) throw std::bad_alloc();
        m_over = status != LZMA_OK;
        if (m_over && status != LZMA_STREAM_END)
            m_state = status == LZMA_MEMLIMIT_ERROR ? State::TooLarge : State::Broken;
    }
    return count - m_stream.avail_out;
}

}  // namespace policyloader
