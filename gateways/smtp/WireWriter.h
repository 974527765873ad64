// WireWriter: gathers pieces of output for one vectored write, and finishes what such a write left over.
// Owner: one transfer; it borrows the stream and the pieces, which must live until the next Flush.
// Thread: the session's. Failure: 0 or an errno value, kept: after the first one nothing more is written.
#pragma once

#include <array>
#include <string_view>

namespace VELT {
class TCPStream;
}

namespace smtp {

class WireWriter {
public:
    explicit WireWriter(VELT::TCPStream& stream) : m_stream(stream) {}

    void Add(std::string_view piece) {
        if (piece.empty()) return;
        if (m_count == m_pieces.size()) Flush();
        m_pieces[m_count] = piece.data();
        m_lengths[m_count++] = static_cast<unsigned>(piece.size());
    }
    int Flush();
    int error() const { return m_error; }

private:
    void Drop(unsigned sent);

    VELT::TCPStream& m_stream;
    std::array<char const*, 64> m_pieces{};
    std::array<unsigned, 64> m_lengths{};
    std::size_t m_count = 0;
    int m_error = 0;
};

}  // namespace smtp
