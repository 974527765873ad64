// BlockReader: the bytes of a content in blocks, from its start to its end.
// A block lives until the next one is asked for, the last one as long as the reader.
// Owner: one transfer; it borrows the content. Thread: the session's. Failure: false, for good.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "Message.h"

namespace smtp {

class BlockReader {
public:
    static constexpr unsigned kBlock = 128 * 1024;

    explicit BlockReader(Content const& content) : m_content(content), m_left(content.size()) {
        if (!content.spool) return;
        m_good = content.spool->seek(0, 0) >= 0;
        if (!content.spool->get_spool_file().empty()) m_own.reset(new char[kBlock]);
    }

    std::uint64_t left() const { return m_left; }

    // False: the bytes could not all be read.
    bool Next(std::string_view& block) {
        if (!m_content.spool) {
            block = m_content.text;
        } else if (!m_good || !Read(block)) {
            return m_good = false;
        }
        m_left -= block.size();
        return true;
    }

private:
    bool Read(std::string_view& block) {
        VELT::ScannerStream& spool = *m_content.spool;
        char* data = m_own.get();
        bool done = false;
        long const count = m_own ? spool.read(data, kBlock) : spool.readdata(data, kBlock, true, done);
        if (count <= 0 || static_cast<std::uint64_t>(count) > m_left) return false;
        block = std::string_view(data, static_cast<std::size_t>(count));
        return true;
    }

    Content const& m_content;
    std::unique_ptr<char[]> m_own;  // for a spool on disk; what lies in memory is handed out where it lies
    std::uint64_t m_left;
    bool m_good = true;
};

}  // namespace smtp
