#include <velt/streams/TCPWatch.h>

#include <cerrno>

#include <velt/streams/TCPStream.h>

namespace VELT {

void TCPWatch::Watch(TCPStream* stream) {
    if (!stream || m_count == s_limit || stream->get_file() < 0) return;
    m_watched[m_count++] = {stream->get_file(), POLLIN, 0};
}

int TCPWatch::Wait(int timeout_ms) {
    for (;;) {
        int const ready = ::poll(m_watched, m_count, timeout_ms);
        if (ready >= 0) return ready;
        if (errno != EINTR) return -1;
    }
}

bool TCPWatch::HasTriggered(TCPStream* stream) {
    if (!stream) return false;
    int const fd = stream->get_file();
    for (unsigned i = 0; i < m_count; ++i)
        if (m_watched[i].fd == fd && (m_watched[i].revents & (POLLIN | POLLERR | POLLHUP))) return true;
    return false;
}

}  // namespace VELT
