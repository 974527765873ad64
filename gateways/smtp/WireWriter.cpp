#include "WireWriter.h"

#include <algorithm>
#include <cerrno>
#include <numeric>

#include <velt/streams/TCPStream.h>

namespace smtp {
namespace {

constexpr int kMaxEmptyRounds = 1000;  // interrupted waits in a row

}  // namespace

// Takes what was sent off the front.
void WireWriter::Drop(unsigned sent) {
    std::size_t first = 0;
    while (first < m_count && sent >= m_lengths[first]) sent -= m_lengths[first++];
    if (first < m_count) {
        m_pieces[first] += sent;
        m_lengths[first] -= sent;
    }
    std::move(m_pieces.begin() + first, m_pieces.begin() + m_count, m_pieces.begin());
    std::move(m_lengths.begin() + first, m_lengths.begin() + m_count, m_lengths.begin());
    m_count -= first;
}

// A vectored write that a signal interrupts answers success with less sent than given: the rest is sent again.
int WireWriter::Flush() {
    for (int emptyRounds = 0; m_count && !m_error;) {
        unsigned sent = 0;
        m_error = m_stream.writev(static_cast<unsigned>(m_count), m_lengths.data(), m_pieces.data(), &sent);
        if (m_error) break;
        emptyRounds = sent ? 0 : emptyRounds + 1;
        if (emptyRounds > kMaxEmptyRounds) m_error = EIO;
        Drop(sent);
    }
    m_count = 0;
    return m_error;
}

}  // namespace smtp
